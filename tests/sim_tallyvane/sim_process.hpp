// tallyvane-sim as a child process, with its standard output collected as
// lines and every wait bounded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace fwu::testing {

class SimProcess {
 public:
  explicit SimProcess(const std::vector<std::string>& args);
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // The first line, from the one after `from` on, that starts with
  // `prefix`; nothing when none came within `timeout`. `index` receives
  // its position.
  std::optional<std::string> WaitForLine(const std::string& prefix,
                                         std::chrono::milliseconds timeout = std::chrono::seconds(10),
                                         std::size_t from = 0, std::size_t* index = nullptr);
  std::vector<std::string> Lines();
  std::size_t LineCount();
  // Waits for the exit (SIGKILL after `timeout`); the exit status, or -1.
  int Wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  void Signal(int signal);

 private:
  void ReadOutput();

  pid_t pid_ = -1;
  int outFd_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::string partial_;
  bool closed_ = false;
  int status_ = -2;
};

}  // namespace fwu::testing
