#include "subprocess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace Updater::Testing {

namespace {
void DrainInto(int& fd, std::string& sink) {
  char buf[4096];
  const ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) {
    sink.append(buf, static_cast<size_t>(n));
  } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
    close(fd);
    fd = -1;
  }
}
}  // namespace

Command CommandFor(const std::string& path, const std::vector<std::string>& args, const std::string& argv0) {
  const char* named = std::getenv("FWU_TEST_EMULATOR");
  std::istringstream emulator(named ? named : FWU_TEST_EMULATOR_DEFAULT);
  Command command;
  for (std::string word; emulator >> word;) command.argv.push_back(word);
  if (command.argv.empty()) {
    command.program = path;
    command.argv.push_back(argv0.empty() ? path : argv0);
  } else {
    command.program = command.argv.front();
    if (!argv0.empty()) command.argv.insert(command.argv.end(), {"-0", argv0});  // qemu-user's own option
    command.argv.push_back(path);
  }
  command.argv.insert(command.argv.end(), args.begin(), args.end());
  return command;
}

std::string UpdaterBinary() {
  const char* installed = std::getenv("FWU_TEST_UPDATER");
  return installed && *installed ? installed : FWU_UPDATER_BIN;
}

ProcessResult RunProcess(const std::string& path, const std::vector<std::string>& args,
                         const ProcessOptions& options) {
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");

  auto command = CommandFor(path, args, options.argv0);
  auto argv = command.ExecArgv();

  const auto started = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    setpgid(0, 0);
    for (const auto& name : options.unsetEnv) unsetenv(name.c_str());
    for (const auto& [name, value] : options.env) setenv(name.c_str(), value.c_str(), 1);
    execvp(command.program.c_str(), argv.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  if (options.closedStdout) close(outPipe[0]);

  ProcessResult result;
  int fds[2] = {options.closedStdout ? -1 : outPipe[0], errPipe[0]};
  bool killed = false;
  while (fds[0] >= 0 || fds[1] >= 0) {
    const auto now = std::chrono::steady_clock::now();
    const auto left = options.timeout - std::chrono::duration_cast<std::chrono::milliseconds>(now - started);
    if (left.count() <= 0 && !killed) {
      result.timedOut = true;
      kill(-pid, SIGKILL);
      killed = true;
    }
    pollfd pfds[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    const int waitMs = killed ? 1000 : static_cast<int>(std::min<long long>(left.count(), 200));
    if (poll(pfds, 2, waitMs) < 0 && errno != EINTR) break;
    if (pfds[0].revents) DrainInto(fds[0], result.out);
    if (pfds[1].revents) DrainInto(fds[1], result.err);
    if (!killed && options.stopWhen && options.stopWhen(result.out, result.err)) {
      result.timedOut = true;
      kill(-pid, SIGTERM);
      killed = true;
    }
  }
  for (int fd : fds)
    if (fd >= 0) close(fd);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - started);
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.termSignal = WTERMSIG(status);
  return result;
}

}  // namespace Updater::Testing
