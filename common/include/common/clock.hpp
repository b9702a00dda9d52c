// Time as the updater sees it.
//
// Every wait in the update protocols is a real sleep on the device, some of
// them ten seconds long. Code that waits takes a Clock so that tests can run
// those waits against a fake one in microseconds; the product always uses
// SystemClock().
#pragma once

#include <chrono>

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
};

// The process-wide real clock: system_clock, steady_clock and nanosleep.
Clock& SystemClock();

// Sleeps `duration` with nanosleep, restarting with the remaining time on EINTR.
void NanoSleep(std::chrono::nanoseconds duration);

}  // namespace Updater
