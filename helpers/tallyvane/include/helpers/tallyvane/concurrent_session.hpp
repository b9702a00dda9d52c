// The board's update with the receive loop on a thread of the session's own,
// from before the update starts ($QUORVEX_TALLYVANE_READER=concurrent).
// The waits are woken by what the receive path stores instead of polling,
// an acknowledged chunk is the board's report of the very bytes that were
// sent (lastSentBlock holds the last byte sent, not a count), and every wait
// obeys the stall limit. Thread words as in receive_loop.hpp.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "common/notify.hpp"
#include "common/stall_limit.hpp"
#include "helpers/tallyvane/update_mode.hpp"

namespace Updater::Helpers {

class ReceiveLoop;

class ConcurrentSession : public UpdateMode {
 public:
  // How long the session waits for the board's report of a chunk before the
  // chunk goes out again.
  static constexpr std::chrono::seconds kReportTimeout{1};

  // Hooks itself into `send` and `board` so that they wake its waits.
  // Context: update thread, before any receive thread runs.
  ConcurrentSession(SendPath& send, BoardReports& board, ReceiveLoop& link, Clock& clock);
  // Stops the receive thread. Context: update thread.
  ~ConcurrentSession() override;

  // ---- context update thread ---------------------------------------------
  int CheckForUpdate() override;
  int GetFirstUpdateBlock() override;
  // A chunk that is not sent ends the run (the machine exits the process at
  // once), so the receive thread is stopped first.
  int SendFirmwareBlock(int position) override;
  int WaitForAck() override;
  int GetNextFirmwareBlock() override;
  // Starts the receive thread; the run ends with the update.
  void BeginRun() override;
  void EndRun() override { StopReaderThread(); }

 protected:
  bool SendCounted(VYRCam::FirmwareBlock& block, int position, std::size_t bytes) override;

 private:
  void StopReaderThread();
  // Wakes whoever waits in AwaitLink(). Context: any thread.
  void Wake();
  // Waits until `ready()` or `timeout`, woken by the receive path. A pending
  // packet whose acknowledgement is overdue goes out again meanwhile.
  bool AwaitLink(std::chrono::nanoseconds timeout, const std::function<bool()>& ready);
  // The board has completed and ApplyUpdate is on the wire (or acknowledged).
  bool CompletedAndApplied() const;
  bool ErrorReported() const;
  // True when the chunk just acknowledged moved the transfer forward.
  bool NoteProgress();
  int Completed();
  int GiveUp();

  ReceiveLoop& link_;
  std::thread readerThread_;
  // The waits sleep on `wake_`; what they wait for is atomic, and the
  // receive path notifies after every change.
  std::mutex wakeMutex_;
  std::condition_variable wake_;
  // The rest belongs to the update thread.
  StallWatch stall_;   // the stall limit and the idle rounds
  Image::File image_;  // the image the checksum was taken of, read to the end of the run
  int firstPosition_ = 0;
  int sentPosition_ = 0;
  int sentBytes_ = 0;
  unsigned errorsAtSend_ = 0;
  // Bytes acknowledged in the order the board asks for them, from its first
  // position on (wrapping at the end of the image).
  std::int64_t traversed_ = 0;
  ProgressNotifier progress_;
};

}  // namespace Updater::Helpers
