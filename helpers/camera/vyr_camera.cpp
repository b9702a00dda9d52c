#include "helpers/camera/vyr_camera.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <iostream>
#include <vector>

#include "common/crc16.hpp"
#include "common/image_file.hpp"
#include "dbus/camd_methods.hpp"
#include "vyrcam/libvyrcam.hpp"

namespace Updater::Helpers {

namespace {

constexpr int kUpdateInfoPolls = 102;
constexpr auto kUpdateInfoPause = std::chrono::milliseconds(100);
// Progress: each line gives a systemd unit's start time-out this long again,
// more than the update check plus the wait for a stalled camera, so that only
// a transfer that has stopped moving runs into it.
constexpr auto kProgressKeepAlive = std::chrono::seconds(330);

// The size as the camera protocol carries it: the low 32 bits of the end
// position. Leaves the stream at the start.
std::int32_t FileSize(std::ifstream& file) {
  file.seekg(0, std::ios::end);
  const auto end = static_cast<std::uint64_t>(static_cast<std::streamoff>(file.tellg()));
  file.seekg(0, std::ios::beg);
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(end));
}

}  // namespace

VyrCamera::VyrCamera(std::string cameraIndex, Clock& clock)
    : clock_(clock), progress_("camera " + cameraIndex, clock, kProgressKeepAlive) {
  Dbus::Initialize();
  dispatcher = Dbus::Dispatcher::Create();
  connection = dispatcher->CreateSessionConnection();
  camdProxy = CamdDbusIface::create(connection, Camd::kService, Camd::ObjectPath(cameraIndex),
                                    Camd::kInterface, clock_);
}

VyrCamera::~VyrCamera() {
  connection.reset();
  dispatcher.reset();
  firmwarePath.clear();
  camdProxy.reset();
}

int VyrCamera::CheckForUpdate() {
  camdProxy->RequestUpdateInfo();
  bool infoReceived = false;
  for (int poll = 0; poll < kUpdateInfoPolls && !infoReceived; ++poll) {
    infoReceived = camdProxy->UpdateInfoReceived();
    if (!infoReceived) clock_.Sleep(kUpdateInfoPause);
  }
  if (!infoReceived) {
    std::cerr << "Error asking camd for update info status, not updating" << std::endl;
    return false;
  }

  const auto package = VYRCam::libVyrCam::FilesystemFirmwarePackage(camdProxy->GetFlashRegion());
  fileVersion = package.first;
  firmwarePath = package.second;

  // Asked twice on purpose: the comparison uses the first answer, the log the second.
  const int cameraVersion = camdProxy->GetCameraFirmwareVersion();
  std::cout << "File version: " << fileVersion << std::endl;
  const int loggedVersion = camdProxy->GetCameraFirmwareVersion();
  std::cout << "Cam version: " << loggedVersion << std::endl;
  if (fileVersion <= cameraVersion) return false;

  // Unopenable image: report an update anyway and let the block reads stop it.
  std::ifstream file(firmwarePath, std::ios::binary);
  if (!file) return true;
  const std::int32_t size = FileSize(file);

  Crc16CcittFalse crc;
  if (!Image::ReadInPieces(file, size, [&](const char* data, std::size_t n) { crc.process_bytes(data, n); }))
    return false;
  const unsigned checksum = crc.checksum();

  // Standard output stays hexadecimal from here on; later lines rely on it.
  std::cout << "Checksum:" << std::hex << checksum << std::endl;
  // The size twice is what the line has always shown; no chunk count is worked out.
  std::cout << "This file [" << size << "] contains [" << size << "] chunks of ["
            << camdProxy->packetSize << "]" << std::endl;
  camdProxy->SendUpdateAvailable(fileVersion, static_cast<int>(checksum), size);
  imageSize_ = size;  // progress
  return true;
}

bool VyrCamera::HaveUpdateFile() {
  if (!firmwarePath.empty()) return true;
  std::cout << "No update file; can't update!" << std::endl;
  return false;
}

int VyrCamera::GetFirstUpdateBlock() { return camdProxy->GetFirstUpdateBlock(); }

int VyrCamera::SendFirmwareBlock(int block) {
  blockSize = camdProxy->packetSize;
  if (blockSize < 1) {
    std::cerr << "Invalid chunk size from camd: [" << blockSize << "], "
              << "can't update camera firmware." << std::endl;
    return false;
  }

  // Reopened for every chunk: nothing of the image is kept between blocks.
  std::ifstream file(firmwarePath, std::ios::binary);
  if (!file) return false;
  const std::int32_t size = FileSize(file);

  std::cout << "This block: [" << block << "], blockSize: [" << blockSize << "]" << std::endl;
  auto chunk = Image::ReadChunk(file, size, block, blockSize);
  if (!chunk) return false;
  sentEnd_ = block + static_cast<std::int64_t>(chunk->size());  // progress
  // A shortened chunk still goes out: that is how the last one is sent.
  return camdProxy->SendFirmwareBlock(block, std::move(*chunk));
}

int VyrCamera::WaitForAck(unsigned /*block*/) {
  const int status = camdProxy->WaitForAck();
  // Progress: 0 and 3 both mean camd kept the chunk just sent.
  if (status == 0 || status == 3) progress_.Report(ackedEnd_ = std::max(ackedEnd_, sentEnd_), imageSize_);
  return status;
}

int VyrCamera::GetNextFirmwareBlock() { return camdProxy->GetNextFirmwareBlock(); }

}  // namespace Updater::Helpers
