#include "board.hpp"

#include <cstdio>
#include <fstream>
#include <memory>

#include "lc/downlink_frame.hpp"

namespace tallyvane_sim {

namespace {

// How much later a duplicated report follows its original.
constexpr unsigned kDuplicateDelayMs = 20;

std::string Hex4(unsigned value) {
  char text[8];
  (void)std::snprintf(text, sizeof text, "%04x", value & 0xFFFFu);  // four digits always fit
  return text;
}

std::string ReportText(int lastReceived, std::uint32_t next) {
  return "ReceivedFirmwareBlock last=" + std::to_string(lastReceived) +
         " next=" + (next == 0xFFFFFFFFu ? std::string("0xFFFFFFFF") : std::to_string(next));
}

const char* TypeName(std::uint8_t type) {
  switch (type) {
    case VYRCam::kRequestUpdateInfo:
      return "RequestUpdateInfo";
    case VYRCam::kUpdateAvailable:
      return "UpdateAvailable";
    case VYRCam::kFirmwareBlock:
      return "FirmwareBlock";
    case VYRCam::kApplyUpdate:
      return "ApplyUpdate";
    case VYRCam::kClearPendingUpdate:
      return "ClearPendingUpdate";
    case VYRCam::kDatalinkPacketAck:
      return "DatalinkPacketAck";
    case VYRCam::kUpdateInfo:
      return "UpdateInfo";
    case VYRCam::kReceivedFirmwareBlock:
      return "ReceivedFirmwareBlock";
    case VYRCam::kUpdateComplete:
      return "UpdateComplete";
    case VYRCam::kUpdateError:
      return "UpdateError";
    default:
      return "Unknown";
  }
}

std::unique_ptr<VYRCam::Packet> HostPacketFor(std::uint8_t type) {
  switch (type) {
    case VYRCam::kRequestUpdateInfo:
      return std::make_unique<VYRCam::RequestUpdateInfo>();
    case VYRCam::kUpdateAvailable:
      return std::make_unique<VYRCam::UpdateAvailable>();
    case VYRCam::kFirmwareBlock:
      return std::make_unique<VYRCam::FirmwareBlock>();
    case VYRCam::kApplyUpdate:
      return std::make_unique<VYRCam::ApplyUpdate>();
    case VYRCam::kClearPendingUpdate:
      return std::make_unique<VYRCam::ClearPendingUpdate>();
    default:
      return nullptr;
  }
}

}  // namespace

std::uint16_t ByteSumChecksum(const std::vector<std::uint8_t>& bytes) {
  std::uint16_t sum = 0;
  for (std::uint8_t b : bytes) sum = static_cast<std::uint16_t>(sum + b);
  return static_cast<std::uint16_t>(256u - sum);
}

Board::Board(const Options& options, Send send, Say say)
    : options_(options), send_(std::move(send)), say_(std::move(say)), dropAckSeq_(options.dropAckSeq) {}

void Board::Emit(const VYRCam::Packet& packet, std::chrono::milliseconds delay, const std::string& what) {
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(packet.Length()));
  packet.Pack(bytes.data());
  send_(std::move(bytes), delay, what);
}

void Board::OnFrame(int channel, const std::vector<std::uint8_t>& payload) {
  if (muted_) {
    say_("MUTE " + std::to_string(payload.size()) + " bytes on channel " + std::to_string(channel));
    return;
  }
  if (channel != lc::kPacketChannel) {
    say_("WARN channel " + std::to_string(channel) + " ignored, " + std::to_string(payload.size()) +
         " bytes");
    return;
  }
  const std::uint8_t type = payload.size() > 1 ? payload[1] : 0;
  std::unique_ptr<VYRCam::Packet> packet = HostPacketFor(type);
  if (!packet) {
    say_("WARN unknown packet type " + std::to_string(type));
    return;
  }
  const int code = packet->Unpack(reinterpret_cast<const char*>(payload.data()), payload.size());
  if (code != VYRCam::kUnpackOk) {
    say_("WARN bad " + std::string(TypeName(type)) + " code=" + std::to_string(code));
    return;
  }
  if (static_cast<std::size_t>(packet->Length()) != payload.size()) {
    say_("WARN " + std::to_string(payload.size() - static_cast<std::size_t>(packet->Length())) +
         " bytes after the packet in its frame");
  }

  const unsigned seq = packet->SequenceNumber();
  std::string detail;
  if (const auto* ua = dynamic_cast<const VYRCam::UpdateAvailable*>(packet.get())) {
    detail = " version=" + std::to_string(ua->Version()) + " hash=" + Hex4(ua->Hash()) +
             " length=" + std::to_string(ua->Chunks());
  } else if (const auto* fb = dynamic_cast<const VYRCam::FirmwareBlock*>(packet.get())) {
    detail = " position=" + std::to_string(fb->BlockNum()) + " bytes=" + std::to_string(fb->Data().size());
  }
  say_("RX " + std::string(TypeName(type)) + " seq=" + std::to_string(seq) + detail);

  if (packet->NeedsAck()) Acknowledge(seq);

  switch (type) {
    case VYRCam::kRequestUpdateInfo: {
      const VYRCam::UpdateInfo info(options_.partialVersion, options_.downloadedBlocks, options_.blockSize,
                                    options_.flashRegion);
      Emit(info, std::chrono::milliseconds(0),
           "UpdateInfo partial=" + std::to_string(options_.partialVersion) +
               " blocks=" + std::to_string(options_.downloadedBlocks) + " blocksize=" +
               std::to_string(options_.blockSize) + " region=" + std::to_string(options_.flashRegion));
      break;
    }
    case VYRCam::kUpdateAvailable:
      OnUpdateAvailable(static_cast<const VYRCam::UpdateAvailable&>(*packet));
      break;
    case VYRCam::kFirmwareBlock:
      OnFirmwareBlock(static_cast<const VYRCam::FirmwareBlock&>(*packet));
      break;
    case VYRCam::kApplyUpdate:
      OnApplyUpdate();
      break;
    case VYRCam::kClearPendingUpdate:
      transfer_ = Transfer{};
      break;
    default:
      break;
  }
}

void Board::Acknowledge(unsigned sequence) {
  ++acks_;
  const auto listed = dropAckSeq_.find(sequence);
  if (listed != dropAckSeq_.end() || (options_.dropAckEvery != 0 && acks_ % options_.dropAckEvery == 0)) {
    if (listed != dropAckSeq_.end()) dropAckSeq_.erase(listed);
    say_("DROP DatalinkPacketAck seq=" + std::to_string(sequence));
    return;
  }
  Emit(VYRCam::DatalinkPacketAck(static_cast<std::uint8_t>(sequence), true), std::chrono::milliseconds(0),
       "DatalinkPacketAck seq=" + std::to_string(sequence));
}

void Board::Report(int lastReceived, std::uint32_t next) {
  ++reports_;
  const std::string what = ReportText(lastReceived, next);
  const auto previous = previousReport_;
  previousReport_ = std::make_pair(lastReceived, next);
  if (options_.dropReports.count(reports_) != 0 ||
      (options_.dropReportEvery != 0 && reports_ % options_.dropReportEvery == 0)) {
    say_("DROP " + what);
    return;
  }
  Emit(VYRCam::ReceivedFirmwareBlock(lastReceived, next), std::chrono::milliseconds(options_.reportDelayMs),
       what);
  if (options_.duplicateReports.count(reports_) != 0) {
    Emit(VYRCam::ReceivedFirmwareBlock(lastReceived, next),
         std::chrono::milliseconds(options_.reportDelayMs + kDuplicateDelayMs), "again " + what);
  }
  if (previous && options_.staleAfterReports != 0 && reports_ >= options_.staleAfterReports) {
    Emit(VYRCam::ReceivedFirmwareBlock(previous->first, previous->second),
         std::chrono::milliseconds(options_.reportDelayMs),
         "stale " + ReportText(previous->first, previous->second));
  }
}

void Board::OnUpdateAvailable(const VYRCam::UpdateAvailable& packet) {
  if (transfer_.active && !transfer_.verdictGiven) {
    say_("WARN new announcement replaces a transfer holding " + std::to_string(transfer_.heldCount) +
         " bytes");
  }
  transfer_ = Transfer{};
  if (packet.Chunks() > options_.maxImageBytes) {
    say_("WARN announced length " + std::to_string(packet.Chunks()) + " exceeds " +
         std::to_string(options_.maxImageBytes));
    Emit(VYRCam::UpdateError(), std::chrono::milliseconds(0), "UpdateError");
    return;
  }
  transfer_.active = true;
  transfer_.version = packet.Version();
  transfer_.hash = packet.Hash();
  transfer_.image.assign(packet.Chunks(), 0);
  transfer_.held.assign(packet.Chunks(), false);

  const long long first = FirstMissing(options_.start);
  if (first < 0) {
    Complete(-1);  // nothing to fetch: an empty image
  } else {
    Report(-1, static_cast<std::uint32_t>(first));
  }
}

void Board::OnFirmwareBlock(const VYRCam::FirmwareBlock& packet) {
  if (!transfer_.active) {
    say_("WARN chunk at " + std::to_string(packet.BlockNum()) + " without an announced update");
    return;
  }
  const long long position = packet.BlockNum();
  const auto& data = packet.Data();
  const long long length = static_cast<long long>(transfer_.image.size());
  for (std::size_t i = 0; i < data.size(); ++i) {
    const long long at = position + static_cast<long long>(i);
    if (at < 0 || at >= length) {
      ++transfer_.overrun;
      continue;
    }
    const auto index = static_cast<std::size_t>(at);
    transfer_.image[index] = data[i];
    if (!transfer_.held[index]) {
      transfer_.held[index] = true;
      ++transfer_.heldCount;
    }
  }
  ++chunks_;
  if (Interrupted()) return;

  if (options_.muteAfterChunks != 0 && chunks_ >= options_.muteAfterChunks) muted_ = true;

  const long long end = position + static_cast<long long>(data.size());
  const int lastReceived = static_cast<int>(end - 1);
  const bool stuck = options_.stuckAfterChunks != 0 && chunks_ >= options_.stuckAfterChunks && position >= 0;
  const long long next = stuck ? position : FirstMissing(end < 0 ? 0 : static_cast<std::uint64_t>(end));
  if (next < 0) {
    Complete(lastReceived);
  } else {
    Report(lastReceived, static_cast<std::uint32_t>(next));
    if (!completedEarly_ && options_.completeAfterChunks != 0 && chunks_ >= options_.completeAfterChunks) {
      completedEarly_ = true;
      Emit(VYRCam::UpdateComplete(), std::chrono::milliseconds(options_.reportDelayMs),
           "UpdateComplete early");
    }
  }
}

bool Board::Interrupted() {
  if (!errorInjected_ && options_.errorAfterChunks != 0 && chunks_ >= options_.errorAfterChunks) {
    errorInjected_ = true;
    transfer_ = Transfer{};
    Emit(VYRCam::UpdateError(), std::chrono::milliseconds(0), "UpdateError");
    return true;
  }
  if (!forgotten_ && options_.forgetAfterChunks != 0 && chunks_ >= options_.forgetAfterChunks) {
    forgotten_ = true;
    say_("FORGET the update after chunk " + std::to_string(chunks_) + ", holding " +
         std::to_string(transfer_.heldCount) + " bytes");
    transfer_ = Transfer{};
    return true;
  }
  return false;
}

long long Board::FirstMissing(std::uint64_t from) const {
  const std::size_t length = transfer_.held.size();
  if (transfer_.heldCount == length) return -1;
  const std::size_t begin = from < length ? static_cast<std::size_t>(from) : 0;
  for (std::size_t i = begin; i < length; ++i) {
    if (!transfer_.held[i]) return static_cast<long long>(i);
  }
  for (std::size_t i = 0; i < begin; ++i) {
    if (!transfer_.held[i]) return static_cast<long long>(i);
  }
  return -1;
}

void Board::Complete(int lastReceived) {
  Report(lastReceived, 0xFFFFFFFFu);
  // Resent chunks after the end get the same answer again, but the image is
  // judged once.
  Emit(VYRCam::UpdateComplete(), std::chrono::milliseconds(options_.reportDelayMs), "UpdateComplete");
  if (!transfer_.verdictGiven) GiveVerdict(true);
}

void Board::GiveVerdict(bool complete) {
  transfer_.verdictGiven = true;
  anyVerdict_ = true;
  lastVerdictOk_ = false;
  const std::string bytes = std::to_string(transfer_.image.size());
  if (!options_.out.empty()) {
    std::ofstream out(options_.out, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(transfer_.image.data()),
              static_cast<std::streamsize>(transfer_.image.size()));
    if (!out) say_("WARN could not write " + options_.out);
  }
  if (!complete) {
    say_("VERDICT incomplete bytes=" + std::to_string(transfer_.heldCount) + " expected=" + bytes);
    return;
  }
  if (transfer_.overrun != 0) {
    say_("VERDICT bad-length bytes=" + std::to_string(transfer_.image.size() + transfer_.overrun) +
         " expected=" + bytes);
    return;
  }
  const std::uint16_t sum = ByteSumChecksum(transfer_.image);
  if (sum != transfer_.hash) {
    say_("VERDICT bad-checksum bytes=" + bytes + " checksum=" + Hex4(sum) +
         " expected=" + Hex4(transfer_.hash));
    return;
  }
  lastVerdictOk_ = true;
  say_("VERDICT ok bytes=" + bytes + " checksum=" + Hex4(sum) +
       " version=" + std::to_string(transfer_.version));
}

void Board::OnApplyUpdate() {
  applyRequested_ = true;
  say_("APPLY");
  if (transfer_.active && transfer_.verdictGiven && lastVerdictOk_) WriteVersionFile(transfer_.version);
}

bool Board::Finish() {
  if (transfer_.active && !transfer_.verdictGiven) {
    GiveVerdict(false);
  } else if (!anyVerdict_) {
    say_("VERDICT none");
  }
  return lastVerdictOk_;
}

void Board::WriteVersionFile(int version) {
  if (options_.versionFile.empty()) return;
  // Replace, never truncate in place: a reader must see the old or the new.
  const std::string temp = options_.versionFile + ".tmp";
  {
    std::ofstream out(temp, std::ios::trunc);
    out << version << '\n';
  }
  if (std::rename(temp.c_str(), options_.versionFile.c_str()) != 0) {
    say_("WARN could not write " + options_.versionFile);
  }
}

}  // namespace tallyvane_sim
