// A private D-Bus session bus for tests, and camd-sim on it.
//
// PrivateBus starts its own dbus-daemon in a temporary directory and points
// DBUS_SESSION_BUS_ADDRESS (of this process, and so of every child started
// afterwards) at it; the host's bus is never touched. It stops the daemon by
// pid and restores the variable when it goes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Updater::Testing {

class PrivateBus {
 public:
  PrivateBus();  // throws std::runtime_error when the daemon does not come up
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& Address() const { return address_; }
  pid_t Pid() const { return pid_; }
  // A scratch directory that lives as long as the bus.
  const std::string& Dir() const { return dir_; }

 private:
  std::string dir_;
  std::string address_;
  pid_t pid_ = -1;
  bool hadAddress_ = false;
  std::string oldAddress_;
};

// Whether `name` has an owner on the current session bus.
bool NameHasOwner(const std::string& name);

// camd-sim as a child process: standard output (the verdict) and standard
// error (its log) go to files in `workDir`.
class CamdSimProcess {
 public:
  // Starts `binary` with `args` and waits until camd's service name is on
  // the bus; throws std::runtime_error when it exits or does not appear.
  CamdSimProcess(const std::string& binary, const std::vector<std::string>& args,
                 const std::string& workDir,
                 std::chrono::milliseconds startTimeout = std::chrono::seconds(10));
  ~CamdSimProcess();
  CamdSimProcess(const CamdSimProcess&) = delete;
  CamdSimProcess& operator=(const CamdSimProcess&) = delete;

  pid_t Pid() const { return pid_; }
  std::string Out() const;  // what it wrote on standard output so far
  std::string Log() const;  // what it wrote on standard error so far
  // Ends it (SIGTERM) unless it has ended already; returns the raw wait status.
  int Stop();
  // Waits for it to end on its own; false when it is still running after `timeout`.
  bool WaitExit(std::chrono::milliseconds timeout, int* status = nullptr);

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  bool reaped_ = false;
  std::string outPath_;
  std::string errPath_;
};

}  // namespace Updater::Testing
