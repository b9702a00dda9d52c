#include "common/stall_limit.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>

#include "common/log.hpp"

namespace Updater {

namespace {
constexpr int kIdlePauseDoublings = 4;
}

std::optional<std::chrono::seconds> StallLimitFromEnvironment() {
  const char* text = std::getenv("QUORVEX_STALL_SECONDS");
  if (text == nullptr || *text == '\0') return kDefaultStallLimit;
  char* end = nullptr;
  errno = 0;
  const unsigned long long seconds = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || *text == '-' || seconds > 100u * 365 * 24 * 3600) {
    std::cerr << "QUORVEX_STALL_SECONDS=[" << text << "] is not a number of seconds; using "
              << kDefaultStallLimit.count() << std::endl;
    return kDefaultStallLimit;
  }
  if (seconds == 0) return std::nullopt;
  return std::chrono::seconds(seconds);
}

StallWatch::StallWatch(std::optional<std::chrono::seconds> limit, Clock& clock)
    : limit_(limit), clock_(clock), lastProgress_(clock.Monotonic()) {}

void StallWatch::Progressed() {
  lastProgress_ = clock_.Monotonic();
  idleRounds_ = 0;
}

void StallWatch::Idle() {
  if (++idleRounds_ < kIdleRounds)
    clock_.Sleep(kIdlePause * (1 << std::min(idleRounds_ - 1, kIdlePauseDoublings)));
}

std::chrono::nanoseconds StallWatch::TimeLeft() {
  if (!limit_) return std::chrono::hours(24 * 365);
  return std::max<std::chrono::nanoseconds>(std::chrono::nanoseconds::zero(),
                                            lastProgress_ + *limit_ - clock_.Monotonic());
}

bool StallWatch::GivenUp(long long block) {
  const auto idle = clock_.Monotonic() - lastProgress_;
  if (idleRounds_ < kIdleRounds && (!limit_ || idle < *limit_)) return false;
  Log::Error("No progress for ",
             std::to_string(std::chrono::duration_cast<std::chrono::seconds>(idle).count()), " s, at block [",
             std::to_string(block), "]; giving up the update");
  return true;
}

}  // namespace Updater
