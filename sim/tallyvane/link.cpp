#include "link.hpp"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <thread>

#include "lc/downlink_frame.hpp"

namespace tallyvane_sim {

namespace {
// How long a coalesced frame waits for a partner before it goes alone.
constexpr std::chrono::milliseconds kHoldLimit{500};
// How long a write waits for the updater to make room in the pipe.
constexpr std::chrono::milliseconds kWriteLimit{1000};
}  // namespace

// ---- DownlinkParser ---------------------------------------------------------

void DownlinkParser::Feed(const std::uint8_t* bytes, std::size_t count) {
  buffer_.insert(buffer_.end(), bytes, bytes + count);
}

bool DownlinkParser::Next(Frame& frame) {
  for (;;) {
    // Resynchronise on 0xAA 0xA9; a lone 0xAA at the end may be the start
    // of a frame whose next byte has not arrived yet.
    std::size_t drop = 0;
    while (drop < buffer_.size()) {
      if (buffer_[drop] == lc::kSync0 && (drop + 1 == buffer_.size() || buffer_[drop + 1] == lc::kSync1))
        break;
      ++drop;
    }
    if (drop > 0) {
      buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(drop));
      skipped_ += drop;
    }
    if (buffer_.size() < lc::kDownlinkHeaderBytes) return false;
    const std::size_t count = buffer_[3] | (buffer_[4] << 8);
    if (count == 0 || count > lc::kMaxDownlinkPayload) {
      // Not a header after all: step over the sync byte and look again.
      buffer_.erase(buffer_.begin());
      ++skipped_;
      continue;
    }
    if (buffer_.size() < lc::kDownlinkHeaderBytes + count) return false;
    frame.channel = buffer_[2];
    frame.payload.assign(buffer_.begin() + lc::kDownlinkHeaderBytes,
                         buffer_.begin() + static_cast<std::ptrdiff_t>(lc::kDownlinkHeaderBytes + count));
    buffer_.erase(buffer_.begin(),
                  buffer_.begin() + static_cast<std::ptrdiff_t>(lc::kDownlinkHeaderBytes + count));
    return true;
  }
}

std::size_t DownlinkParser::TakeSkipped() {
  const std::size_t n = skipped_;
  skipped_ = 0;
  return n;
}

// ---- UplinkWriter -----------------------------------------------------------

UplinkWriter::UplinkWriter(int fd, const Options& options, Say say)
    : fd_(fd), options_(options), say_(std::move(say)) {}

void UplinkWriter::Queue(Bytes packet, std::chrono::milliseconds delay, std::string what) {
  Pending p{Clock::now() + delay, std::move(packet), std::move(what)};
  if (options_.answerDelayMs != 0 || options_.answerJitterMs != 0) {
    // A busy board answers late, but in order: no frame overtakes one queued before it.
    p.due = std::max(p.due + AnswerDelay(), lastAnswerDue_);
    lastAnswerDue_ = p.due;
  }
  const auto at = std::upper_bound(queue_.begin(), queue_.end(), p.due,
                                   [](Clock::time_point due, const Pending& q) { return due < q.due; });
  queue_.insert(at, std::move(p));
}

std::chrono::milliseconds UplinkWriter::AnswerDelay() {
  const long long base = options_.answerDelayMs;
  const long long jitter = options_.answerJitterMs;
  std::uniform_int_distribution<long long> spread(std::max(0LL, base - jitter), base + jitter);
  return std::chrono::milliseconds(spread(random_));
}

void UplinkWriter::Pump() {
  while (!queue_.empty() && queue_.front().due <= Clock::now()) {
    Pending p = std::move(queue_.front());
    queue_.pop_front();
    WriteFrame(std::move(p));
  }
  if (!held_.empty() && Clock::now() - heldSince_ >= kHoldLimit) {
    WriteAll(held_);
    held_.clear();
  }
}

void UplinkWriter::Flush() {
  while (!queue_.empty()) {
    Pending p = std::move(queue_.front());
    queue_.pop_front();
    WriteFrame(std::move(p));
  }
  if (!held_.empty()) WriteAll(held_);
  held_.clear();
}

std::chrono::milliseconds UplinkWriter::TimeToNext(std::chrono::milliseconds idle) const {
  auto next = idle;
  const auto now = Clock::now();
  auto until = [&](Clock::time_point t) {
    return std::max(
        std::chrono::milliseconds(0),
        std::chrono::duration_cast<std::chrono::milliseconds>(t - now) + std::chrono::milliseconds(1));
  };
  if (!queue_.empty()) next = std::min(next, until(queue_.front().due));
  if (!held_.empty()) next = std::min(next, until(heldSince_ + kHoldLimit));
  return next;
}

void UplinkWriter::WriteFrame(Pending pending) {
  const unsigned n = ++frameNumber_;
  Bytes frame{lc::kSync0, lc::kSync1};
  frame.insert(frame.end(), pending.packet.begin(), pending.packet.end());

  std::string faults;
  if (options_.corruptFrames.count(n) != 0) {
    frame.back() ^= 0x01;
    faults += " corrupted";
  }
  if (options_.garbageBefore.count(n) != 0) {
    faults += " after-garbage";
    if (!held_.empty()) {
      // The held frame must still precede this one on the wire.
      WriteAll(held_);
      held_.clear();
    }
    WriteAll(Bytes{0x55, 0x00, 0xAA, 0x13});  // no sync bytes at the front
  }
  const bool split = options_.splitFrames.count(n) != 0;
  const bool coalesce = options_.coalesceFrames.count(n) != 0;
  if (split) faults += " split";
  if (coalesce) faults += " held";
  say_("TX " + std::to_string(n) + " " + pending.what + faults);

  Bytes out = std::move(held_);
  held_.clear();
  if (coalesce) {
    out.insert(out.end(), frame.begin(), frame.end());
    held_ = std::move(out);
    heldSince_ = Clock::now();
    return;
  }
  if (split) {
    const std::size_t half = frame.size() / 2;
    out.insert(out.end(), frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(half));
    WriteAll(out);
    std::this_thread::sleep_for(std::chrono::milliseconds(options_.splitGapMs));
    WriteAll(Bytes(frame.begin() + static_cast<std::ptrdiff_t>(half), frame.end()));
    return;
  }
  out.insert(out.end(), frame.begin(), frame.end());
  WriteAll(out);
}

bool UplinkWriter::WriteAll(const Bytes& bytes) {
  const std::size_t done = lc::WriteWithin(fd_, bytes.data(), bytes.size(), kWriteLimit);
  if (done < bytes.size()) {
    say_("WARN uplink full, dropped " + std::to_string(bytes.size() - done) + " bytes");
    return false;
  }
  return true;
}

}  // namespace tallyvane_sim
