#include "private_bus.hpp"

#include <cstdlib>

namespace Updater::Testing {

PrivateBus::PrivateBus()  // the daemon prints its address once it listens (and may warn on stderr first)
    : daemon_(std::make_unique<ChildProcess>(
          "dbus-daemon",
          std::vector<std::string>{"--session", "--nofork", "--print-address=1",
                                   "--address=unix:dir=" + Dir()},
          Dir(), ",guid=", true)) {
  const std::string printed = daemon_->Out();
  setenv("DBUS_SESSION_BUS_ADDRESS", printed.substr(0, printed.find('\n')).c_str(), 1);
}

PrivateBus::~PrivateBus() {
  daemon_.reset();
  unsetenv("DBUS_SESSION_BUS_ADDRESS");  // whatever runs after us must not fall back on the host's bus
}

}  // namespace Updater::Testing
