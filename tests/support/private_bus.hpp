// A private D-Bus session bus for tests. PrivateBus starts its own dbus-daemon, a child of ours that dies
// with us, and points DBUS_SESSION_BUS_ADDRESS (here, and so in every child started afterwards) at it, so the
// host's bus is never touched; it stops the daemon and unsets the variable when it goes.
#pragma once
#include <memory>
#include <string>

#include "subprocess.hpp"
#include "temp_dir.hpp"

namespace Updater::Testing {

class PrivateBus {
 public:
  PrivateBus();  // throws std::runtime_error when the daemon does not come up
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  const std::string& Dir() const { return dir_.path(); }  // a scratch directory that lives as long as the bus

 private:
  TempDir dir_;
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace Updater::Testing
