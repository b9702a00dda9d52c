// Recording an update's exchange with its target, so that a failure seen
// once on a device can be replayed by the simulators as a test.
//
// QUORVEX_RECORD=FILE (read once, at Start) appends one JSON object a line
// to FILE (see common/json_line.hpp):
//
//   {"recording":1,"program":"firmware-updater","version":"0.1.0",
//    "target":"camera","index":"0",["stall_seconds":"5",]["reader":"concurrent",]
//    "package":"camera-region0-3.bin",
//    "size":5000,"checksum":41232}
//   ... one line per exchange, written by the target's own code ...
//   {"exit":255}
//
// The first line names the package, which is only known once the target has
// been asked which one it needs; the exchanges before that are held in
// memory and follow the header as soon as it is written. A run that ends
// without a package writes the header without one. "stall_seconds" and
// "reader" are QUORVEX_STALL_SECONDS and QUORVEX_TALLYVANE_READER, when set.
//
// A recording never costs the update: a file that cannot be opened or
// written (a bad path, a full disk) costs one warning line on standard error
// and recording stops; nothing else the program does changes.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "common/json_line.hpp"

namespace Updater::Record {

inline constexpr const char* kVariable = "QUORVEX_RECORD";

// One recording. Every member may be called from any thread.
class Recorder {
 public:
  // `header` holds the members the first line starts with; warnings go to `warnings`.
  Recorder(std::string path, Json::Object header, std::ostream& warnings);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Names the package and writes the header with whatever was held back.
  // Only the first call counts.
  void Package(const std::string& name, std::int64_t size, std::int64_t checksum);
  // Writes the header now, without a package when none was named, and with
  // it whatever was held back: for a run that goes on exchanging with its
  // target after the update (until it is ended), whose lines must not wait
  // for a package that will not come. Later Package calls do not count.
  void WriteHeader();
  // Appends `line` with "ms", the milliseconds since the previous exchange.
  void Exchange(Json::Object line);
  // The last line: the process's exit status. The header goes first if it has not.
  void Exit(int status);

 private:
  void WriteHeaderLocked();
  void WriteLocked(const std::string& line);
  void FailLocked(int error);

  std::mutex mutex_;
  const std::string path_;
  Json::Object header_;
  std::ostream& warnings_;
  std::FILE* file_ = nullptr;
  bool headerWritten_ = false;
  bool failed_ = false;
  std::vector<std::string> held_;
  std::optional<std::chrono::steady_clock::time_point> last_;
};

// The process's recording, made once by Start from QUORVEX_RECORD: `target`
// and `index` (the camera's index text, empty for the board) go into the
// header. Main thread, before any exchange.
void Start(const std::string& target, const std::string& index);
// The recording Start made, or nullptr when nothing is recorded. Any thread.
Recorder* Active();

}  // namespace Updater::Record
