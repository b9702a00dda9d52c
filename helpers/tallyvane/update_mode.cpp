#include "helpers/tallyvane/update_mode.hpp"

#include <iostream>

#include "common/console.hpp"
#include "common/log.hpp"
#include "common/record.hpp"
#include "helpers/tallyvane/board_reports.hpp"
#include "helpers/tallyvane/kept_texts.hpp"
#include "helpers/tallyvane/send_path.hpp"
#include "lc/qel_arm_control.hpp"
#include "sm/ack_status.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

using Updater::Log::Colour;

namespace {
std::uint16_t AddBytes(std::uint16_t sum, const char* data, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i)
    sum = static_cast<std::uint16_t>(sum + static_cast<unsigned char>(data[i]));
  return sum;
}

// The summary's decision: both versions, and what they mean.
std::string DecisionText(int running, int package, const std::string& path) {
  if (path.empty()) return "Decision: no firmware package for the board; no update";
  return "Decision: board version " + std::to_string(running) + ", package version " +
         std::to_string(package) + " [" + path + "]" +
         (package > running ? "; update needed" : ", not newer; no update");
}

// The 16-bit byte sum subtracted from 256, with its console lines.
std::uint16_t ReportChecksum(std::size_t length, std::uint16_t sum) {
  Log::Debug(Colour::Green, "File length of [", length, "]");
  if (Console::Detail())
    Log::Debug(Colour::Green, "[", Kept::kChecksumTagFunction, "::", Kept::kChecksumTagLine, "]  ");
  return static_cast<std::uint16_t>(256 - sum);
}
}  // namespace

UpdateMode::UpdateMode(SendPath& send, BoardReports& board, Clock& clock)
    : send_(send),
      board_(board),
      clock_(clock),
      progressLine_(Console::StandardProgress("tallyvane", clock)) {}

bool UpdateMode::HaveUpdateFile() {
  if (!firmwarePath.empty()) return true;
  std::cout << "No update file; can't update!" << '\n';
  return false;
}

int UpdateMode::GetNextFirmwareBlock() { return board_.nextBlock; }

bool UpdateMode::ReadPackage(Image::File& image) {
  const auto package = lc::QelArmControl::FilesystemFirmwarePackage(0);
  packageVersion = package.first;
  firmwarePath = package.second;
  const int running = lc::QelArmControl::TallyvaneFirmwareVer();
  if (auto* recorder = Record::Active()) recorder->Exchange(Json::Object().Add("board_version", running));
  if (!Console::Detail()) Console::Milestone(DecisionText(running, packageVersion, firmwarePath));
  if (packageVersion <= running) return false;

  if (image.Open(firmwarePath) != Image::Opened::Yes) return false;
  const std::streamoff length = Image::Length(image);

  // Summed piece by piece: the same result as summing the whole image at
  // once, without holding it.
  std::uint16_t sum = 0;
  if (!Image::ReadInPieces(image, length,
                           [&](const char* data, std::size_t n) { sum = AddBytes(sum, data, n); }))
    return false;

  checksum_ = ReportChecksum(static_cast<std::size_t>(length), sum);
  if (auto* recorder = Record::Active())
    recorder->Package(firmwarePath.substr(firmwarePath.rfind('/') + 1), length, checksum_);
  imageSize_ = length;
  // The checksum is shown in hex and the stream is left that way: every
  // later number on standard output is hex too.
  std::cout << std::hex;
  Log::Debug(Colour::Green, "Checksum: [", checksum_, "]");
  std::cout << "This file [" << firmwarePath << "] contains [" << length << "] chunks of [" << packetSize
            << "]" << '\n';
  std::cout << "Sending version [" << packageVersion << "] with hash [" << checksum_ << "] in [" << length
            << "] chunks" << '\n';
  return true;
}

void UpdateMode::Announce() {
  VYRCam::UpdateAvailable announce(static_cast<std::uint16_t>(packageVersion), checksum_,
                                   static_cast<std::uint32_t>(imageSize_));
  send_.SendPacket(announce);  // queued behind an unacknowledged packet, it leaves when the wire is free
}

bool UpdateMode::SendBlock(int position, const std::vector<std::uint8_t>& data) {
  VYRCam::FirmwareBlock block(position, data);
  if (Console::Detail())
    std::cout << "** Sending bytes from [" << block.BlockNum() << "] to ["
              << block.BlockNum() + data.size() - 1 << "]" << '\n';
  board_.blockReportReceived = 0;
  if (Console::Detail()) std::cout << Kept::kSendingBytesLiteral << data.size() - 1 << "]" << '\n';
  return SendCounted(block, position, data.size());
}

int UpdateMode::AfterAckWait(int status) {
  if (Console::Detail()) std::cout << "Tallyvane ACK status: " << status << '\n';

  if (status == kAcked) {
    if (packetSize < kMaxPacketSize) {
      packetSize *= 2;
      if (Console::Detail()) std::cout << "Bumping packet size to [" << packetSize << "]" << '\n';
    }
    return kAcked;
  }
  // Start over small: whatever was queued belongs to the chunk being resent.
  send_.ClearPending();
  packetSize = 1;
  if (Console::Detail()) std::cout << "********************* Dropping packet size to [" << 1 << "]" << '\n';
  std::cerr << "Caught ACK timeout! Still waiting..." << '\n';
  return kResend;
}

}  // namespace Updater::Helpers
