// camd_floor: the least a client can do to update a camera the way
// firmware-updater does. Same camd calls in the same order, same chunk sizes,
// same designed pauses and poll limits, and nothing else: no console output,
// no retries, the image read into memory once, one thread, no event loop.
// scripts/bench-camera times it against `firmware-updater camera <index>`, so
// whatever the updater costs beyond this is its own overhead.
//
// Usage: camd_floor IMAGE VERSION [INDEX]   (INDEX defaults to 0)
// Exit status: 0 once camd reports the last chunk acknowledged (or when no
// update is needed, or camd rests on another status), 1 when the update
// fails, 2 for a bad command line. A D-Bus error is not retried: the run
// ends with status 1, since the benchmark counts only clean runs.
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "common/crc16.hpp"
#include "dbus/camd_methods.hpp"

namespace {

using Updater::Camd::Method;
using namespace std::chrono_literals;

class Camd {
 public:
  explicit Camd(const std::string& index)
      : connection_(sdbus::createSessionBusConnection()),
        proxy_(sdbus::createProxy(*connection_, Updater::Camd::kService, Updater::Camd::ObjectPath(index))) {}

  template <class T, class... Args>
  T Call(Method m, const Args&... args) {
    auto reply = proxy_->callMethod(Make(m, args...));
    T value{};
    reply >> value;
    return value;
  }

  void Send(Method m) {
    auto call = Make(m);
    call.dontExpectReply();
    proxy_->callMethod(call);
  }

 private:
  template <class... Args>
  sdbus::MethodCall Make(Method m, const Args&... args) {
    auto call = proxy_->createMethodCall(Updater::Camd::kInterface, Updater::Camd::Info(m).name);
    ((call << args), ...);
    return call;
  }

  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

int Update(Camd& camd, const std::vector<std::uint8_t>& image, std::int32_t fileVersion) {
  camd.Send(Method::RequestUpdateInfo);
  bool infoReceived = false;
  for (int poll = 0; poll < 102 && !infoReceived; ++poll) {
    infoReceived = camd.Call<bool>(Method::UpdateInfoReceived);
    if (!infoReceived) Updater::NanoSleep(100ms);
  }
  if (!infoReceived) return 0;

  camd.Call<std::int32_t>(Method::GetFlashRegion);
  const auto cameraVersion = camd.Call<std::int32_t>(Method::GetCameraFirmwareVersion);
  camd.Call<std::int32_t>(Method::GetCameraFirmwareVersion);
  if (fileVersion <= cameraVersion) return 0;

  Updater::Crc16CcittFalse crc;
  crc.process_bytes(image.data(), image.size());
  const auto size = static_cast<std::int32_t>(image.size());
  camd.Call<bool>(Method::SendUpdateAvailable, fileVersion, std::int32_t{crc.checksum()}, size);

  std::int32_t block = -1;
  for (int poll = 0; poll < 10; ++poll) {
    block = camd.Call<std::int32_t>(Method::GetFirstUpdateBlock);
    if (block >= 0) break;
    Updater::NanoSleep(200ms);
  }

  std::int32_t packetSize = 64;
  while (block >= 0) {
    if (block > size) return 1;
    const auto end = std::min<std::int64_t>(std::int64_t{block} + packetSize, size);
    const std::vector<std::uint8_t> chunk(image.begin() + block, image.begin() + end);
    if (!camd.Call<bool>(Method::SendFirmwareBlock, block, chunk)) return 1;

    std::int32_t status = 1;
    for (int poll = 0; poll < 10; ++poll) {
      status = camd.Call<std::int32_t>(Method::WaitForAck);
      if (status == 0) break;
      Updater::NanoSleep(200ms);
    }
    if (status == 3) return 0;
    if (status == 1) {
      camd.Send(Method::DequeuePacket);
      if (packetSize > 1) packetSize /= 2;
      continue;  // the same block again
    }
    if (status != 0) return 0;  // camd's own code: the updater rests there too
    if (packetSize <= 63) packetSize *= 2;
    block = camd.Call<std::int32_t>(Method::GetNextFirmwareBlock);
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) return 2;
  std::ifstream file(argv[1], std::ios::binary);
  if (!file) return 2;
  const std::vector<std::uint8_t> image{std::istreambuf_iterator<char>(file),
                                        std::istreambuf_iterator<char>()};
  try {
    Camd camd(argc == 4 ? argv[3] : "0");
    return Update(camd, image, static_cast<std::int32_t>(std::strtol(argv[2], nullptr, 10)));
  } catch (const sdbus::Error&) {
    return 1;
  }
}
