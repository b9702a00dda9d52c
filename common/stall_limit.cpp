#include "common/stall_limit.hpp"

#include <cerrno>
#include <cstdlib>
#include <iostream>

namespace Updater {

std::optional<std::chrono::seconds> StallLimitFromEnvironment() {
  const char* text = std::getenv("QUORVEX_STALL_SECONDS");
  if (text == nullptr || *text == '\0') return kDefaultStallLimit;
  char* end = nullptr;
  errno = 0;
  const unsigned long long seconds = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || *text == '-' || seconds > 100u * 365 * 24 * 3600) {
    std::cerr << "QUORVEX_STALL_SECONDS=[" << text << "] is not a number of seconds; using "
              << kDefaultStallLimit.count() << std::endl;
    return kDefaultStallLimit;
  }
  if (seconds == 0) return std::nullopt;
  return std::chrono::seconds(seconds);
}

}  // namespace Updater
