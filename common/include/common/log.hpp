// Console output shared by every subsystem.
//
// Every coloured line has the same frame: colour, "fw-updater Debug: ", the
// text, the reset sequence, and std::endl so the line is flushed at once
// (the updater's output is often read live through a serial console).
// The parts are streamed one by one into std::cout, so whatever number base
// the stream is in at the time (the camera check leaves it in hexadecimal)
// applies to the numbers here too.
#pragma once

#include <iostream>
#include <ostream>

namespace Updater::Log {

enum class Colour { Yellow, Green, Magenta, Cyan, Red };

inline constexpr const char* kPrefix = "fw-updater Debug: ";
inline constexpr const char* kErrorTag = "[ERROR] -- ";
inline constexpr const char* kReset = "\033[0m";

constexpr const char* Sequence(Colour c) {
  switch (c) {
    case Colour::Yellow: return "\033[0;33m";
    case Colour::Green: return "\033[0;32m";
    case Colour::Magenta: return "\033[0;35m";
    case Colour::Cyan: return "\033[0;36m";
    case Colour::Red: return "\033[0;31m";
  }
  return "";
}

// colour + prefix + parts... + reset + endl, on `os`.
template <class... Parts>
std::ostream& WriteLine(std::ostream& os, Colour colour, const Parts&... parts) {
  os << Sequence(colour) << kPrefix;
  (os << ... << parts);
  return os << kReset << std::endl;
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
