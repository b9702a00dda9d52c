#include "dbus/bus.hpp"

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "common/console.hpp"
#include "helpers/camera/kept_texts.hpp"

namespace Updater::Dbus {

namespace {

std::atomic<bool> initialized{false};

// Where sd-bus looks for the session bus.
std::string SessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS")) return address;
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"))
    return std::string("unix:path=") + runtime + "/bus";
  return "";
}

// sd-bus gives a bus 90 s to finish the handshake, and sdbus-c++ can neither
// shorten that nor take a connection made elsewhere. So the same handshake
// (authentication and Hello) is made first on a connection of our own,
// against a deadline: a bus that accepts and then says nothing fails here in
// time. Only the time-out is this probe's to report; any other failure is
// left to the library's own attempt, which names it in its words.
bool AnswersWithin(const std::string& address, std::chrono::microseconds timeout) {
  sd_bus* bus = nullptr;
  if (address.empty() || sd_bus_new(&bus) < 0) return true;
  const auto end = std::chrono::steady_clock::now() + timeout;
  bool answered = true;
  if (sd_bus_set_address(bus, address.c_str()) >= 0 && sd_bus_set_bus_client(bus, 1) >= 0 &&
      sd_bus_start(bus) >= 0) {
    while (sd_bus_is_ready(bus) == 0) {
      const auto left =
          std::chrono::duration_cast<std::chrono::microseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        answered = false;
        break;
      }
      const int processed = sd_bus_process(bus, nullptr);
      if (processed < 0 || (processed == 0 && sd_bus_wait(bus, static_cast<std::uint64_t>(left.count())) < 0))
        break;
    }
  }
  sd_bus_close_unref(bus);
  return answered;
}

}  // namespace

bool Initialized() { return initialized.load(); }

void Initialize() {
  const bool before = initialized.exchange(true);
  if (!Console::Detail()) return;
  std::cout << (before ? Helpers::Kept::kBusAlreadyUp : Helpers::Kept::kBusBringingUp) << std::endl;
}

std::unique_ptr<sdbus::IConnection> ConnectSessionBus(std::chrono::microseconds timeout) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const std::string where =
      address != nullptr ? " at [" + std::string(address) + "]" : " (DBUS_SESSION_BUS_ADDRESS is not set)";
  if (!AnswersWithin(SessionBusAddress(), timeout))
    throw sdbus::Error(
        "org.freedesktop.DBus.Error.Timeout",
        "The bus did not answer within " + std::to_string(timeout.count() / 1000) + " ms" + where);
  // createConnection() and the connection-less proxies would open the
  // system bus; camd lives on the session bus.
  try {
    return sdbus::createSessionBusConnection();
  } catch (const sdbus::Error& e) {
    // The library's text does not say which bus; whoever reads the log must
    // be able to tell a wrong address from a daemon that is down.
    throw sdbus::Error(e.getName(), e.getMessage() + where);
  }
}

}  // namespace Updater::Dbus
