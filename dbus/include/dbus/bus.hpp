// D-Bus bring-up shared by every camd client in the process.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace sdbus {
class IConnection;
}

namespace Updater::Dbus {

// Once-per-process initialisation. The first call writes "Initializing
// dbus-cxx", every later one "dbus-cxx already initialized" (both on
// standard output; the texts are part of the console contract and name the
// library the updater was first written against).
bool Initialized();
void Initialize();

// Owns the message dispatching of the connections it hands out: each
// connection's event loop runs in the library's own thread from the moment
// it is created until the dispatcher or the connection goes.
class Dispatcher {
 public:
  static std::shared_ptr<Dispatcher> Create();
  ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  // A connection to the session bus ($DBUS_SESSION_BUS_ADDRESS), already
  // dispatching.
  std::shared_ptr<sdbus::IConnection> CreateSessionConnection();

 private:
  Dispatcher() = default;
  std::mutex mutex_;
  std::vector<std::weak_ptr<sdbus::IConnection>> connections_;
};

}  // namespace Updater::Dbus
