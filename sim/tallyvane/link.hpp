// The sim's two byte streams: downlink frames in, uplink frames out (with
// the configured faults).
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "options.hpp"

namespace tallyvane_sim {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
using Say = std::function<void(const std::string&)>;

// Cuts the downlink byte stream into frames. Bytes arrive in whatever
// pieces read() returns; a frame may span reads, several may share one.
class DownlinkParser {
 public:
  struct Frame {
    int channel = 0;
    Bytes payload;
  };

  void Feed(const std::uint8_t* bytes, std::size_t count);
  // Next whole frame, if one is buffered. Bytes that cannot start a frame
  // are skipped and counted.
  bool Next(Frame& frame);
  // Bytes skipped since the last call.
  std::size_t TakeSkipped();
  std::size_t Buffered() const { return buffer_.size(); }

 private:
  Bytes buffer_;
  std::size_t skipped_ = 0;
};

// Writes uplink frames (0xAA 0xA9 + packet) with bounded waits, applying
// the frame faults of the options. Frames can be scheduled for later.
class UplinkWriter {
 public:
  UplinkWriter(int fd, const Options& options, Say say);

  // Queues `packet` to go out `delay` from now, after anything already
  // queued for the same moment. `what` describes it in the TX line.
  void Queue(Bytes packet, std::chrono::milliseconds delay, std::string what);
  // Writes whatever has come due.
  void Pump();
  // Writes everything still queued or held, due or not.
  void Flush();
  // How long until something needs writing; `idle` when nothing does.
  std::chrono::milliseconds TimeToNext(std::chrono::milliseconds idle) const;
  unsigned FramesWritten() const { return frameNumber_; }

 private:
  struct Pending {
    Clock::time_point due;
    Bytes packet;
    std::string what;
  };
  // --answer-delay-ms with its jitter, drawn afresh for every frame.
  std::chrono::milliseconds AnswerDelay();
  void WriteFrame(Pending pending);
  bool WriteAll(const Bytes& bytes);

  int fd_;
  const Options& options_;
  Say say_;
  std::deque<Pending> queue_;  // ordered by due time
  unsigned frameNumber_ = 0;
  Bytes held_;  // a coalesced frame waiting for its partner
  Clock::time_point heldSince_{};
  std::minstd_rand random_;  // default seed: the same delays in every run
  Clock::time_point lastAnswerDue_{};
};

}  // namespace tallyvane_sim
