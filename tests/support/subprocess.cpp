#include "subprocess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Updater::Testing {

namespace {

// Forks a child that runs `inChild` and then execs `path` with `args`, through the emulator unless `native`;
// `argv0`, when not empty, is the program's argv[0].
pid_t Spawn(const std::string& path, const std::vector<std::string>& args, const std::string& argv0,
            bool native, const std::function<void()>& inChild) {
  const char* named = std::getenv("FWU_TEST_EMULATOR");
  std::istringstream emulator(native ? "" : named ? named : FWU_TEST_EMULATOR_DEFAULT);
  std::vector<std::string> words{std::istream_iterator<std::string>(emulator), {}};
  const bool direct = words.empty();
  if (!direct && !argv0.empty()) words.insert(words.end(), {"-0", argv0});  // qemu-user's own option
  words.push_back(direct && !argv0.empty() ? argv0 : path);
  words.insert(words.end(), args.begin(), args.end());
  const std::string program = direct ? path : words.front();
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    inChild();
    execvp(program.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

}  // namespace

std::string UpdaterBinary() {
  const char* installed = std::getenv("FWU_TEST_UPDATER");
  return installed && *installed ? installed : FWU_UPDATER_BIN;
}

ProcessResult RunProcess(const std::string& path, const std::vector<std::string>& args,
                         const ProcessOptions& options) {
  int outPipe[2], errPipe[2];
  termios raw{};
  cfmakeraw(&raw);  // a terminal that adds no "\r"
  const bool opened = options.terminal ? openpty(&outPipe[0], &outPipe[1], nullptr, &raw, nullptr) == 0
                                       : pipe2(outPipe, O_CLOEXEC) == 0;
  if (!opened || pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  for (const int fd : outPipe) fcntl(fd, F_SETFD, FD_CLOEXEC);
  const auto started = std::chrono::steady_clock::now();
  const pid_t pid = Spawn(path, args, options.argv0, false, [&] {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    setpgid(0, 0);  // a group of its own, so that our kill reaches what it started too
    for (const auto& [name, value] : options.env) setenv(name.c_str(), value.c_str(), 1);
  });
  close(outPipe[1]);
  close(errPipe[1]);
  if (options.closedStdout) close(outPipe[0]);
  ProcessResult result;
  pollfd fds[2] = {{options.closedStdout ? -1 : outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  using std::chrono::milliseconds, std::chrono::steady_clock;
  const auto since = [&] { return std::chrono::duration_cast<milliseconds>(steady_clock::now() - started); };
  bool ended = false;  // by us
  const auto end = [&](int signal) {
    kill(-pid, signal);
    ended = true;
  };
  // Until both pipes close: the child and anything it started that kept them.
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    const auto left = options.timeout - since();
    if (left.count() <= 0 && !ended) end(SIGKILL);
    const int waitMs = ended ? 1000 : static_cast<int>(std::min<long long>(left.count(), 200));
    if (poll(fds, 2, waitMs) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (!fds[i].revents) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        close(fds[i].fd);
        fds[i].fd = -1;
      }
    }
    if (!ended && options.stopWhen && options.stopWhen(result.out, result.err)) end(SIGTERM);
  }
  for (const auto& p : fds)
    if (p.fd >= 0) close(p.fd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  result.elapsed = since();
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.termSignal = WTERMSIG(status);
  return result;
}

ChildProcess::ChildProcess(const std::string& path, const std::vector<std::string>& args,
                           const std::string& workDir, const std::string& readyText, bool native) {
  static std::atomic<int> serial{0};
  stem_ = workDir + "/" + std::filesystem::path(path).filename().string() + "." + std::to_string(serial++);
  pid_ = Spawn(path, args, "", native, [&] {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test that dies without its teardown must not leave it behind
    for (const auto& [fd, ext] : {std::pair{STDOUT_FILENO, ".out"}, std::pair{STDERR_FILENO, ".log"}}) {
      const int file = open((stem_ + ext).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (file < 0 || dup2(file, fd) < 0) _exit(126);
    }
  });
  for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       std::chrono::steady_clock::now() < deadline;
       std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error(path + " exited at start: " + Log());
    }
    for (const std::string& said : {Out(), Log()})  // a whole line: what comes with it is there too
      if (const auto at = said.find(readyText);
          at != std::string::npos && said.find('\n', at) != std::string::npos)
        return;
  }
  Stop();
  throw std::runtime_error(path + " was not ready: " + Log());
}

void ChildProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  pid_ = -1;
}

}  // namespace Updater::Testing
