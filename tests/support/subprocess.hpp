// Runs a program as a real child process and collects what it wrote.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "temp_dir.hpp"  // ReadFile

namespace Updater::Testing {

struct ProcessResult {
  std::string out, err;  // everything written to standard output and to standard error
  int exitStatus = -1;   // WEXITSTATUS when it exited, else -1
  int termSignal = 0;    // the signal that ended it, else 0
  std::chrono::milliseconds elapsed{0};
};

struct ProcessOptions {
  std::vector<std::pair<std::string, std::string>> env;  // added to (or replacing in) our environment
  std::chrono::milliseconds timeout{60000};
  // Polled as output arrives: returning true ends the child (SIGTERM) and returns.
  std::function<bool(const std::string& out, const std::string& err)> stopWhen;
  std::string argv0;          // when not empty, passed as argv[0] instead of the path
  bool closedStdout = false;  // nobody reads standard output: writes to it fail with EPIPE
  bool terminal = false;      // standard output is a pseudo-terminal (raw: no "\r" is added)
};

// The firmware-updater under test: FWU_TEST_UPDATER (an installed copy) when set, else this tree's.
std::string UpdaterBinary();

// Runs `path` with `args` (argv[1..]), through the emulator named in FWU_TEST_EMULATOR (words, e.g.
// "qemu-aarch64 -L /"; the build's own emulator when unset) when the binaries were built for another
// machine. Never throws on the child's failure; kills it when `timeout` runs out or `stopWhen` says so.
ProcessResult RunProcess(const std::string& path, const std::vector<std::string>& args,
                         const ProcessOptions& options = {});

// `path` with `args` in the background (`native`: never through the emulator, see RunProcess), its standard
// output and error in files under `workDir`. Ready once a whole line holding `readyText` is in either; throws
// std::runtime_error when it exits first or is not ready within 10 s.
class ChildProcess {
 public:
  ChildProcess(const std::string& path, const std::vector<std::string>& args, const std::string& workDir,
               const std::string& readyText, bool native = false);
  ~ChildProcess() { Stop(); }  // SIGTERM, then reaps it; its files go with `workDir`
  ChildProcess(const ChildProcess&) = delete;
  std::string Out() const { return ReadFile(stem_ + ".out"); }  // what it wrote so far on standard output
  std::string Log() const { return ReadFile(stem_ + ".log"); }  // ... and on standard error

 private:
  void Stop();
  int pid_ = -1;
  std::string stem_;
};

}  // namespace Updater::Testing
