// libVyrCam's firmware package lookup for the camera.
#pragma once

#include <string>
#include <utility>

namespace VYRCam {

class libVyrCam {
 public:
  // {version, path} of the newest camera package for `flashRegion`:
  // "camera-region<R>-<VERSION>.bin" in the firmware directory
  // ($QUORVEX_FIRMWARE_DIR, else /lib/firmware/quorvex). {-1, ""} when none.
  static std::pair<int, std::string> FilesystemFirmwarePackage(int flashRegion);
};

}  // namespace VYRCam
