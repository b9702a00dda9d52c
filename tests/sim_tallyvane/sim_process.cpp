#include "sim_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace fwu::testing {

SimProcess::SimProcess(const std::vector<std::string>& args) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  std::vector<std::string> store{TALLYVANE_SIM_BIN};
  store.insert(store.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : store) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  outFd_ = out[0];
  reader_ = std::thread([this] { ReadOutput(); });
}

SimProcess::~SimProcess() {
  if (status_ == -2) {
    kill(pid_, SIGKILL);
    Wait(std::chrono::seconds(5));
  }
  if (reader_.joinable()) reader_.join();
  if (outFd_ >= 0) close(outFd_);
}

void SimProcess::ReadOutput() {
  for (;;) {
    pollfd pfd{outFd_, POLLIN, 0};
    if (poll(&pfd, 1, 100) <= 0) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (status_ != -2) break;  // exited, and nothing more came
      continue;
    }
    char buf[4096];
    const ssize_t n = read(outFd_, buf, sizeof buf);
    std::lock_guard<std::mutex> lock(mutex_);
    if (n <= 0) break;
    partial_.append(buf, static_cast<std::size_t>(n));
    std::size_t eol;
    while ((eol = partial_.find('\n')) != std::string::npos) {
      lines_.push_back(partial_.substr(0, eol));
      partial_.erase(0, eol + 1);
    }
    changed_.notify_all();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

std::optional<std::string> SimProcess::WaitForLine(const std::string& prefix, std::chrono::milliseconds timeout,
                                                   std::size_t from, std::size_t* index) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::size_t i = from;
  auto scan = [&]() -> std::optional<std::string> {
    for (; i < lines_.size(); ++i) {
      if (lines_[i].rfind(prefix, 0) == 0) {
        if (index != nullptr) *index = i;
        return lines_[i];
      }
    }
    return std::nullopt;
  };
  for (;;) {
    if (auto line = scan()) return line;
    if (closed_) return std::nullopt;
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) return scan();
  }
}

std::vector<std::string> SimProcess::Lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::size_t SimProcess::LineCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_.size();
}

int SimProcess::Wait(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  pid_t done = 0;
  while ((done = waitpid(pid_, &status, WNOHANG)) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      done = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  status_ = (done > 0 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
  return status_;
}

void SimProcess::Signal(int signal) { kill(pid_, signal); }

}  // namespace fwu::testing
