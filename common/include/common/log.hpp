// Console output shared by every subsystem.
//
// Every coloured line has the same frame: colour, "fw-updater Debug: ", the
// text, the reset sequence, and std::endl so the line is flushed at once
// (the updater's output is often read live through a serial console).
// The line is put together in the stream's own format (the camera check
// leaves std::cout in hexadecimal, and the numbers here follow it) and goes
// out in one write: in the board's concurrent mode the receive thread prints
// too, and a line cut in half by the other thread's would be unreadable.
#pragma once

#include <iostream>
#include <ostream>
#include <sstream>
#include <string>

namespace Updater::Log {

enum class Colour { Yellow, Green, Magenta, Cyan, Red };

inline constexpr const char* kPrefix = "fw-updater Debug: ";
inline constexpr const char* kErrorTag = "[ERROR] -- ";
inline constexpr const char* kReset = "\033[0m";

constexpr const char* Sequence(Colour c) {
  switch (c) {
    case Colour::Yellow:
      return "\033[0;33m";
    case Colour::Green:
      return "\033[0;32m";
    case Colour::Magenta:
      return "\033[0;35m";
    case Colour::Cyan:
      return "\033[0;36m";
    case Colour::Red:
      return "\033[0;31m";
  }
  return "";
}

// colour + prefix + parts... + reset + endl, on `os`.
template <class... Parts>
std::ostream& WriteLine(std::ostream& os, Colour colour, const Parts&... parts) {
  std::ostringstream line;
  line.copyfmt(os);
  line << Sequence(colour) << kPrefix;
  (line << ... << parts);
  line << kReset << '\n';
  const std::string text = line.str();
  return os.write(text.data(), static_cast<std::streamsize>(text.size())).flush();
}

// A coloured debug line on standard output.
template <class... Parts>
void Debug(Colour colour, const Parts&... parts) {
  WriteLine(std::cout, colour, parts...);
}

// The red error form: "fw-updater Debug: [ERROR] -- " + parts, on standard output.
template <class... Parts>
void Error(const Parts&... parts) {
  WriteLine(std::cout, Colour::Red, kErrorTag, parts...);
}

}  // namespace Updater::Log
