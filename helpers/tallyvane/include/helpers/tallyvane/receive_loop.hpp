// The receive side of the board's link: a polling read loop on the data
// device and the parser that cuts each read into frames.
//
// Threads, in the words every header of this helper uses:
//   receive thread - the thread that runs RunReader() (the main thread after
//                    the machine in the designed mode, the concurrent
//                    session's own thread in the other);
//   update thread  - the thread on which the machine calls the helper;
//   any thread     - either of them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "common/console.hpp"

namespace VYRCam {
class DatalinkPacketAck;
}  // namespace VYRCam

namespace Updater::Helpers {

// Where the frames of a read go, once unpacked, in the order they arrived.
// Context (every function): receive thread.
class FrameHandler {
 public:
  virtual ~FrameHandler() = default;
  virtual void OnDatalinkAck(const VYRCam::DatalinkPacketAck& ack) = 0;
  virtual void OnUpdateInfo(std::uint16_t partialVersion, std::uint32_t downloaded, std::uint8_t blockSize,
                            int flashRegion) = 0;
  virtual void OnBlockReport(int lastReceivedPos, std::uint32_t next) = 0;
  virtual void OnUpdateComplete() = 0;
  virtual void OnUpdateError() = 0;

 protected:
  FrameHandler() = default;
  FrameHandler(const FrameHandler&) = default;
  FrameHandler& operator=(const FrameHandler&) = default;
};

class ReceiveLoop {
 public:
  // Reads `devicePath` (opened by the loop itself) and hands every frame to
  // `handler`, which must outlive the loop. Nothing is opened yet.
  // Context: update thread, as is the destructor (once the loop has ended).
  ReceiveLoop(std::string devicePath, Clock& clock, FrameHandler& handler);
  ~ReceiveLoop();
  ReceiveLoop(const ReceiveLoop&) = delete;
  ReceiveLoop& operator=(const ReceiveLoop&) = delete;

  // Polls the device until readerRunning is cleared; returns the result of
  // the final close(). A device that goes away is opened again.
  // Context: receive thread (the caller becomes it).
  int RunReader();
  // Ends RunReader() at once, also when it has not started yet.
  // Context: any thread.
  void StopReader();

  // Takes the bytes of one read() and parses them. RunReader() feeds every
  // non-empty read through here.
  // Context: receive thread.
  void Receive(const std::uint8_t* data, std::size_t count);
  // Cuts rxBuffer into frames and dispatches them. After a frame that does
  // not unpack, bytes are given up one at a time (each shown, then "CHOKE")
  // until the rest starts with the sync bytes; nothing else is unpacked.
  // Context: receive thread.
  void ProcessReceived();

 private:
  // Where the bytes of a data path that is a plain file were used up, so
  // that a reopen goes on from there and the same frames are never handled
  // twice.
  struct FileMark {
    dev_t device = 0;
    ino_t inode = 0;
    off_t offset = -1;
  };

  // What the loop does after one poll.
  enum class Turn { kPollAgain, kNextTurn, kEnded };

  void OpenDevice();
  // Counts a failed read and, from the second in a row, pauses before the
  // next try; a FIFO's writer leaving is no failure.
  void Failed(bool endOfFile);
  // One poll and what it brought.
  Turn PollOnce();
  Turn HandleRead(ssize_t count);
  void ReportSilence();
  int CloseDevice();
  // Hands the frame at `at` to its packet class; Unpack's code, and the
  // frame's length after the sync bytes in `length`. Every frame read from
  // the board passes here once, in order: the place to watch them all.
  int Dispatch(std::size_t at, int& length);
  // Gives up the bytes from `at` one at a time, each shown with the rest of
  // the read (in summary mode counted instead), up to the next sync bytes;
  // returns where they are.
  std::size_t Resynchronise(std::size_t at, const std::string& cells);

  const std::string devicePath_;
  Clock& clock_;
  FrameHandler& handler_;
  // Signalled by StopReader(): ends the loop's poll at once.
  int stopFd_ = -1;

  // Everything below belongs to the receive thread, but readerRunning.
  int deviceFd = -1;
  std::atomic<bool> readerRunning{false};
  std::vector<std::uint8_t> rxBuffer;
  std::uint8_t readBuffer_[1024] = {};
  FileMark mark_;
  bool fifo_ = false;
  bool regular_ = false;
  // Failures (end-of-file or a read error) since bytes last arrived, and
  // the pause before the next try.
  int failures_ = 0;
  std::chrono::milliseconds pause_{0};
  Clock::time_point lastOuch_;
  int closeResult_ = 0;
  // In summary mode, the bytes the parser gives up instead of "GULP",
  // "CHOKE" and the dumps. Shown when the loop ends, and meanwhile as the
  // counter allows.
  Console::DropCounter drops_;
};

}  // namespace Updater::Helpers
