// libCommon's control interface to the counter-link board (downlink bytes,
// running firmware version, firmware package lookup). Device paths and
// their environment overrides: docs/platform.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace lc {

class QelArmControl {
 public:
  // Writes `count` bytes as one downlink frame on `channel`. Non-zero on
  // success, 0 when the device is absent or the write fails; never blocks
  // for long.
  static int Send_Dl_Us_Raw(int channel, const std::uint8_t* bytes, std::size_t count);
  // Version of the firmware running on the board; -1 when unknown.
  static int TallyvaneFirmwareVer();
  // {version, path} of the newest "tallyvane-<VERSION>.bin" in the firmware
  // directory ($QUORVEX_FIRMWARE_DIR, else /lib/firmware/quorvex); {-1, ""} when none.
  static std::pair<int, std::string> FilesystemFirmwarePackage(int which);
};

}  // namespace lc
