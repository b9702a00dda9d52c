// The update helper for the camera: talks to camd over D-Bus and reads the
// firmware image that libVyrCam names for the camera's flash region.
//
// camd decides which byte position it wants next; the helper only reads one
// chunk of the current packet size at that position and sends it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/clock.hpp"
#include "common/notify.hpp"
#include "dbus/bus.hpp"
#include "dbus/camd_dbus_iface.hpp"
#include "sm/update_helper.hpp"

namespace Updater::Helpers {

class VyrCamera : public UpdateHelper {
 public:
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
  std::shared_ptr<CamdDbusIface> camdProxy;
  std::int32_t blockSize = 64;
  std::int32_t reserved = -1;
  std::int32_t fileVersion = -1;
  std::string firmwarePath;
  std::shared_ptr<Dbus::Dispatcher> dispatcher;
  std::shared_ptr<sdbus::IConnection> connection;
  Clock& clock_;

  // Progress for the service manager: the end of the chunk just sent, the
  // highest end camd has acknowledged, and the image size.
  ProgressNotifier progress_;
  std::int64_t sentEnd_ = 0, ackedEnd_ = 0, imageSize_ = 0;
};

}  // namespace Updater::Helpers
