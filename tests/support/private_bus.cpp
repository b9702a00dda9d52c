#include "private_bus.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Updater::Testing {

namespace {

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string TrimLine(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

// A daemon that has forked away is reaped by whoever adopted it, maybe
// never (a container's init may not reap), so a zombie counts as gone.
bool Alive(pid_t pid) {
  if (kill(pid, 0) != 0) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string pidText, comm, state;
  stat >> pidText >> comm >> state;
  return state != "Z";
}

}  // namespace

PrivateBus::PrivateBus() {
  char templ[] = "/tmp/fwu-bus-XXXXXX";
  if (!mkdtemp(templ)) throw std::runtime_error("mkdtemp failed");
  dir_ = templ;

  const std::string command = "dbus-daemon --session --fork --print-address=1 --print-pid=1 "
                              "--address=unix:dir=" + dir_;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run dbus-daemon");
  char line[1024];
  std::string address, pid;
  if (fgets(line, sizeof line, pipe)) address = TrimLine(line);
  if (fgets(line, sizeof line, pipe)) pid = TrimLine(line);
  pclose(pipe);
  if (address.empty() || pid.empty()) {
    std::filesystem::remove_all(dir_);
    throw std::runtime_error("dbus-daemon did not report its address and pid");
  }
  address_ = address;
  pid_ = static_cast<pid_t>(std::stol(pid));

  if (const char* old = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
    hadAddress_ = true;
    oldAddress_ = old;
  }
  setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  if (pid_ > 0 && kill(pid_, SIGTERM) == 0) {
    // Not our child (it forked away), so poll rather than wait.
    for (int i = 0; i < 200 && Alive(pid_); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (hadAddress_)
    setenv("DBUS_SESSION_BUS_ADDRESS", oldAddress_.c_str(), 1);
  else
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

bool NameHasOwner(const std::string& name) {
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  bool owned = false;
  proxy->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(name).storeResultsTo(owned);
  return owned;
}

CamdSimProcess::CamdSimProcess(const std::string& binary, const std::vector<std::string>& args,
                               const std::string& workDir, std::chrono::milliseconds startTimeout) {
  static std::atomic<int> serial{0};
  const std::string stem = workDir + "/camd-sim." + std::to_string(getpid()) + "." +
                           std::to_string(serial.fetch_add(1));
  outPath_ = stem + ".out";
  errPath_ = stem + ".log";

  std::vector<std::string> store{binary};
  store.insert(store.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : store) argv.push_back(a.data());
  argv.push_back(nullptr);

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // A test that dies without its teardown must not leave camd-sim behind.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int out = open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0) _exit(126);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }

  const auto deadline = std::chrono::steady_clock::now() + startTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (WaitExit(std::chrono::milliseconds(0)))
      throw std::runtime_error("camd-sim exited at start: " + Log());
    try {
      if (NameHasOwner("com.quorvex.common.Camd1")) return;
    } catch (const sdbus::Error&) {
      // The bus may still be settling; ask again.
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Stop();
  throw std::runtime_error("camd-sim did not take its name on the bus: " + Log());
}

CamdSimProcess::~CamdSimProcess() {
  Stop();
  std::error_code ignored;
  std::filesystem::remove(outPath_, ignored);
  std::filesystem::remove(errPath_, ignored);
}

std::string CamdSimProcess::Out() const { return ReadWhole(outPath_); }
std::string CamdSimProcess::Log() const { return ReadWhole(errPath_); }

bool CamdSimProcess::WaitExit(std::chrono::milliseconds timeout, int* status) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!reaped_) {
    const pid_t r = waitpid(pid_, &status_, WNOHANG);
    if (r == pid_ || (r < 0 && errno == ECHILD)) {
      reaped_ = true;
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (status) *status = status_;
  return true;
}

int CamdSimProcess::Stop() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGTERM);
    while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  return status_;
}

}  // namespace Updater::Testing
