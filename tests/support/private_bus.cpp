#include "private_bus.hpp"
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <sdbus-c++/sdbus-c++.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <thread>
#include "subprocess.hpp"

namespace Updater::Testing {
namespace {

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool CamdOnBus() {
  bool owned = false;
  try {
    auto connection = sdbus::createSessionBusConnection();
    sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")
        ->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus")
        .withArguments(std::string("com.quorvex.common.Camd1")).storeResultsTo(owned);
  } catch (const sdbus::Error&) {  // the bus may still be settling; ask again
  }
  return owned;
}
}  // namespace

PrivateBus::PrivateBus() {
  const std::string command =
      "dbus-daemon --session --fork --print-address=1 --print-pid=1 --address=unix:dir=" + Dir();
  char address[1024] = "", pid[64] = "";
  FILE* pipe = popen(command.c_str(), "r");
  const bool reported = pipe && fgets(address, sizeof address, pipe) && fgets(pid, sizeof pid, pipe);
  if (pipe) pclose(pipe);
  if (!reported) throw std::runtime_error("dbus-daemon did not report its address and pid");
  address[std::strcspn(address, "\r\n")] = '\0';
  pid_ = std::atoi(pid);
  if (const char* old = std::getenv("DBUS_SESSION_BUS_ADDRESS")) oldAddress_ = old;
  setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
}

// The daemon forked away, so whoever adopted it reaps it, maybe never (a
// container's init may not): a zombie counts as gone.
PrivateBus::~PrivateBus() {
  const auto alive = [this] {
    std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
    std::string field, state;
    stat >> field >> field >> state;
    return kill(pid_, 0) == 0 && state != "Z";
  };
  if (kill(pid_, SIGTERM) == 0)
    for (int i = 0; i < 200 && alive(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  oldAddress_ ? setenv("DBUS_SESSION_BUS_ADDRESS", oldAddress_->c_str(), 1) : unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

void PrivateBus::Kill() { kill(pid_, SIGKILL); }

CamdSimProcess::CamdSimProcess(const std::string& binary, const std::vector<std::string>& args,
                               const std::string& workDir) {
  static std::atomic<int> serial{0};
  stem_ = workDir + "/camd-sim." + std::to_string(getpid()) + "." + std::to_string(serial++);
  auto command = CommandFor(binary, args);  // through the emulator, when there is one; the bus runs natively
  auto argv = command.ExecArgv();
  if ((pid_ = fork()) < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test that dies without its teardown must not leave camd-sim behind
    for (const auto& [fd, ext] : {std::pair{STDOUT_FILENO, ".out"}, std::pair{STDERR_FILENO, ".log"}}) {
      const int file = open((stem_ + ext).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (file < 0 || dup2(file, fd) < 0) _exit(126);
    }
    execvp(command.program.c_str(), argv.data());
    _exit(127);
  }
  for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("camd-sim exited at start: " + Log());
    }
    if (CamdOnBus()) return;
  }
  Stop();
  throw std::runtime_error("camd-sim did not take its name on the bus: " + Log());
}

CamdSimProcess::~CamdSimProcess() {
  Stop();
  std::error_code ignored;
  for (const char* ext : {".out", ".log"}) std::filesystem::remove(stem_ + ext, ignored);
}

void CamdSimProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  pid_ = -1;
}

std::string CamdSimProcess::Out() const { return ReadWhole(stem_ + ".out"); }
std::string CamdSimProcess::Log() const { return ReadWhole(stem_ + ".log"); }

}  // namespace Updater::Testing
