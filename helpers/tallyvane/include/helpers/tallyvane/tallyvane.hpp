// Update helper for the counter-link board.
//
// Frames from the board arrive on a character device that RunReader() polls;
// everything towards the board goes through lc::QelArmControl::Send_Dl_Us_Raw.
// The update operations the machine calls sleep and re-read what the receive
// path stored, so the fields both sides touch are atomics, and the queue of
// packets still waiting for the board's acknowledgement sits behind
// queueMutex.
//
// Positions are byte offsets in the firmware image; -1 means "none".
//
// In the concurrent mode ($QUORVEX_TALLYVANE_READER=concurrent) the receive
// loop runs on a thread of the helper's own from before the update starts,
// the waits are woken by what it stores instead of polling, an acknowledged
// chunk is the board's report of the very bytes that were sent, and every
// wait obeys the stall limit. Without it the helper keeps its designed
// behaviour, in which the loop only runs after the update.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/clock.hpp"
#include "common/image_file.hpp"
#include "common/notify.hpp"
#include "common/stall_limit.hpp"
#include "lc/downlink_frame.hpp"
#include "sm/update_helper.hpp"

namespace VYRCam {
class Packet;
class DatalinkPacketAck;
}  // namespace VYRCam

namespace Updater::Helpers {

class Tallyvane : public UpdateHelper {
 public:
  // Channel code of every packet handed to Send_Dl_Us_Raw.
  static constexpr int kDownlinkChannel = 5;
  static constexpr int kMaxPacketSize = 64;

  struct PendingPacket {
    std::vector<std::uint8_t> bytes;
    Clock::time_point sentAt;
    std::uint8_t sequence = 0;
  };

  // What the receive path and the send path have recorded, read in one go.
  struct LinkState {
    std::uint8_t updateCompleted;
    std::uint16_t partialDlVer;
    std::int64_t downloadedBlocks;
    int flashSector;
    std::uint8_t haveUpdateInfo;
    int firstBlock;
    int lastReceived;
    int nextBlock;
    std::uint8_t blockReportReceived;
    int lastSentBlock;
    int lastAckedBlock;
  };

  // How long the concurrent mode waits for the board's report of a chunk
  // before the chunk goes out again.
  static constexpr std::chrono::seconds kReportTimeout{1};

  // The data device defaults to the platform's ($QUORVEX_TALLYVANE_DATA or
  // /dev/arm-tallyvane-data), looked up once, here.
  explicit Tallyvane(std::string devicePath = lc::DataDevicePath(),
                     Updater::Clock& clock = Updater::SystemClock(), bool concurrent = false);
  // Whether $QUORVEX_TALLYVANE_READER asks for the concurrent mode. Any
  // other non-empty value gets a warning on standard error, and the designed
  // mode runs.
  static bool ConcurrentFromEnvironment();
  // Frees what the helper owns; the device stays as RunReader() left it and
  // nothing is sent.
  ~Tallyvane() override;
  Tallyvane(const Tallyvane&) = delete;
  Tallyvane& operator=(const Tallyvane&) = delete;

  // ---- UpdateHelper ----------------------------------------------------
  int CheckForUpdate() override;
  bool HaveUpdateFile() override;
  int GetFirstUpdateBlock() override;
  int SendFirmwareBlock(int position) override;
  int WaitForAck(unsigned block) override;
  int GetNextFirmwareBlock() override;

  // Called once the receive loop has ended. Nothing to do on this board,
  // but the program's entry keeps the call so that it has a place to grow.
  void Close();

  // ---- receive path ------------------------------------------------------
  // Polls the device until readerRunning is cleared; returns the result of
  // the final close().
  int RunReader();
  // Ends RunReader() at once, also when it has not started yet.
  void StopReader();
  bool ReaderRunning() const { return readerRunning; }
  // The concurrent mode: RunReader() on a thread of the helper's, and its end.
  void StartReaderThread();
  void StopReaderThread();
  bool Concurrent() const { return concurrent_; }

  // Takes the bytes of one read() and parses them. RunReader() feeds every
  // non-empty read through here.
  void Receive(const std::uint8_t* data, std::size_t count);
  // Cuts rxBuffer into frames and dispatches them. After a frame that does
  // not unpack, bytes are given up one at a time (each shown, then "CHOKE")
  // until the rest starts with the sync bytes; nothing else is unpacked.
  void ProcessReceived();
  void DumpReceived(const std::uint8_t* data, int count);

  void OnUpdateInfo(std::uint16_t partialVersion, std::uint32_t downloaded, std::uint8_t blockSize,
                    int flashRegion);
  void OnBlockReport(int lastReceivedPos, std::uint32_t next);
  void OnUpdateComplete();
  void OnUpdateError();
  void OnDatalinkAck(const VYRCam::DatalinkPacketAck& ack);

  // ---- send path ----------------------------------------------------------
  // Numbers, packs and sends `packet`. A packet that wants an acknowledgement
  // goes into the pending queue and leaves at once only when nothing else is
  // outstanding. True when Send_Dl_Us_Raw was called and succeeded.
  bool SendPacket(VYRCam::Packet& packet);
  bool RemovePending(std::uint8_t sequence);
  void ClearPending();
  // Sends the oldest pending packet again once it has waited ackTimeoutMs.
  bool ResendExpired();
  bool SendBlock(int position, const std::vector<std::uint8_t>& data);
  int WaitForBlockReport();
  int AwaitBlockAck();

  // 16-bit byte sum of `data`, subtracted from 256.
  static std::uint16_t tallyvane_checksum(const char* data, std::size_t length);

  // ---- inspection -----------------------------------------------------------
  LinkState State() const;
  int PacketSize() const { return packetSize; }
  std::size_t PendingCount() const;
  std::vector<std::uint8_t> PendingSequences() const;
  const std::string& FirmwarePath() const { return firmwarePath; }
  int PackageVersion() const { return packageVersion; }

  // Process-wide: one progress line per interval, however many helpers or
  // block reports there are.
  static std::atomic<Clock::time_point> lastProgressPrint;
  static constexpr std::int32_t progressPrintIntervalMs = 1000;
  // Firmware blocks sent successfully by this process.
  static std::atomic<int> sentBlockCounter;

 private:
  // ---- the concurrent mode -------------------------------------------------
  // Wakes whoever waits in AwaitLink(); called after every change the receive
  // path makes.
  void Wake();
  // Waits until `ready()` or `timeout`, woken by the receive path. A pending
  // packet whose acknowledgement is overdue goes out again meanwhile.
  bool AwaitLink(std::chrono::nanoseconds timeout, const std::function<bool()>& ready);
  // The board has completed and ApplyUpdate is on the wire (or acknowledged).
  bool CompletedAndApplied() const;
  int CheckForUpdateConcurrent();
  int SendFirmwareBlockConcurrent(int position);
  int WaitForAckConcurrent();
  int FirstPositionConcurrent();
  // Announces the image that ReadPackage() summed.
  void Announce();
  // Looks up the board's package and, when it is newer than what the board
  // runs, opens it through `image`, sums it and prints what the check prints
  // before the announcement. False when there is nothing to announce, or
  // the package is refused (see Image::File::Open).
  bool ReadPackage(Image::File& image);
  // Prints the status and grows or drops the packet size by it.
  int AfterAckWait(int status);
  // True when the chunk just acknowledged moved the transfer forward.
  bool NoteProgress();

  static std::uint16_t ReportChecksum(std::size_t length, std::uint16_t sum);
  void PrintProgress(int lastReceivedPos) const;
  bool Transmit(const std::vector<std::uint8_t>& bytes) const;
  void ResetUpdateState();

  const std::string devicePath;
  Updater::Clock& clock;
  const bool concurrent_;
  // Signalled by StopReader(): ends the loop's poll at once.
  int stopFd_ = -1;
  std::thread readerThread_;

  // Receive side; deviceFd and rxBuffer belong to the reader thread.
  int deviceFd = -1;
  std::atomic<bool> readerRunning{false};
  std::vector<std::uint8_t> rxBuffer;
  std::uint8_t readBuffer[1024] = {};

  // Send side.
  std::vector<PendingPacket> pendingPackets;
  // Both threads send (ApplyUpdate goes out from the receive path).
  std::atomic<std::uint8_t> nextSequence{0};
  std::uint64_t ackTimeoutMs = 3000;
  mutable std::mutex queueMutex;
  // Only the update operations touch these.
  int packetSize = kMaxPacketSize;
  int packageVersion = -1;
  std::string firmwarePath;

  // Written by the receive path, polled by the update operations.
  std::atomic<std::uint8_t> updateCompleted{0};
  std::atomic<std::uint16_t> partialDlVer{0};
  std::atomic<std::int64_t> downloadedBlocks{0};
  std::atomic<int> flashSector{0};
  std::atomic<std::uint8_t> haveUpdateInfo{0};
  std::atomic<int> firstBlock{0};
  std::atomic<int> lastReceived{-1};
  std::atomic<int> nextBlock{-1};
  std::atomic<std::uint8_t> blockReportReceived{0};
  std::atomic<int> lastSentBlock{-1};
  std::atomic<int> lastAckedBlock{-1};

  // The concurrent mode. The waits sleep on `wake_`; what they wait for is
  // atomic, and the receive path notifies after every change.
  std::mutex wakeMutex_;
  std::condition_variable wake_;
  std::atomic<unsigned> updateErrors_{0};  // error reports seen
  std::atomic<int> applySequence_{-1};     // the ApplyUpdate's sequence number
  // The rest belongs to the update thread.
  StallWatch stall_;   // the stall limit and the idle rounds
  Image::File image_;  // the image the checksum was taken of, read to the end of the run
  std::int64_t imageSize_ = 0;
  int firstPosition_ = 0;
  int sentPosition_ = 0;
  int sentBytes_ = 0;
  unsigned errorsAtSend_ = 0;
  // Bytes acknowledged in the order the board asks for them, from its first
  // position on (wrapping at the end of the image).
  std::int64_t traversed_ = 0;
  std::uint16_t checksum_ = 0;
  ProgressNotifier progress_;
};

}  // namespace Updater::Helpers
