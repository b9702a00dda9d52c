// How long an update may go without acknowledged progress before it is given
// up: $QUORVEX_STALL_SECONDS, 300 by default, 0 for no limit. Both targets
// read it the same way.
#pragma once

#include <chrono>
#include <optional>

namespace Updater {

inline constexpr std::chrono::seconds kDefaultStallLimit{300};

// nullopt means no limit. A value that is no number of seconds gets a
// one-line warning on standard error and the default.
std::optional<std::chrono::seconds> StallLimitFromEnvironment();

}  // namespace Updater
