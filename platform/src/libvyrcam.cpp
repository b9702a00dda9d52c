#include "vyrcam/libvyrcam.hpp"

#include "firmware_dir.hpp"

namespace VYRCam {

std::pair<int, std::string> libVyrCam::FilesystemFirmwarePackage(int flashRegion) {
  // A negative region would build "camera-region-1-", which reads like a
  // different region's name; no such region exists.
  if (flashRegion < 0) return {-1, ""};
  return fwu::platform::NewestPackage(fwu::platform::FirmwareDirectory(),
                                      "camera-region" + std::to_string(flashRegion) + "-");
}

}  // namespace VYRCam
