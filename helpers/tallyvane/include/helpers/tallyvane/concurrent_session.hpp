// The board's update with the receive loop on a thread of the session's own,
// from before the update starts ($QUORVEX_TALLYVANE_READER=concurrent).
// The waits are woken by what the receive path stores instead of polling,
// and every wait obeys the stall limit. A board on a real link answers late,
// loses frames and may say things that are not so; so here:
//  - a chunk counts only by the board's report of the very bytes in flight
//    (lastSentBlock holds the last byte sent, not a count), and that report
//    is its acknowledgement too;
//  - the waits last as long as the board's answers have taken
//    (RetransmissionTimer), and a lost answer costs one such wait and half
//    the chunk size;
//  - ApplyUpdate goes out only once every byte of the image is acknowledged;
//    a completion while the board still asks for bytes is refused.
// Thread words as in receive_loop.hpp.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "common/notify.hpp"
#include "common/stall_limit.hpp"
#include "helpers/tallyvane/acknowledged_image.hpp"
#include "helpers/tallyvane/retransmission_timer.hpp"
#include "helpers/tallyvane/update_mode.hpp"

namespace Updater::Helpers {

class ReceiveLoop;

class ConcurrentSession : public UpdateMode {
 public:
  // Each round of the wait for update information: a request whose answer
  // is lost is asked again after this.
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
  // Context (all but Wake): update thread.
  void StopReaderThread();
  // Wakes whoever waits in AwaitLink(). Context: any thread.
  void Wake();
  // Waits until `ready()` or `timeout`, woken by the receive path. A pending
  // packet whose acknowledgement is overdue goes out again meanwhile.
  bool AwaitLink(std::chrono::nanoseconds timeout, const std::function<bool()>& ready);
  // One timeout of the board's, or what the stall limit leaves.
  std::chrono::nanoseconds AnswerWait();
  bool ErrorReported() const;
  // What the acknowledgement wait returns, by what it saw.
  int Reported();
  int Lost();
  int Completed();
  int Refused();
  int GiveUp();
  int Acked();

  ReceiveLoop& link_;
  std::thread readerThread_;
  // The waits sleep on `wake_`; what they wait for is atomic, and the
  // receive path notifies after every change.
  std::mutex wakeMutex_;
  std::condition_variable wake_;
  // The rest belongs to the update thread.
  StallWatch stall_;   // the stall limit and the idle rounds
  Image::File image_;  // the image the checksum was taken of, read to the end of the run
  int sentPosition_ = 0;
  int sentBytes_ = 0;
  unsigned errorsAtSend_ = 0;
  RetransmissionTimer timer_;
  // Whether the next chunk's answer is timed: not after a loss (Karn).
  bool timeNext_ = true;
  // The bytes the board has acknowledged in its reports.
  AcknowledgedImage acked_;
  // What the board's last counted report asked for next; -1: nothing more.
  int nextPosition_ = -1;
  // The board's reports taken so far (BoardReports::reportsTaken).
  unsigned reportsCounted_ = 0;
  bool givenUp_ = false;
  // Chunks in a row the board acknowledged but never reported.
  int unreportedInARow_ = 0;
  ProgressNotifier progress_;
};

}  // namespace Updater::Helpers
