#include "dbus/bus.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
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

std::shared_ptr<Dispatcher> Dispatcher::Create() {
  return std::shared_ptr<Dispatcher>(new Dispatcher());
}

Dispatcher::~Dispatcher() {
  for (auto& weak : connections_)
    if (auto connection = weak.lock()) connection->leaveEventLoop();
}

std::shared_ptr<sdbus::IConnection> Dispatcher::CreateSessionConnection() {
  // createConnection() and the connection-less proxies would open the
  // system bus; camd lives on the session bus.
  std::shared_ptr<sdbus::IConnection> connection = sdbus::createSessionBusConnection();
  connection->enterEventLoopAsync();
  std::lock_guard<std::mutex> lock(mutex_);
  connections_.push_back(connection);
  return connection;
}

}  // namespace Updater::Dbus
