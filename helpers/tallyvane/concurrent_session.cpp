#include "helpers/tallyvane/concurrent_session.hpp"

#include <algorithm>
#include <iostream>

#include "common/console.hpp"
#include "common/log.hpp"
#include "helpers/tallyvane/board_reports.hpp"
#include "helpers/tallyvane/kept_texts.hpp"
#include "helpers/tallyvane/receive_loop.hpp"
#include "helpers/tallyvane/send_path.hpp"
#include "sm/ack_status.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

using namespace std::chrono_literals;

namespace {
// A unit's start time-out is stretched by this much past the stall limit
// with every progress line, so that only a transfer the limit would end runs into it.
constexpr auto kProgressMargin = std::chrono::seconds(30);
// The designed wait for update information, as a whole.
constexpr auto kUpdateInfoWait = 102 * 100ms;
}  // namespace

ConcurrentSession::ConcurrentSession(SendPath& send, BoardReports& board, ReceiveLoop& link, Clock& clock)
    : UpdateMode(send, board, clock),
      link_(link),
      stall_(StallLimitFromEnvironment(), clock),
      progress_("board", clock, stall_.Limit().value_or(kDefaultStallLimit) + kProgressMargin) {
  send_.SendNextOnAcknowledgement([this] { Wake(); });
  board_.OnChange([this] { Wake(); });
}

ConcurrentSession::~ConcurrentSession() { StopReaderThread(); }

void ConcurrentSession::BeginRun() {
  if (readerThread_.joinable()) return;
  readerThread_ = std::thread([this] { link_.RunReader(); });
}

void ConcurrentSession::StopReaderThread() {
  if (!readerThread_.joinable()) return;
  link_.StopReader();
  readerThread_.join();
}

void ConcurrentSession::Wake() {
  { const std::lock_guard<std::mutex> lock(wakeMutex_); }
  wake_.notify_all();
}

bool ConcurrentSession::AwaitLink(std::chrono::nanoseconds timeout, const std::function<bool()>& ready) {
  const auto end = clock_.Monotonic() + timeout;
  const std::chrono::nanoseconds resendSlice = std::chrono::milliseconds(send_.AckTimeoutMs());
  std::unique_lock<std::mutex> lock(wakeMutex_);
  for (;;) {
    const auto now = clock_.Monotonic();
    if (ready()) return true;
    if (now >= end) return false;
    if (clock_.WaitFor(wake_, lock, std::min<std::chrono::nanoseconds>(end - now, resendSlice), ready))
      return true;
    lock.unlock();
    send_.ResendExpired();  // a lost acknowledgement costs ackTimeoutMs, not the update
    lock.lock();
  }
}

bool ConcurrentSession::CompletedAndApplied() const {
  const int apply = board_.applySequence;
  return board_.updateCompleted && apply >= 0 && send_.NonePendingBefore(apply);
}

bool ConcurrentSession::ErrorReported() const { return board_.updateErrors != errorsAtSend_; }

int ConcurrentSession::CheckForUpdate() {
  // A lost answer is asked for again once a second, within the designed
  // time for the whole wait.
  bool informed = false;
  for (int round = 0; !informed && round < kUpdateInfoWait / kReportTimeout; ++round) {
    if (send_.PendingCount() == 0) {
      VYRCam::RequestUpdateInfo request;
      send_.SendPacket(request);
    }
    informed = AwaitLink(kReportTimeout, [this] { return board_.haveUpdateInfo != 0; });
  }
  if (!informed) {
    Log::Error("Error asking tallyvane for update info status, not updating");
    return 0;
  }

  // Every chunk is read through the descriptor kept here: an image renamed
  // over the file meanwhile cannot mix with the one whose checksum was announced.
  if (!ReadPackage(image_)) return 0;
  if (imageSize_ == 0) {
    // The board would complete at once, with nothing ever asked for.
    Log::Error("Firmware image [", firmwarePath, "] is empty; not updating");
    return 0;
  }
  errorsAtSend_ = board_.updateErrors;
  Announce();
  stall_.Progressed();  // the stall limit counts from the announcement
  return 1;
}

int ConcurrentSession::GetFirstUpdateBlock() {
  // The board answers the announcement with its first position. When that
  // answer is lost, the announcement goes out again.
  while (!AwaitLink(std::min<std::chrono::nanoseconds>(kReportTimeout, stall_.TimeLeft()),
                    [&] { return board_.nextBlock != -1 || ErrorReported(); })) {
    if (stall_.TimeLeft() <= std::chrono::nanoseconds::zero()) return -1;  // the send refuses it
    if (send_.PendingCount() == 0) Announce();
  }
  if (ErrorReported()) {
    Log::Error("The board reported an update error; giving up the update");
    return -1;
  }
  firstPosition_ = board_.nextBlock;
  return firstPosition_;
}

int ConcurrentSession::SendFirmwareBlock(int position) {
  const auto notSent = [this] {
    StopReaderThread();
    return 0;
  };
  if (stall_.GivenUp(position)) return notSent();
  if (position < 0 || packetSize < 1 || !image_.is_open()) return notSent();
  // One packet awaiting its acknowledgement on the wire at a time: the
  // previous chunk's must be in (or it goes out again) before this one leaves.
  if (!AwaitLink(stall_.TimeLeft(), [this] { return send_.PendingCount() == 0; })) {
    stall_.GivenUp(position);
    return notSent();
  }
  if (Console::Detail())
    std::cout << "This block: [" << position << "], blockSize: [" << packetSize << "]" << '\n';
  image_.clear();  // the last chunk read up to the end of the file
  auto chunk = Image::ReadChunk(image_, imageSize_, position, packetSize);
  if (!chunk) return notSent();
  sentPosition_ = position;
  sentBytes_ = static_cast<int>(chunk->size());
  errorsAtSend_ = board_.updateErrors;
  return SendBlock(position, *chunk) ? 1 : notSent();
}

bool ConcurrentSession::SendCounted(VYRCam::FirmwareBlock& block, int position, std::size_t bytes) {
  // The board reports byte positions, so the last byte sent is what its
  // report is compared with. Set before the chunk leaves: the report may
  // come back before SendPacket() returns.
  const int lastByte = position + static_cast<int>(bytes) - 1;
  if (Console::Detail()) std::cout << "Setting last sent byte to [" << lastByte << "]" << '\n';
  board_.lastSentBlock = lastByte;
  return send_.SendPacket(block);
}

int ConcurrentSession::GetNextFirmwareBlock() {
  const int next = UpdateMode::GetNextFirmwareBlock();
  if (next < 0) StopReaderThread();  // the machine ends the run as a failure
  return next;
}

bool ConcurrentSession::NoteProgress() {
  if (sentBytes_ <= 0 || imageSize_ <= 0) return false;
  // Measured from the board's first position, wrapping at the end, so that
  // a board that asks for the start of the image last still moves forward,
  // and one that asks for the same bytes again does not.
  const std::int64_t from = ((sentPosition_ - firstPosition_) % imageSize_ + imageSize_) % imageSize_;
  if (from + sentBytes_ <= traversed_) return false;
  traversed_ = from + sentBytes_;
  stall_.Progressed();
  return true;
}

int ConcurrentSession::WaitForAck() {
  // A report of the very bytes sent that names a next position; the one
  // naming none is followed by UpdateComplete, which is waited for.
  const auto reported = [this] {
    return board_.lastAckedBlock == board_.lastSentBlock && board_.nextBlock != -1;
  };
  AwaitLink(std::min<std::chrono::nanoseconds>(kReportTimeout, stall_.TimeLeft()),
            [&] { return ErrorReported() || CompletedAndApplied() || reported(); });

  if (CompletedAndApplied()) return Completed();
  if (ErrorReported()) return GiveUp();
  if (reported()) {
    // A board that acknowledges without moving forward (an empty chunk, the
    // same bytes again) is answered ever more slowly, and after a few such
    // rounds the update is given up: it costs seconds, not the stall limit.
    if (!NoteProgress()) stall_.Idle();
    progress_.Report(std::min(imageSize_, firstPosition_ + traversed_), imageSize_);
    ReportProgress(std::min(imageSize_, firstPosition_ + traversed_));
    return AfterAckWait(kAcked);
  }
  if (Console::Detail()) {
    std::cout << "Last Acked: [" << board_.lastAckedBlock.load() << "], last sent: ["
              << board_.lastSentBlock.load() << "]" << '\n';
    std::cout << Kept::kNoBlockAck << '\n';
  }
  return AfterAckWait(kResend);
}

int ConcurrentSession::Completed() {
  // The board's acknowledgement of ApplyUpdate says it has taken it; it is
  // waited for a while, but the update is complete either way.
  AwaitLink(std::chrono::milliseconds(send_.AckTimeoutMs()), [this] { return send_.PendingCount() == 0; });
  NoteProgress();
  progress_.Report(imageSize_, imageSize_);
  ReportProgress(imageSize_);
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << kLastBlockAcked << '\n';
  return kLastBlockAcked;
}

int ConcurrentSession::GiveUp() {
  // The board has forgotten the update; no next position ends it.
  Log::Error("The board reported an update error; giving up the update");
  board_.nextBlock = -1;
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << kGivenUp << '\n';
  return kGivenUp;
}

}  // namespace Updater::Helpers
