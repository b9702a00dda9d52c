#include "common/clock.hpp"

#include <cerrno>
#include <ctime>

namespace Updater {

void NanoSleep(std::chrono::nanoseconds duration) {
  if (duration.count() <= 0) return;
  const auto secs = std::chrono::duration_cast<std::chrono::seconds>(duration);
  timespec request{static_cast<time_t>(secs.count()), static_cast<long>((duration - secs).count())};
  timespec remaining{};
  while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}

namespace {
class RealClock final : public Clock {
 public:
  time_point Now() override { return std::chrono::system_clock::now(); }
  void Sleep(std::chrono::nanoseconds duration) override { NanoSleep(duration); }
};
}  // namespace

// Never destroyed: threads still running while the process exits may use it.
Clock& SystemClock() {
  static Clock& clock = *new RealClock;
  return clock;
}

}  // namespace Updater
