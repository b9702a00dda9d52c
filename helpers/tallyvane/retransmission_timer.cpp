#include "helpers/tallyvane/retransmission_timer.hpp"

#include <algorithm>

namespace Updater::Helpers {

void RetransmissionTimer::Sent(TimePoint at) { sentAt_ = at; }

void RetransmissionTimer::Expired() {
  sentAt_.reset();
  timeout_ = std::min(2 * timeout_, kCeiling);
}

void RetransmissionTimer::Answered(TimePoint at) {
  // An answer from before the frame left (a leftover of an earlier run) is
  // no answer to it.
  if (!sentAt_ || at < *sentAt_) return;
  Measured(at - *sentAt_);
  sentAt_.reset();
}

void RetransmissionTimer::Measured(Duration roundTrip) {
  if (!smoothed_) {
    smoothed_ = roundTrip;
    variance_ = roundTrip / 2;
  } else {
    // The variance first, against the smoothed value from before this measurement.
    const Duration deviation = *smoothed_ > roundTrip ? *smoothed_ - roundTrip : roundTrip - *smoothed_;
    variance_ = (3 * variance_ + deviation) / 4;
    smoothed_ = (7 * *smoothed_ + roundTrip) / 8;
  }
  timeout_ = std::clamp(*smoothed_ + std::max(kGranularity, 4 * variance_), kFloor, kCeiling);
}

}  // namespace Updater::Helpers
