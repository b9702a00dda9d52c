// Console texts of the camera target (helper and camd client) that look like
// slips but are what this program has always printed, and what scripts and
// people reading logs match on. Each is kept on purpose: do not "fix" one.
#pragma once

namespace Updater::Helpers::Kept {

// KEPT ON PURPOSE: no blank between the colon and the hexadecimal checksum.
inline constexpr const char* kChecksumNoBlank = "Checksum:";
// KEPT ON PURPOSE: "(really)", as if a first ask had not been meant.
inline constexpr const char* kFirstBlockReally = "Asking camd for first update block (really)";
// KEPT ON PURPOSE: names a D-Bus library this program does not use.
inline constexpr const char* kBusBringingUp = "Initializing dbus-cxx";
inline constexpr const char* kBusAlreadyUp = "dbus-cxx already initialized";

}  // namespace Updater::Helpers::Kept
