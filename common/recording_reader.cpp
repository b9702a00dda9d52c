#include "common/recording_reader.hpp"

#include <fstream>
#include <stdexcept>

namespace Updater::Record {

Recording::Recording(const std::string& path, const EachLine& each) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read the recording " + path);
  int number = 0;
  for (std::string text; std::getline(in, text);) {
    ++number;
    if (text.empty()) continue;
    const auto where = [&path, number] { return path + ":" + std::to_string(number) + ": "; };
    const auto line = Json::Parse(text);
    if (!line) throw std::runtime_error(where() + "not a recorded line");
    if (line->Has("exit")) endLine_ = number;
    try {
      each(number, *line);
    } catch (const std::invalid_argument& refused) {
      throw std::runtime_error(where() + refused.what());
    }
  }
  if (endLine_ == 0) endLine_ = number + 1;
}

std::string Recording::Mismatch(int line, const std::string& expected, const std::string& got) {
  return "REPLAY mismatch at line " + std::to_string(line) + ": expected " + expected + ", got " + got;
}

std::string Recording::MismatchAtEnd(const std::string& got) const {
  return Mismatch(endLine_, "the end of the recording", got);
}

}  // namespace Updater::Record
