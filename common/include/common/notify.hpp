// The service manager's notification socket (sd_notify): readiness, and a
// live status line that `systemctl status` shows. Outside systemd
// (NOTIFY_SOCKET unset) every call does nothing; the console never changes.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "common/clock.hpp"

namespace Updater {

// Sends `state`, e.g. "READY=1" or "STATUS=...".
void Notify(const std::string& state);

// A transfer's progress as STATUS= lines: "STATUS=<subject>: <done>/<total>
// bytes (<percent>%)". At most one line per interval, so that a fast
// transfer does not flood the manager, but the line that reaches the total
// always goes out: the last status shown must not be a stale one.
// A non-zero `keepAlive` rides along as EXTEND_TIMEOUT_USEC: a unit's start
// time-out then only ends a transfer that has stopped moving.
class ProgressNotifier {
 public:
  ProgressNotifier(std::string subject, Clock& clock, std::chrono::microseconds keepAlive = {},
                   std::chrono::nanoseconds interval = std::chrono::seconds(1));
  void Report(std::int64_t done, std::int64_t total);

 private:
  std::string subject_;
  Clock& clock_;
  std::chrono::microseconds keepAlive_;
  std::chrono::nanoseconds interval_;
  bool listened_;  // NOTIFY_SOCKET was set when this was made
  std::optional<Clock::time_point> last_;
  bool completeSent_ = false;
};

}  // namespace Updater
