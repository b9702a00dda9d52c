#include "common/notify.hpp"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace Updater {

void Notify(const std::string& state) { sd_notify(0, state.c_str()); }

ProgressNotifier::ProgressNotifier(std::string subject, Clock& clock, std::chrono::microseconds keepAlive,
                                   std::chrono::nanoseconds interval)
    : subject_(std::move(subject)),
      clock_(clock),
      keepAlive_(keepAlive),
      interval_(interval),
      listened_(std::getenv("NOTIFY_SOCKET") != nullptr) {}

void ProgressNotifier::Report(std::int64_t done, std::int64_t total) {
  // Called once per acknowledged chunk: nothing to format when nobody listens.
  if (!listened_) return;
  const bool complete = done >= total;
  const auto now = clock_.Now();
  if (complete ? completeSent_ : (last_ && now - *last_ < interval_)) return;
  last_ = now;
  completeSent_ = complete;
  const std::int64_t percent = total > 0 ? std::clamp<std::int64_t>(done * 100 / total, 0, 100) : 100;
  std::string state = "STATUS=" + subject_ + ": " + std::to_string(done) + "/" + std::to_string(total) +
                      " bytes (" + std::to_string(percent) + "%)";
  if (keepAlive_.count() > 0) state += "\nEXTEND_TIMEOUT_USEC=" + std::to_string(keepAlive_.count());
  Notify(state);
}

}  // namespace Updater
