// A private D-Bus session bus for tests. PrivateBus starts
// its own dbus-daemon and points DBUS_SESSION_BUS_ADDRESS (here, and so in every
// child started afterwards) at it, so the host's bus is never touched; it stops
// the daemon by pid and restores the variable when it goes.
#pragma once
#include <optional>
#include <string>
#include "temp_dir.hpp"

namespace Updater::Testing {

class PrivateBus {
 public:
  PrivateBus();  // throws std::runtime_error when the daemon does not come up
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  const std::string& Dir() const { return dir_.path(); }  // a scratch directory that lives as long as the bus
  void Kill();  // ends the daemon at once, as a crash would; whoever is connected loses the bus

 private:
  TempDir dir_;
  int pid_ = -1;
  std::optional<std::string> oldAddress_;
};

}  // namespace Updater::Testing
