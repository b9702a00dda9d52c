// How long to wait for the board's answer before a frame goes out again,
// learned from how long its answers have taken, as TCP learns it (RFC 6298):
// a smoothed round trip and its variance, a timeout of the one plus four
// times the other, doubled after every expiry until a fresh measurement.
//
// A board that erases a flash sector answers a second late, one on a clean
// link within a millisecond: a fixed timeout either counts every late answer
// as a loss or makes every loss cost seconds.
//
// Pure arithmetic on the caller's time points; no clock inside. Not
// thread-safe: the update thread alone owns it (the receive path stores when
// an answer came, the update thread hands that to Answered()).
#pragma once

#include <chrono>
#include <optional>

#include "common/clock.hpp"

namespace Updater::Helpers {

class RetransmissionTimer {
 public:
  using Duration = std::chrono::nanoseconds;
  using TimePoint = Clock::steady_point;

  // Until the first measurement.
  static constexpr Duration kInitial = std::chrono::seconds(1);
  // Whatever the measurements say, never shorter or longer than this.
  static constexpr Duration kFloor = std::chrono::milliseconds(50);
  static constexpr Duration kCeiling = std::chrono::seconds(10);
  // The least margin over the smoothed round trip (the "G" of the RFC): a
  // board that always answers in the same time still gets this much slack
  // for the scheduling of both ends.
  static constexpr Duration kGranularity = std::chrono::milliseconds(10);

  // Update thread. How long to wait for the answer to the frame in flight.
  Duration Timeout() const { return timeout_; }

  // Update thread. A frame left at `at` for the first time; its answer will
  // be timed. A copy of a frame whose wait expired is not announced here:
  // whose answer arrives then cannot be told (Karn's rule).
  void Sent(TimePoint at);
  // Update thread. No answer came within Timeout(): the timeout doubles, up
  // to kCeiling, and stays so until a fresh measurement. The frame in flight
  // gives no measurement any more.
  void Expired();
  // Update thread. The answer to the frame in flight came at `at`. It is
  // measured unless the frame's wait expired since Sent(); a measurement ends
  // the back-off. Later answers to the same frame are not measured.
  void Answered(TimePoint at);
  // Update thread. The frame in flight gives no measurement any more, and
  // the timeout stays as it is: its answer was not missed for want of
  // time (the board took the frame and said nothing of it).
  void Unmeasured() { sentAt_.reset(); }

  // Update thread. For the log: the smoothed round trip, once measured.
  std::optional<Duration> SmoothedRoundTrip() const { return smoothed_; }

 private:
  void Measured(Duration roundTrip);

  std::optional<Duration> smoothed_;
  Duration variance_{0};
  Duration timeout_ = kInitial;
  std::optional<TimePoint> sentAt_;  // the frame in flight, while its answer can be measured
};

}  // namespace Updater::Helpers
