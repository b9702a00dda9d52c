// Client object for one camera's firmware interface in camd.
//
// Every operation follows one call path: an optional announcement line,
// then up to five tries with no pause, each failed try logged on standard
// error as "Dbus::Error: " and the error's message, and the failure value
// (-1, false or nothing) when all five failed. A reply of the wrong type is
// not a failed try: it escapes at once as Dbus::ReplyTypeMismatch.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "dbus/camd_methods.hpp"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace Updater::Helpers {

class CamdDbusIface {
 public:
  // No message goes to the bus here: camd need not run until the first call.
  // `clock` serves the pauses of the first-block and acknowledgement polls.
  static std::shared_ptr<CamdDbusIface> create(std::shared_ptr<sdbus::IConnection> connection,
                                               const std::string& service, const std::string& path,
                                               const std::string& interface,
                                               Clock& clock = SystemClock());

  CamdDbusIface(std::shared_ptr<sdbus::IConnection> connection, const std::string& service,
                const std::string& path, const std::string& interface,
                Clock& clock = SystemClock());
  ~CamdDbusIface();
  CamdDbusIface(const CamdDbusIface&) = delete;
  CamdDbusIface& operator=(const CamdDbusIface&) = delete;

  // Five tries each; -1 / false when every try failed.
  int GetCameraFirmwareVersion();
  int GetPreviouslyDownloadedChunks();
  int GetFlashRegion();
  int GetNextFirmwareBlock();
  bool SendUpdateAvailable(int version, int checksum, int size);
  bool UpdateInfoReceived();
  bool SendFirmwareBlock(int block, std::vector<unsigned char> data);
  // Sent without waiting for an answer; only a local failure is retried.
  void RequestUpdateInfo();
  void ClearPendingUpdate();
  void DequeuePacket();

  // The first position camd wants: up to ten polls 200 ms apart while the
  // answer is negative. A D-Bus error ends the polling with the last answer
  // (or -1).
  int GetFirstUpdateBlock();

  // Polls camd for the fate of the chunk just sent and adapts packetSize:
  // doubled after an acknowledgement while below 64, halved (down to 1)
  // after a loss, which also tells camd to drop the pending chunk.
  // Returns camd's status, 1 for a loss.
  int WaitForAck();

  const std::string& Path() const { return path_; }

  // Current chunk size; the camera helper reads it before every block.
  std::int32_t packetSize = 64;

 private:
  std::shared_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
  std::string path_;
  std::string interface_;
  Clock& clock_;
};

}  // namespace Updater::Helpers
