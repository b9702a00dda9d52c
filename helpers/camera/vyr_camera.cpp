#include "helpers/camera/vyr_camera.hpp"

#include <array>
#include <chrono>
#include <fstream>
#include <iostream>
#include <vector>

#include "common/crc16.hpp"
#include "dbus/camd_methods.hpp"
#include "vyrcam/libvyrcam.hpp"

namespace Updater::Helpers {

namespace {

constexpr int kUpdateInfoPolls = 102;
constexpr auto kUpdateInfoPause = std::chrono::milliseconds(100);
// The image is checksummed piece by piece so that memory stays flat however
// large the image is.
constexpr std::size_t kChecksumPiece = 64 * 1024;

// The size as the camera protocol carries it: the low 32 bits of the end
// position. Leaves the stream at the start.
std::int32_t FileSize(std::ifstream& file) {
  file.seekg(0, std::ios::end);
  const auto end = static_cast<std::uint64_t>(static_cast<std::streamoff>(file.tellg()));
  file.seekg(0, std::ios::beg);
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(end));
}

void ReportShortRead(std::int64_t wanted, std::int64_t got) {
  std::cerr << "Couldn't read full [" << wanted << "] bytes into chunk, "
            << "only read [" << got << "] bytes." << std::endl;
}

}  // namespace

VyrCamera::VyrCamera(std::string cameraIndex, Clock& clock) : clock_(clock) {
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
  std::vector<char> piece(kChecksumPiece);
  std::int64_t total = 0;
  while (total < size) {
    const auto want = static_cast<std::streamsize>(
        std::min<std::int64_t>(static_cast<std::int64_t>(piece.size()), size - total));
    file.read(piece.data(), want);
    const std::streamsize got = file.gcount();
    crc.process_bytes(piece.data(), static_cast<std::size_t>(got));
    total += got;
    if (got < want) break;
  }
  if (total < size) {
    ReportShortRead(size, total);
    return false;
  }
  const unsigned checksum = crc.checksum();

  // Standard output stays hexadecimal from here on; later lines rely on it.
  std::cout << "Checksum:" << std::hex << checksum << std::endl;
  // The size twice is what the line has always shown; no chunk count is worked out.
  std::cout << "This file [" << size << "] contains [" << size << "] chunks of ["
            << camdProxy->packetSize << "]" << std::endl;
  camdProxy->SendUpdateAvailable(fileVersion, static_cast<int>(checksum), size);
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
  if (size < block) {
    std::cerr << "Calculated chunk start of [" << block << "] which is "
              << "larger than the firmware file... aborting update." << std::endl;
    return false;
  }
  if (static_cast<std::int64_t>(block) + blockSize > size) {
    std::cerr << "Chunk #[" << block << "] extends past file (length [" << size
              << "]), this should be the last chunk!" << std::endl;
  }

  std::vector<unsigned char> chunk(static_cast<std::size_t>(blockSize), 0);
  file.seekg(block, std::ios::beg);
  file.read(reinterpret_cast<char*>(chunk.data()), blockSize);
  const std::streamsize got = file.gcount();
  if (got < blockSize) {
    ReportShortRead(blockSize, got);
    // The shortened chunk still goes out: that is how the last one is sent.
    chunk.resize(static_cast<std::size_t>(got));
  }
  return camdProxy->SendFirmwareBlock(block, std::move(chunk));
}

int VyrCamera::WaitForAck(unsigned /*block*/) { return camdProxy->WaitForAck(); }

int VyrCamera::GetNextFirmwareBlock() { return camdProxy->GetNextFirmwareBlock(); }

}  // namespace Updater::Helpers
