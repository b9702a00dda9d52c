#include "dbus/bus.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <iostream>

namespace Updater::Dbus {

namespace {
std::atomic<bool> initialized{false};
}

bool Initialized() { return initialized.load(); }

void Initialize() {
  if (initialized.exchange(true)) {
    std::cout << "dbus-cxx already initialized" << std::endl;
  } else {
    std::cout << "Initializing dbus-cxx" << std::endl;
  }
}

std::unique_ptr<sdbus::IConnection> ConnectSessionBus() {
  // createConnection() and the connection-less proxies would open the
  // system bus; camd lives on the session bus.
  try {
    return sdbus::createSessionBusConnection();
  } catch (const sdbus::Error& e) {
    // The library's text does not say which bus; whoever reads the log must
    // be able to tell a wrong address from a daemon that is down.
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    throw sdbus::Error(e.getName(), e.getMessage() + (address != nullptr
                                                          ? " at [" + std::string(address) + "]"
                                                          : " (DBUS_SESSION_BUS_ADDRESS is not set)"));
  }
}

}  // namespace Updater::Dbus
