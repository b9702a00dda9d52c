#include "helpers/tallyvane/concurrent_session.hpp"

#include <algorithm>
#include <iostream>

#include "common/chunk_size.hpp"
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
// ApplyUpdate is sent again at most once when its acknowledgement is late:
// the wait lasts a timeout and the doubled one after the resend.
constexpr int kApplyWaitTimeouts = 3;

Clock::steady_point At(Clock::steady_point::rep count) {
  return Clock::steady_point(Clock::steady_point::duration(count));
}
}  // namespace

ConcurrentSession::ConcurrentSession(SendPath& send, BoardReports& board, ReceiveLoop& link, Clock& clock)
    : UpdateMode(send, board, clock),
      link_(link),
      stall_(StallLimitFromEnvironment(), clock),
      progress_("board", clock, stall_.Limit().value_or(kDefaultStallLimit) + kProgressMargin) {
  send_.SendNextOnAcknowledgement([this] { Wake(); });
  board_.OnChange([this] { Wake(); });
  board_.CountOnlyTheChunkInFlight();
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
  std::unique_lock<std::mutex> lock(wakeMutex_);
  for (;;) {
    const auto now = clock_.Monotonic();
    if (ready()) return true;
    if (now >= end) return false;
    if (clock_.WaitFor(wake_, lock, std::min<std::chrono::nanoseconds>(end - now, timer_.Timeout()), ready))
      return true;
    lock.unlock();
    // A lost acknowledgement costs one timeout; the answer to the copy
    // cannot be told from the original's, so it is not timed.
    if (send_.ResendOlderThan(timer_.Timeout())) timer_.Expired();
    lock.lock();
  }
}

std::chrono::nanoseconds ConcurrentSession::AnswerWait() {
  return std::min<std::chrono::nanoseconds>(timer_.Timeout(), stall_.TimeLeft());
}

bool ConcurrentSession::ErrorReported() const { return board_.updateErrors != errorsAtSend_; }

int ConcurrentSession::CheckForUpdate() {
  // A lost answer is asked for again once a second, within the designed
  // time for the whole wait; only the first request's answer is timed.
  bool informed = false;
  for (int round = 0; !informed && round < kUpdateInfoWait / kReportTimeout; ++round) {
    if (send_.PendingCount() == 0) {
      if (round == 0) timer_.Sent(clock_.Monotonic());
      if (round != 0) timer_.Unmeasured();
      VYRCam::RequestUpdateInfo request;
      send_.SendPacket(request);
    }
    informed = AwaitLink(kReportTimeout, [this] { return board_.haveUpdateInfo != 0; });
  }
  if (!informed) {
    Log::Error("Error asking tallyvane for update info status, not updating");
    return 0;
  }
  timer_.Answered(At(board_.infoAt));
  send_.DropPending();  // the answer is the request's acknowledgement too

  // Every chunk is read through the descriptor kept here: an image renamed
  // over the file meanwhile cannot mix with the one whose checksum was announced.
  if (!ReadPackage(image_)) return 0;
  if (imageSize_ == 0) {
    // The board would complete at once, with nothing ever asked for.
    Log::Error("Firmware image [", firmwarePath, "] is empty; not updating");
    return 0;
  }
  acked_ = AcknowledgedImage(imageSize_);
  acked_.AddPartialDownload(board_.partialDlVer, static_cast<std::uint16_t>(packageVersion),
                            board_.downloadedBlocks, board_.infoBlockSize);
  errorsAtSend_ = board_.updateErrors;
  board_.Await(-1);
  timer_.Sent(clock_.Monotonic());
  Announce();
  stall_.Progressed();  // the stall limit counts from the announcement
  return 1;
}

int ConcurrentSession::GetFirstUpdateBlock() {
  // The board answers the announcement with its first position. When that
  // answer is lost, the announcement goes out again.
  while (!AwaitLink(AnswerWait(), [&] { return board_.awaitedReported || ErrorReported(); })) {
    if (stall_.TimeLeft() <= std::chrono::nanoseconds::zero()) return -1;  // the send refuses it
    if (send_.PendingCount() != 0) continue;
    timer_.Unmeasured();
    board_.Await(-1);
    Announce();
  }
  if (ErrorReported()) {
    Log::Error("The board reported an update error; giving up the update");
    return -1;
  }
  timer_.Answered(At(board_.reportedAt));
  send_.DropPending();  // the answer is the announcement's acknowledgement too
  reportsCounted_ = board_.reportsTaken;
  nextPosition_ = board_.nextBlock;
  return nextPosition_;
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
  auto chunk = Image::ReadChunk(image_, imageSize_, position, packetSize);
  if (!chunk) return notSent();
  sentPosition_ = position;
  sentBytes_ = static_cast<int>(chunk->size());
  errorsAtSend_ = board_.updateErrors;
  return SendBlock(position, *chunk) ? 1 : notSent();
}

bool ConcurrentSession::SendCounted(VYRCam::FirmwareBlock& block, int position, std::size_t bytes) {
  // The board reports byte positions, so the last byte sent is what its
  // report is compared with. Set, and the clock started, before the chunk
  // leaves: the report may come back before SendPacket() returns.
  const int lastByte = position + static_cast<int>(bytes) - 1;
  if (Console::Detail()) std::cout << "Setting last sent byte to [" << lastByte << "]" << '\n';
  board_.Await(lastByte);
  if (timeNext_) timer_.Sent(clock_.Monotonic());
  return send_.SendPacket(block);
}

int ConcurrentSession::GetNextFirmwareBlock() {
  // A board with nothing more to ask for whose reports of some bytes were
  // lost gets those bytes again, so that it acknowledges them.
  int next = nextPosition_;
  if (next == -1 && !acked_.Whole()) next = static_cast<int>(acked_.FirstMissing());
  if (givenUp_) next = -1;
  if (next < 0) StopReaderThread();  // the machine ends the run as a failure
  return next;
}

int ConcurrentSession::WaitForAck() {
  // A completion that came before this chunk's report, while the board still
  // asked for bytes, is refused at once, unless the report of this very
  // chunk may yet make the image whole. One that came after it is judged
  // with the report.
  AcknowledgedImage withChunk = acked_;
  withChunk.Add(sentPosition_, sentBytes_);
  const bool completable = withChunk.Whole();
  const auto refused = [&] {
    return board_.updateCompleted && board_.reportsBeforeCompletion <= reportsCounted_ &&
           nextPosition_ != -1 && !completable;
  };
  AwaitLink(AnswerWait(), [&] { return ErrorReported() || board_.awaitedReported || refused(); });

  if (ErrorReported()) return GiveUp();
  if (refused()) return Refused();  // whatever this chunk's report says
  if (board_.awaitedReported) return Reported();
  return Lost();
}

int ConcurrentSession::Reported() {
  timer_.Answered(At(board_.reportedAt));
  timeNext_ = true;
  unreportedInARow_ = 0;
  send_.DropPending();  // the report is the chunk's acknowledgement too
  reportsCounted_ = board_.reportsTaken;
  const std::int64_t before = acked_.Covered();
  acked_.Add(sentPosition_, sentBytes_);
  nextPosition_ = board_.nextBlock;
  // A board that asks for a byte past this chunk's end holds bytes between
  // them whose report came too late or not at all (from a larger send of this
  // chunk, say). They go again now, so that its reports cover them before it
  // holds the whole image and completes.
  const std::int64_t chunkEnd = std::int64_t{sentPosition_} + sentBytes_;
  if (nextPosition_ > chunkEnd && chunkEnd < acked_.Size() && !acked_.Holds(chunkEnd))
    nextPosition_ = static_cast<int>(chunkEnd);
  // A board that acknowledges without moving forward (an empty chunk, the
  // same bytes again) is answered ever more slowly, and after a few such
  // rounds the update is given up: it costs seconds, not the stall limit.
  if (acked_.Covered() > before) {
    stall_.Progressed();
  } else {
    stall_.Idle();
  }
  progress_.Report(acked_.Covered(), imageSize_);
  ReportProgress(acked_.Covered());
  if (acked_.Whole() && (nextPosition_ == -1 || board_.updateCompleted)) return Completed();
  if (board_.updateCompleted && nextPosition_ != -1) return Refused();
  return Acked();
}

int ConcurrentSession::Acked() {
  const int grown = ChunkSize::AfterDelivery(packetSize);
  if (Console::Detail()) {
    std::cout << "Tallyvane ACK status: " << kAcked << '\n';
    if (grown != packetSize) std::cout << "Bumping packet size to [" << grown << "]" << '\n';
  }
  packetSize = grown;
  return kAcked;
}

int ConcurrentSession::Lost() {
  if (Console::Detail()) {
    std::cout << "Last Acked: [" << board_.lastAckedBlock.load() << "], last sent: ["
              << board_.lastSentBlock.load() << "]" << '\n';
    std::cout << Kept::kNoBlockAck << '\n';
  }
  if (send_.PendingCount() == 0) {
    // Acknowledged but not reported: the link works and the report was
    // lost, or the board has forgotten the update. One such chunk is a
    // loss; from the second in a row each is an idle round, and the timeout
    // stays, so that a forgetful board ends in seconds.
    timer_.Unmeasured();
    if (++unreportedInARow_ > 1) stall_.Idle();
  } else {
    timer_.Expired();  // nothing came back: back off
  }
  timeNext_ = false;
  send_.ClearPending();  // the chunk goes again, as a new packet
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << kResend << '\n';
  // The image's last chunk goes again whole: a board that got it before its
  // report was lost holds the whole image, and its completion then answers
  // for every byte of that chunk, not for the first half alone.
  if (std::int64_t{sentPosition_} + sentBytes_ < imageSize_) {
    packetSize = ChunkSize::AfterLoss(packetSize);
    if (Console::Detail()) std::cout << "Halving packet size to [" << packetSize << "]" << '\n';
  }
  return kResend;
}

int ConcurrentSession::Completed() {
  // The board sends its completion after its last report.
  AwaitLink(AnswerWait(), [this] { return board_.updateCompleted || ErrorReported(); });
  if (ErrorReported()) return GiveUp();
  if (!board_.updateCompleted) return Lost();
  VYRCam::ApplyUpdate apply;
  send_.SendPacket(apply);
  // The board's acknowledgement of ApplyUpdate says it has taken it; it is
  // waited for a while, but the update is complete either way.
  AwaitLink(kApplyWaitTimeouts * timer_.Timeout(), [this] { return send_.PendingCount() == 0; });
  progress_.Report(imageSize_, imageSize_);
  ReportProgress(imageSize_);
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << kLastBlockAcked << '\n';
  return kLastBlockAcked;
}

int ConcurrentSession::Refused() {
  // A completion frame says the board holds the image; its reports say
  // what it holds. ApplyUpdate for an image it lacks could brick it.
  Log::Error("The board reported completion after ", std::to_string(acked_.Covered()), " of ",
             std::to_string(acked_.Size()), " bytes; not applying");
  givenUp_ = true;
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << kGivenUp << '\n';
  return kGivenUp;
}

int ConcurrentSession::GiveUp() {
  // The board has forgotten the update; no next position ends it.
  Log::Error("The board reported an update error; giving up the update");
  givenUp_ = true;
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << kGivenUp << '\n';
  return kGivenUp;
}

}  // namespace Updater::Helpers
