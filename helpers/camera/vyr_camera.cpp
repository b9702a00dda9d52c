#include "helpers/camera/vyr_camera.hpp"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <vector>

#include "common/crc16.hpp"
#include "common/image_file.hpp"
#include "common/log.hpp"
#include "common/record.hpp"
#include "common/stall_limit.hpp"
#include "dbus/camd_methods.hpp"
#include "helpers/camera/camera_lock.hpp"
#include "helpers/camera/kept_texts.hpp"
#include "vyrcam/libvyrcam.hpp"

namespace Updater::Helpers {

namespace {

constexpr int kUpdateInfoPolls = 102;
constexpr auto kUpdateInfoPause = std::chrono::milliseconds(100);
// A unit's start time-out is stretched by this much past the stall limit
// with every progress line, so that only a transfer the limit would end runs into it.
constexpr auto kProgressMargin = std::chrono::seconds(30);

// The size as the camera protocol carries it: the low 32 bits.
std::int32_t ProtocolSize(std::uint64_t bytes) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(bytes));
}

// The size of the open `image` as camd is told it; nullopt, after a red line
// and with the image closed, for one camd cannot take.
std::optional<std::int32_t> AnnouncedSize(Image::File& image, const std::string& path) {
  const auto bytes = static_cast<std::uint64_t>(Image::Length(image));
  if (bytes > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
    Log::Error("Firmware image [", path, "] is ", std::to_string(bytes),
               " bytes, more than camd can address; not updating");
  } else if (bytes == 0) {
    // As for the board: camd would hold the whole image at once, with nothing ever sent.
    Log::Error("Firmware image [", path, "] is empty; not updating");
  } else {
    return ProtocolSize(bytes);
  }
  image.close();
  return std::nullopt;
}

}  // namespace

VyrCamera::VyrCamera(std::string cameraIndex, Clock& clock)
    : cameraIndex_(std::move(cameraIndex)),
      clock_(clock),
      stall_(StallLimitFromEnvironment(), clock),
      progress_("camera " + cameraIndex_, clock,
                stall_.Limit().value_or(kDefaultStallLimit) + kProgressMargin),
      progressLine_(Console::StandardProgress("camera " + cameraIndex_, clock)) {
  Dbus::Initialize();
  camdProxy = CamdDbusIface::create(Camd::kService, Camd::ObjectPath(cameraIndex_), Camd::kInterface, clock_);
}

VyrCamera::~VyrCamera() {
  firmwarePath.clear();
  camdProxy.reset();
  if (lockFd_ >= 0) close(lockFd_);
}

bool VyrCamera::TakeLock(std::optional<Clock::steady_point> deadline) {
  if (lockFd_ < 0) lockFd_ = TakeCameraLock(cameraIndex_, clock_, deadline);
  return lockFd_ >= 0;
}

int VyrCamera::CheckForUpdate() {
  // Waiting for another run of this camera counts against the limit too: a
  // lock held by a run that never ends must not hold this one for ever.
  std::optional<Clock::steady_point> deadline;
  if (stall_.Limit()) deadline = clock_.Monotonic() + *stall_.Limit();
  if (!TakeLock(deadline)) return false;
  camdProxy->SetDeadline(deadline);
  const int update = CheckWithCamd();
  camdProxy->SetDeadline(std::nullopt);
  stall_.Progressed();
  return update;
}

int VyrCamera::CheckWithCamd() {
  camdProxy->RequestUpdateInfo();
  bool infoReceived = false;
  for (int poll = 0; poll < kUpdateInfoPolls && !infoReceived && !camdProxy->PastDeadline(); ++poll) {
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
  const auto cameraVersion = camdProxy->ReadCameraFirmwareVersion();
  std::cout << "File version: " << fileVersion << std::endl;
  const int loggedVersion = camdProxy->GetCameraFirmwareVersion();
  std::cout << "Cam version: " << loggedVersion << std::endl;
  // Its failure value -1 would look older than any package and flash it,
  // perhaps over a newer image.
  if (!cameraVersion) {
    Log::Error("The camera's firmware version could not be read, so the camera is not updated");
    return false;
  }
  if (fileVersion <= *cameraVersion) return false;
  return AnnounceImage();
}

bool VyrCamera::AnnounceImage() {
  // Unopenable image: report an update anyway and let the block reads stop it.
  const Image::Opened opened = image_.Open(firmwarePath);
  if (opened == Image::Opened::Refused) return false;
  if (opened == Image::Opened::Missing) return true;
  const auto announced = AnnouncedSize(image_, firmwarePath);
  if (!announced) return false;
  const std::int32_t size = *announced;

  Crc16CcittFalse crc;
  if (!Image::ReadInPieces(image_, size,
                           [&](const char* data, std::size_t n) { crc.process_bytes(data, n); }))
    return false;
  const unsigned checksum = crc.checksum();
  if (auto* recorder = Record::Active())
    recorder->Package(firmwarePath.substr(firmwarePath.rfind('/') + 1), size, checksum);

  // Standard output stays hexadecimal from here on; later lines rely on it.
  std::cout << Kept::kChecksumNoBlank << std::hex << checksum << std::endl;
  // The size twice is what the line has always shown; no chunk count is worked out.
  std::cout << "This file [" << size << "] contains [" << size << "] chunks of [" << camdProxy->packetSize
            << "]" << std::endl;
  // Without the announcement camd would file the chunks under whatever it was
  // told before, perhaps another image's version and checksum.
  if (!camdProxy->SendUpdateAvailable(fileVersion, static_cast<int>(checksum), size)) {
    Log::Error("camd did not take the announcement of version ", std::to_string(fileVersion), " ([",
               std::to_string(size), "] bytes, checksum ", std::to_string(checksum), "); not updating");
    image_.close();
    return false;
  }
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
  if (stall_.GivenUp(block)) return false;
  blockSize = camdProxy->packetSize;
  if (blockSize < 1) {
    std::cerr << "Invalid chunk size from camd: [" << blockSize << "], "
              << "can't update camera firmware." << std::endl;
    return false;
  }

  // Read through the descriptor the update check opened: a package manager
  // replacing the file meanwhile must not mix two images in the camera. The
  // length is the one camd was told, which that descriptor's file still has.
  if (!image_.is_open()) return false;
  const auto size = static_cast<std::int32_t>(imageSize_);

  if (Console::Detail())
    std::cout << "This block: [" << block << "], blockSize: [" << blockSize << "]" << std::endl;
  auto chunk = Image::ReadChunk(image_, size, block, blockSize);
  if (!chunk) return false;
  sentBlock_ = block;
  sentBytes_ = static_cast<std::int64_t>(chunk->size());
  // A shortened chunk still goes out: that is how the last one is sent.
  return camdProxy->SendFirmwareBlock(block, *chunk);
}

int VyrCamera::WaitForAck(unsigned /*block*/) {
  const int status = camdProxy->WaitForAck();
  if (status != kAcked && status != kLastBlockAcked) {
    // A loss has had its ten polls; an error answer comes at once, and a camd
    // that only errs would otherwise be asked again without a pause.
    if (camdProxy->AckFailed()) stall_.Idle();
    return status;
  }
  // 0 and 3 both mean camd kept the chunk just sent. An empty chunk moves
  // nothing forward, however often it is acknowledged.
  if (sentBytes_ > 0 && sentBlock_ + sentBytes_ > ackedEnd_) {
    ackedEnd_ = sentBlock_ + sentBytes_;
    stall_.Progressed();
  } else if (status == kAcked) {
    stall_.Idle();
  }
  progress_.Report(ackedEnd_, imageSize_);
  progressLine_.Report(ackedEnd_, imageSize_);
  return status;
}

int VyrCamera::GetNextFirmwareBlock() { return camdProxy->GetNextFirmwareBlock(); }

}  // namespace Updater::Helpers
