#include "common/console.hpp"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

namespace Updater::Console {

Mode ParseMode(const char* value, std::ostream& warnings) {
  if (value == nullptr || *value == '\0') return Mode::Designed;
  if (std::strcmp(value, "summary") == 0) return Mode::Summary;
  warnings << "QUORVEX_CONSOLE=[" << value << "] is not a console mode (only \"summary\" is); "
           << "printing every line" << std::endl;
  return Mode::Designed;
}

Mode CurrentMode() {
  static const Mode mode = ParseMode(std::getenv("QUORVEX_CONSOLE"), std::cerr);
  return mode;
}

void Milestone(const std::string& text) {
  if (Detail()) return;
  const std::string line = text + '\n';
  std::cout.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

Progress::Progress(std::string subject, Clock& clock, std::ostream& os, bool terminal,
                   std::chrono::nanoseconds redraw)
    : subject_(std::move(subject)), clock_(clock), os_(os), terminal_(terminal), redraw_(redraw) {}

Progress StandardProgress(std::string subject, Clock& clock) {
  Progress progress(std::move(subject), clock, std::cout, isatty(STDOUT_FILENO) == 1);
  progress.silent_ = Detail();
  return progress;
}

void Progress::Report(std::int64_t done, std::int64_t total) {
  if (silent_ || finished_ || total <= 0) return;
  const auto now = clock_.Monotonic();
  if (!start_) start_ = now;
  done = std::clamp<std::int64_t>(done, 0, total);
  const bool complete = done == total;
  const std::int64_t percent = done * 100 / total;
  std::string line;
  if (terminal_) {
    if (!complete && lastDrawn_ && now - *lastDrawn_ < redraw_) return;
    lastDrawn_ = now;
    // Back to the line's start, and the rest of a longer earlier line wiped.
    line = '\r' + Text(done, total, percent, now) + "\033[K" + (complete ? "\n" : "");
  } else {
    const std::int64_t tenths = done * 10 / total;
    if (tenths <= tenthsShown_) return;
    tenthsShown_ = tenths;
    line = Text(done, total, percent, now) + '\n';
  }
  finished_ = complete;
  os_.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

std::string Progress::Text(std::int64_t done, std::int64_t total, std::int64_t percent,
                           Clock::steady_point now) const {
  char text[160];
  const double seconds = std::chrono::duration<double>(now - *start_).count();
  if (!terminal_ || seconds <= 0.0 || done == 0) {
    (void)std::snprintf(text, sizeof text, "Progress of %s: %3lld%% (%lld/%lld bytes)", subject_.c_str(),
                        static_cast<long long>(percent), static_cast<long long>(done),
                        static_cast<long long>(total));
    return text;
  }
  const double rate = static_cast<double>(done) / seconds;
  const long long left = std::llround(static_cast<double>(total - done) / rate);
  (void)std::snprintf(text, sizeof text,
                      "Progress of %s: %3lld%% (%lld/%lld bytes), %.1f KiB/s, %lld:%02lld left",
                      subject_.c_str(), static_cast<long long>(percent), static_cast<long long>(done),
                      static_cast<long long>(total), rate / 1024.0, left / 60, left % 60);
  return text;
}

DropCounter::DropCounter(std::string subject, Clock& clock, std::ostream& os,
                         std::chrono::nanoseconds interval)
    : subject_(std::move(subject)), clock_(clock), os_(os), gap_(interval) {}

void DropCounter::Add(std::uint64_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  pending_ += bytes;
  total_ += bytes;
  if (pending_ > 0 && (!lastLine_ || clock_.Monotonic() - *lastLine_ >= gap_)) PrintLocked();
}

void DropCounter::Flush() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (pending_ > 0) PrintLocked();
}

std::uint64_t DropCounter::Total() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return total_;
}

void DropCounter::PrintLocked() {
  // Capped, so that a reader that runs for days still says something hourly.
  if (lastLine_) gap_ = std::min<std::chrono::nanoseconds>(2 * gap_, std::chrono::hours(1));
  lastLine_ = clock_.Monotonic();
  const std::string line = "Dropped " + std::to_string(pending_) + " bytes from " + subject_ + " (" +
                           std::to_string(total_) + " in all)\n";
  pending_ = 0;
  os_.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

}  // namespace Updater::Console
