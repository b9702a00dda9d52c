// How long an update may go without acknowledged progress before it is given
// up: $QUORVEX_STALL_SECONDS, 300 by default, 0 for no limit. Both targets
// read it the same way.
#pragma once

#include <chrono>
#include <optional>

#include "common/clock.hpp"

namespace Updater {

inline constexpr std::chrono::seconds kDefaultStallLimit{300};

// nullopt means no limit. A value that is no number of seconds gets a
// one-line warning on standard error and the default.
std::optional<std::chrono::seconds> StallLimitFromEnvironment();

// The progress of one block loop, as both targets judge it. What counts as
// progress is the caller's to say; an acknowledgement that moved nothing
// forward (an empty chunk at the end of the image, the same bytes again) is
// an idle round. A target that keeps answering like that is answered ever
// more slowly, and the update is given up after a few such rounds, limit or
// no limit: a target that lost the update costs seconds, not the stall limit.
class StallWatch {
 public:
  static constexpr int kIdleRounds = 8;
  // Before the second idle round; doubled before each later one up to 3.2 s.
  static constexpr std::chrono::milliseconds kIdlePause{200};

  StallWatch(std::optional<std::chrono::seconds> limit, Clock& clock);

  const std::optional<std::chrono::seconds>& Limit() const { return limit_; }
  // Also where the limit starts to count (the announcement, say).
  void Progressed();
  // Counts an idle round and pauses before the next, unless this was the
  // round that gives the update up.
  void Idle();
  // Until the limit ends the update; a year when there is none.
  std::chrono::nanoseconds TimeLeft();
  // True, after the red line naming `block`, once no progress was made for
  // the whole limit or for kIdleRounds idle rounds in a row.
  bool GivenUp(long long block);

 private:
  std::optional<std::chrono::seconds> limit_;
  Clock& clock_;
  Clock::steady_point lastProgress_;
  int idleRounds_ = 0;
};

}  // namespace Updater
