// A recording (see common/record.hpp) read back, for the simulators'
// replays: both read it the same way and name a departure from it in the
// same words.
#pragma once

#include <functional>
#include <string>

#include "common/json_line.hpp"

namespace Updater::Record {

class Recording {
 public:
  using EachLine = std::function<void(int number, const Json::Object& line)>;

  // Reads the whole file, handing each line but the empty ones to `each`
  // with its number in the file (from 1); nothing of it is kept. Throws
  // std::runtime_error when the file cannot be read or a line is not one
  // JSON object ("FILE:N: not a recorded line"), so that a replay never
  // starts on half a recording. `each` refuses a line it cannot use by
  // throwing std::invalid_argument with its own words, named the same way
  // ("FILE:N: WORDS"); anything else it throws goes through.
  Recording(const std::string& path, const EachLine& each);

  // "REPLAY mismatch at line N: expected EXPECTED, got GOT", where the
  // recording has EXPECTED at line N...
  static std::string Mismatch(int line, const std::string& expected, const std::string& got);
  // ...and where it has no exchange left: named at the exit status's line
  // (or the one after the last, for a recording cut short).
  std::string MismatchAtEnd(const std::string& got) const;

 private:
  int endLine_ = 0;
};

}  // namespace Updater::Record
