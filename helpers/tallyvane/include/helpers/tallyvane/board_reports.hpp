// What the board has told us, as the receive path stores it for the update
// operations: update information, block reports, completion and errors.
// Fields the receive thread writes and the update thread polls are atomics.
// Thread words as in receive_loop.hpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

#include "common/clock.hpp"
#include "helpers/tallyvane/receive_loop.hpp"

namespace Updater::Helpers {

class SendPath;

class BoardReports : public FrameHandler {
 public:
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

  static constexpr std::int32_t progressPrintIntervalMs = 1000;

  // Acknowledgements go to `send`, and ApplyUpdate leaves through it.
  // Context: update thread.
  BoardReports(SendPath& send, Clock& clock);

  // Runs after every change the receive path makes (the concurrent
  // session's wake-up).
  // Context: update thread, before the receive thread starts.
  void OnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

  // From here on a block report counts only when it names the last byte of
  // the chunk in flight, and only the first such one: a stale, repeated or
  // phantom report is ignored with a line and changes nothing the waits
  // read. A completion is only noted; the concurrent session decides
  // whether ApplyUpdate goes out.
  // Context: update thread, before the receive thread starts.
  void CountOnlyTheChunkInFlight() { chunkInFlightOnly_ = true; }
  // The chunk in flight ends at `lastByte` (-1 for the announcement, whose
  // answer names no byte); no report of it has come yet.
  // Context: update thread.
  void Await(int lastByte);

  // ---- FrameHandler: context receive thread -------------------------------
  void OnDatalinkAck(const VYRCam::DatalinkPacketAck& ack) override;
  void OnUpdateInfo(std::uint16_t partialVersion, std::uint32_t downloaded, std::uint8_t blockSize,
                    int flashRegion) override;
  void OnBlockReport(int lastReceivedPos, std::uint32_t next) override;
  // The board is done: whatever it last reported, what was sent counts as
  // acknowledged, and ApplyUpdate goes out (once). After
  // CountOnlyTheChunkInFlight() it is only noted in updateCompleted.
  void OnUpdateComplete() override;
  // The board has forgotten the update: the queue and every field reset.
  void OnUpdateError() override;

  // Context: any thread.
  LinkState State() const;

  // Written by the receive path, polled by the update operations; the update
  // operations write the two "sent" fields. Context: any thread.
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
  std::atomic<unsigned> updateErrors{0};  // error reports seen
  std::atomic<int> applySequence{-1};     // the ApplyUpdate's sequence number
  // Set once the report of the awaited chunk is in, after the fields it
  // fills; when it came (Clock::Monotonic()).
  std::atomic<bool> awaitedReported{false};
  std::atomic<Clock::steady_point::rep> reportedAt{0};
  // Reports counted so far, and how many had been when the board said it
  // had completed: which chunk a completion followed.
  std::atomic<unsigned> reportsTaken{0};
  std::atomic<unsigned> reportsBeforeCompletion{0};
  // The update information's block size, and when it came.
  std::atomic<std::uint8_t> infoBlockSize{0};
  std::atomic<Clock::steady_point::rep> infoAt{0};

 private:
  void PrintProgress(int lastReceivedPos) const;
  // The designed mode's take of a report: whatever it names.
  void StoreReport(int lastReceivedPos, int nextPos);
  // The concurrent session's: false when the report is not the awaited one.
  bool TakeAwaitedReport(int lastReceivedPos, int nextPos);
  void ResetUpdateState();
  void Changed() const {
    if (onChange_) onChange_();
  }

  SendPath& send_;
  Clock& clock_;
  std::function<void()> onChange_;
  bool chunkInFlightOnly_ = false;
  // Makes a report's match and Await() one step each: a report checked
  // against one chunk never counts for the next.
  std::mutex awaitMutex_;
  // One progress line per interval, however many block reports there are.
  // Context: receive thread.
  Clock::time_point lastProgressPrint;
};

}  // namespace Updater::Helpers
