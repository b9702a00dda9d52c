// A Clock whose sleeps return at once and move its time forward instead.
// Safe to share between a reader thread and an update thread.
#pragma once
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#include "common/clock.hpp"

namespace Updater::Testing {

class FakeClock : public Updater::Clock {
 public:
  time_point Now() override { return time_point(std::chrono::nanoseconds(now_ns_.load())); }
  steady_point Monotonic() override { return steady_point(std::chrono::nanoseconds(now_ns_.load())); }
  void Sleep(std::chrono::nanoseconds d) override {
    slept_ns_.fetch_add(d.count());
    Advance(d);
    std::this_thread::yield();  // lets the other thread run, as a real sleep would
    if (onSleep) onSleep();
  }
  // Time runs on in steps of a millisecond, each a Sleep() (the test's turn), until `ready` or the time-out.
  bool WaitFor(std::condition_variable&, std::unique_lock<std::mutex>& lock, std::chrono::nanoseconds timeout,
               const std::function<bool()>& ready) override {
    for (auto left = timeout; !ready(); left -= kWaitStep) {
      if (left <= std::chrono::nanoseconds::zero()) return false;
      lock.unlock();
      Sleep(std::min<std::chrono::nanoseconds>(left, kWaitStep));
      lock.lock();
    }
    return true;
  }
  static constexpr std::chrono::milliseconds kWaitStep{1};
  std::function<void()> onSleep;  // the test's turn, e.g. as the far end, while the code under test waits
  void Advance(std::chrono::nanoseconds d) { now_ns_.fetch_add(d.count()); }
  std::chrono::nanoseconds Slept() const { return std::chrono::nanoseconds(slept_ns_.load()); }

 private:
  // Starts well after the epoch so that "now minus a start point" is never negative.
  std::atomic<std::int64_t> now_ns_{std::chrono::nanoseconds(std::chrono::hours(24 * 365 * 50)).count()},
      slept_ns_{0};
};

}  // namespace Updater::Testing
