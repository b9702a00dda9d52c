// A private D-Bus session bus for tests, and camd-sim on it. PrivateBus starts
// its own dbus-daemon and points DBUS_SESSION_BUS_ADDRESS (here, and so in every
// child started afterwards) at it, so the host's bus is never touched; it stops
// the daemon by pid and restores the variable when it goes.
#pragma once
#include <optional>
#include <string>
#include <vector>
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

// camd-sim as a child process, its output in files under `workDir`. Ready
// once camd's name is on the bus; throws std::runtime_error when it never is.
class CamdSimProcess {
 public:
  CamdSimProcess(const std::string& binary, const std::vector<std::string>& args, const std::string& workDir);
  ~CamdSimProcess();  // SIGTERM, then reaps it
  CamdSimProcess(const CamdSimProcess&) = delete;
  std::string Out() const;  // what it wrote so far on standard output
  std::string Log() const;  // ... and on standard error

 private:
  void Stop();
  int pid_ = -1;
  std::string stem_;
};

}  // namespace Updater::Testing
