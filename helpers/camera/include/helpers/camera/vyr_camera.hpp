// The update helper for the camera: talks to camd over D-Bus and reads the
// firmware image that libVyrCam names for the camera's flash region.
//
// camd decides which byte position it wants next; the helper only reads one
// chunk of the current packet size at that position and sends it.
//
// Safety limits beyond camd's protocol:
// - one run per camera at a time: an exclusive lock per camera index in
//   $QUORVEX_LOCK_DIR (default /run/firmware-updater), taken before camd is
//   asked anything (see camera_lock.hpp);
// - a package is read only from a firmware directory and file that no other
//   user could have written (see common/file_trust.hpp);
// - every chunk comes from the image the update check opened, even if a
//   package manager replaces the file meanwhile;
// - images camd's signed 32-bit positions cannot address are refused;
// - no chunk goes out unless camd has taken the image's announcement;
// - a stall limit ($QUORVEX_STALL_SECONDS, default 300, 0 = none): the update
//   check, with any wait for the lock, may take that long in all, and the block loop gives up once no new
//   byte has been acknowledged for that long, or sooner after a few paced
//   rounds in which camd acknowledged nothing new or answered with errors.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/clock.hpp"
#include "common/console.hpp"
#include "common/image_file.hpp"
#include "common/notify.hpp"
#include "common/stall_limit.hpp"
#include "dbus/bus.hpp"
#include "dbus/camd_dbus_iface.hpp"
#include "sm/update_helper.hpp"

namespace Updater::Helpers {

class VyrCamera : public UpdateHelper {
 public:
  static constexpr std::chrono::seconds kDefaultStallLimit = Updater::kDefaultStallLimit;

  // Brings up D-Bus and builds the proxy for camera `cameraIndex` (the text
  // as typed on the command line). `clock` serves every wait of the update.
  explicit VyrCamera(std::string cameraIndex, Clock& clock = SystemClock());
  ~VyrCamera() override;
  VyrCamera(const VyrCamera&) = delete;
  VyrCamera& operator=(const VyrCamera&) = delete;

  int CheckForUpdate() override;
  bool HaveUpdateFile() override;
  int GetFirstUpdateBlock() override;
  int SendFirmwareBlock(int block) override;
  int WaitForAck(unsigned block) override;
  int GetNextFirmwareBlock() override;

  CamdDbusIface& Proxy() { return *camdProxy; }
  const std::string& FirmwarePath() const { return firmwarePath; }

 private:
  bool TakeLock(std::optional<Clock::steady_point> deadline);
  int CheckWithCamd();
  // Opens the package CheckWithCamd() found newer, takes its checksum and
  // announces it to camd; whether the update goes ahead.
  bool AnnounceImage();

  std::shared_ptr<CamdDbusIface> camdProxy;
  std::int32_t blockSize = 64;
  // Set and never read, as the camera was first written; kept for the field's sake.
  [[maybe_unused]] std::int32_t reserved = -1;
  std::int32_t fileVersion = -1;
  std::string firmwarePath;

  const std::string cameraIndex_;
  Clock& clock_;
  StallWatch stall_;  // progress: the highest acknowledged chunk end
  int lockFd_ = -1;
  Image::File image_;
  // The chunk on its way and the progress it may make once acknowledged.
  std::int64_t sentBlock_ = 0;
  std::int64_t sentBytes_ = 0;
  std::int64_t ackedEnd_ = 0;
  // Progress for the service manager (sd_notify), out of the image size.
  ProgressNotifier progress_;
  Console::Progress progressLine_;
  std::int64_t imageSize_ = 0;
};

}  // namespace Updater::Helpers
