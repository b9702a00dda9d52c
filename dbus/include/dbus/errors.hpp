#pragma once

#include <stdexcept>
#include <string>

namespace Updater::Dbus {

// camd answered, but the first argument of its reply is not of the type the
// method table promises (or is missing). Unlike a failed call this is never
// retried: it means the two sides disagree on the interface. Derived from
// std::exception on purpose, so that inside the update state machine it
// reaches the machine's exception hook.
class ReplyTypeMismatch : public std::runtime_error {
 public:
  ReplyTypeMismatch(const std::string& method, const std::string& detail)
      : std::runtime_error("reply of " + method + " has an unexpected type: " + detail) {}
};

}  // namespace Updater::Dbus
