#include "private_bus.hpp"

#include <cstdlib>

namespace Updater::Testing {

PrivateBus::PrivateBus()  // the daemon prints its address once it listens (and may warn on stderr first)
    : daemon_(std::make_unique<ChildProcess>(
          "dbus-daemon",
          std::vector<std::string>{"--session", "--nofork", "--print-address=1",
                                   "--address=unix:dir=" + Dir()},
          Dir(), ",guid=", true)) {
  if (const char* old = std::getenv("DBUS_SESSION_BUS_ADDRESS")) oldAddress_ = old;
  const std::string printed = daemon_->Out();
  setenv("DBUS_SESSION_BUS_ADDRESS", printed.substr(0, printed.find('\n')).c_str(), 1);
}

PrivateBus::~PrivateBus() {
  daemon_.reset();
  if (oldAddress_) {
    setenv("DBUS_SESSION_BUS_ADDRESS", oldAddress_->c_str(), 1);
  } else {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
}

}  // namespace Updater::Testing
