// What tests look for in output and files.
#pragma once
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "temp_dir.hpp"  // ReadFile

namespace Updater::Testing {

// Names each case of a parameterised test after its row's `name`. Each row type has a PrintTo beside it that
// prints the same name, so failures and test listings name the row instead of dumping its bytes.
template <class Row>
std::string RowName(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

inline std::size_t CountOf(const std::string& text, const std::string& needle) {
  std::size_t count = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}
// The lines of `text`, without their line ends; a last line without one counts too.
inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}
inline std::string RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string bytes(n, '\0');
  for (auto& b : bytes) b = static_cast<char>(gen());
  return bytes;
}

// What `f` wrote on standard output and on standard error.
namespace capture = ::testing::internal;
struct Captured {
  std::string out, err;
};
template <class F>
Captured Capture(F&& f) {
  capture::CaptureStdout();
  capture::CaptureStderr();
  f();
  return {capture::GetCapturedStdout(), capture::GetCapturedStderr()};
}

}  // namespace Updater::Testing
