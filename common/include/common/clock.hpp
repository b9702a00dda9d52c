// Time as the updater sees it.
//
// Every wait in the update protocols is a real sleep on the device, some of
// them ten seconds long. Code that waits takes a Clock so that tests can run
// those waits against a fake one in microseconds; the product always uses
// SystemClock().
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace Updater {

class Clock {
 public:
  using time_point = std::chrono::system_clock::time_point;
  using steady_point = std::chrono::steady_clock::time_point;

  virtual ~Clock() = default;
  virtual time_point Now() = 0;
  // For limits on how long something may take: a device often sets its wall
  // clock from the network well after boot, and a limit must not fire then.
  virtual steady_point Monotonic() { return std::chrono::steady_clock::now(); }
  // Blocks for `duration`; a sleep cut short by a signal goes on with the time left.
  virtual void Sleep(std::chrono::nanoseconds duration) = 0;
  // Blocks on `cv` (whose mutex `lock` holds) until `ready()` is true or
  // `timeout` has passed; true when ready. Another thread that changes what
  // `ready` reads notifies `cv` after taking the mutex, so no wake-up is lost.
  virtual bool WaitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                       std::chrono::nanoseconds timeout, const std::function<bool()>& ready) {
    return cv.wait_for(lock, timeout, ready);
  }
};

// The process-wide real clock: system_clock, steady_clock and nanosleep.
Clock& SystemClock();

// Sleeps `duration` with nanosleep, restarting with the remaining time on EINTR.
void NanoSleep(std::chrono::nanoseconds duration);

}  // namespace Updater
