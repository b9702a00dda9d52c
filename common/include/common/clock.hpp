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

  virtual ~Clock() = default;
  virtual time_point Now() = 0;
  // Blocks for `duration`; a sleep cut short by a signal goes on with the time left.
  virtual void Sleep(std::chrono::nanoseconds duration) = 0;
};

// The process-wide real clock: system_clock and nanosleep.
Clock& SystemClock();

// Sleeps `duration` with nanosleep, restarting with the remaining time on EINTR.
void NanoSleep(std::chrono::nanoseconds duration);

}  // namespace Updater
