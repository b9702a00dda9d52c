// How a call to camd reads in a recorded update (common/record.hpp) and in
// the simulator's replay of one: the method with its arguments as text, a
// byte array as its length and CRC-32, never its bytes. Both sides format a
// call here, so that a replay compares like with like.
#pragma once

#include <boost/crc.hpp>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "dbus/camd_methods.hpp"

namespace Updater::Camd {

inline std::string ArgText(std::int32_t value) { return std::to_string(value); }

// "64 bytes crc32 1c291ca3"
inline std::string ArgText(const std::vector<std::uint8_t>& bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  char text[64];
  (void)std::snprintf(text, sizeof text, "%zu bytes crc32 %08x", bytes.size(),
                      static_cast<unsigned>(crc.checksum()));
  return text;
}

// "0, 64 bytes crc32 1c291ca3"
template <class... Args>
std::string ArgsText(const Args&... args) {
  std::string text;
  ((text += (text.empty() ? "" : ", ") + ArgText(args)), ...);
  return text;
}

// The members of a call's line in a recording.
inline constexpr const char* kCallKey = "call";
inline constexpr const char* kArgsKey = "args";
inline constexpr const char* kReplyKey = "reply";      // int or bool, as the method answers
inline constexpr const char* kErrorKey = "error";      // the D-Bus error's name...
inline constexpr const char* kMessageKey = "message";  // ...and its message
inline constexpr const char* kTookKey = "took";        // milliseconds until the answer

}  // namespace Updater::Camd
