// Lookup of firmware packages in the firmware directory, shared by the
// camera and the board package lookups.
#pragma once

#include <string>
#include <utility>

namespace fwu::platform {

// $QUORVEX_FIRMWARE_DIR when set and not empty, else /lib/firmware/quorvex.
std::string FirmwareDirectory();

// Parses "<prefix><VERSION>.bin" where VERSION is one or more decimal digits
// that fit an int. Returns the version, or -1 when `name` does not match.
int PackageVersionFromName(const std::string& name, const std::string& prefix);

// {version, directory + "/" + name} of the regular file in `directory` named
// "<prefix><VERSION>.bin" with the highest VERSION; {-1, ""} when there is
// none or the directory cannot be read.
std::pair<int, std::string> NewestPackage(const std::string& directory, const std::string& prefix);

}  // namespace fwu::platform
