// Client object for one camera's firmware interface in camd.
//
// Every operation follows one call path: an optional announcement line,
// then up to five tries with no pause, each failed try logged on standard
// error as "Dbus::Error: " and the error's message, and the failure value
// (-1, false or nothing) when all five failed. A reply of the wrong type is
// not a failed try: it escapes at once as Dbus::ReplyTypeMismatch.
//
// The bus connection and the proxy are made on first use, inside a try:
// an unreachable bus or an object path the library refuses (the camera index
// is taken as typed) is a failed try like any other, never an abort. A try
// that finds the connection broken drops it, so the next try connects anew.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "dbus/camd_methods.hpp"

namespace sdbus {
class IConnection;
class IProxy;
class MethodReply;
}  // namespace sdbus

namespace Updater::Helpers {

class CamdDbusIface {
 public:
  // No message goes to the bus here: camd need not run until the first call.
  // `clock` serves the pauses of the first-block and acknowledgement polls.
  static std::shared_ptr<CamdDbusIface> create(const std::string& service, const std::string& path,
                                               const std::string& interface,
                                               Clock& clock = SystemClock());

  CamdDbusIface(const std::string& service, const std::string& path, const std::string& interface,
                Clock& clock = SystemClock());
  ~CamdDbusIface();
  CamdDbusIface(const CamdDbusIface&) = delete;
  CamdDbusIface& operator=(const CamdDbusIface&) = delete;

  // Five tries each; -1 / false when every try failed.
  int GetCameraFirmwareVersion();
  // The same call, but nullopt when every try failed, so that a camd that
  // really answers -1 can be told apart from one that could not be asked.
  std::optional<std::int32_t> ReadCameraFirmwareVersion();
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
  // Returns camd's status, 1 for a loss. Once camd has said 3 (all done), a
  // later error cannot take that back: the camera may already be rebooting
  // into the new image.
  int WaitForAck();
  // The last WaitForAck() ended on an error answer rather than on camd's status.
  bool AckFailed() const { return ackFailed_; }

  // From `deadline` on (the clock's monotonic time) no further try is made,
  // and no try waits for its reply beyond it. Unset, every try is made with
  // the library's default time-out.
  void SetDeadline(std::optional<Clock::steady_point> deadline) { deadline_ = deadline; }
  bool PastDeadline();

  const std::string& Path() const { return path_; }

  // Current chunk size; the camera helper reads it before every block.
  std::int32_t packetSize = 64;

 private:
  sdbus::IProxy& Proxy();
  template <class... Args>
  sdbus::MethodReply SendOnce(Camd::Method m, const Args&... args);
  template <class... Args>
  sdbus::MethodReply CallOnce(Camd::Method m, const Args&... args);
  template <class T, class... Args>
  std::optional<T> CallWithTries(Camd::Method m, const Args&... args);
  void SendWithTries(Camd::Method m);

  std::string service_;
  std::string path_;
  std::string interface_;
  Clock& clock_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
  std::optional<Clock::steady_point> deadline_;
  bool ackFailed_ = false;
};

}  // namespace Updater::Helpers
