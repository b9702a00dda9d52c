#include "private_bus.hpp"
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace Updater::Testing {

// The daemon is our own child, not forked away: it dies with us, and we reap it.
PrivateBus::PrivateBus() {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const std::string print = "--print-address=" + std::to_string(report[1]), address = "--address=unix:dir=" + Dir();
  if ((pid_ = fork()) == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    fcntl(report[1], F_SETFD, 0);  // left open across exec, for the address
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", print.c_str(), address.c_str(), nullptr);
    _exit(127);
  }
  close(report[1]);
  std::string line;  // written once the daemon listens
  for (char c; read(report[0], &c, 1) == 1 && c != '\n';) line += c;
  close(report[0]);
  if (line.empty()) {
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    throw std::runtime_error("dbus-daemon did not report its address");
  }
  if (const char* old = std::getenv("DBUS_SESSION_BUS_ADDRESS")) oldAddress_ = old;
  setenv("DBUS_SESSION_BUS_ADDRESS", line.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  kill(pid_, SIGTERM);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  oldAddress_ ? setenv("DBUS_SESSION_BUS_ADDRESS", oldAddress_->c_str(), 1) : unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

void PrivateBus::Kill() { kill(pid_, SIGKILL); }

}  // namespace Updater::Testing
