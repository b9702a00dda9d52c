// D-Bus bring-up shared by every camd client in the process.
#pragma once

#include <chrono>
#include <memory>

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

// A connection to the session bus ($DBUS_SESSION_BUS_ADDRESS). No event loop
// runs on it: the updater only makes synchronous calls, which read their own
// replies, so a bus that goes away is an error of the call that meets it
// rather than an exception on a thread nobody can catch. A bus that has not
// answered the handshake within `timeout` is given up (error name
// org.freedesktop.DBus.Error.Timeout). Throws sdbus::Error.
std::unique_ptr<sdbus::IConnection> ConnectSessionBus(std::chrono::microseconds timeout);

}  // namespace Updater::Dbus
