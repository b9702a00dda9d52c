// The console's mode, chosen once per run by QUORVEX_CONSOLE.
//
// The designed console prints every chunk and every step of the machine: some
// forty thousand lines for a small camera image, more than a small device's
// journal can keep. QUORVEX_CONSOLE=summary keeps the lines a person or a
// service acts on (warnings, errors, the decision, the announcement, the end)
// and replaces the rest by one progress line. Lines that only the designed
// console prints sit behind Console::Detail(), checked before anything is
// formatted, so that in summary mode they cost one load and a branch.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "common/clock.hpp"

namespace Updater::Console {

enum class Mode { Designed, Summary };

// The mode from the value of QUORVEX_CONSOLE (null when unset). Any value but
// "summary" and "" writes one warning line on `warnings` and means Designed.
Mode ParseMode(const char* value, std::ostream& warnings);

// The run's mode, read from the environment at the first call (its warning,
// if any, goes to standard error then). Any thread.
Mode CurrentMode();

// True when lines that only the designed console prints are to be printed.
// Check it before building such a line. Any thread.
inline bool Detail() { return CurrentMode() == Mode::Designed; }

// A plain line on standard output in summary mode only: what the designed
// console's trace would have shown of the run's end. Any thread.
void Milestone(const std::string& text);

// Progress of a transfer, for summary mode (StandardProgress() is silent in
// the designed console, which has lines of its own). On a terminal one line redrawn
// in place ("\r") at most every `redraw` (percent, bytes, rate, time left)
// and ended with a newline once the whole image is acknowledged; elsewhere
// one line each time the transfer passes a tenth of the image. Called by the
// thread that runs the update only.
class Progress {
 public:
  Progress(std::string subject, Clock& clock, std::ostream& os, bool terminal,
           std::chrono::nanoseconds redraw = std::chrono::milliseconds(100));
  // `done` of `total` bytes acknowledged so far.
  void Report(std::int64_t done, std::int64_t total);

 private:
  friend Progress StandardProgress(std::string subject, Clock& clock);
  std::string Text(std::int64_t done, std::int64_t total, std::int64_t percent,
                   Clock::steady_point now) const;

  std::string subject_;
  Clock& clock_;
  std::ostream& os_;
  bool terminal_;
  bool silent_ = false;
  std::chrono::nanoseconds redraw_;
  std::optional<Clock::steady_point> start_, lastDrawn_;
  std::int64_t tenthsShown_ = 0;
  bool finished_ = false;
};

// A Progress on standard output, live when standard output is a terminal;
// one that prints nothing in the designed console.
Progress StandardProgress(std::string subject, Clock& clock);

// Bytes a receive path threw away, for summary mode: instead of a line per
// read or per byte, "Dropped <n> bytes from <subject> (<total> in all)" on
// standard error, the first at once, the next after `interval`, and every
// gap after that twice the one before (1, 2, 4, ... s, up to an hour). A link that stays
// noisy for a whole update so costs a line per doubling of the update's
// length (five for ten seconds, ten for five minutes) instead of one a
// second, and a summary stays within a screen. Any thread: the receive
// thread adds, and may Flush() at the end. The caller counts instead of
// printing only in summary mode (!Detail()).
class DropCounter {
 public:
  DropCounter(std::string subject, Clock& clock, std::ostream& os,
              std::chrono::nanoseconds interval = std::chrono::seconds(1));
  // Counts `bytes`, and prints what is counted and not yet shown once the
  // last line is the current gap old. Add(0) shows nothing new; it only lets
  // a count wait no longer than its gap when no more bytes come.
  void Add(std::uint64_t bytes);
  // Prints what was counted since the last line, if anything.
  void Flush();
  std::uint64_t Total() const;

 private:
  void PrintLocked();

  std::string subject_;
  Clock& clock_;
  std::ostream& os_;
  std::chrono::nanoseconds gap_;  // doubles after every line
  mutable std::mutex mutex_;
  std::optional<Clock::steady_point> lastLine_;
  std::uint64_t pending_ = 0, total_ = 0;
};

}  // namespace Updater::Console
