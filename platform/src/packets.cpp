#include "vyrcam/packets.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "common/crc16.hpp"

namespace VYRCam {

namespace {

std::uint16_t Checksum(const std::uint8_t* bytes, std::size_t count) {
  Updater::Crc16CcittFalse crc;
  crc.process_bytes(bytes, count);
  return static_cast<std::uint16_t>(crc.checksum());
}

void Put16(std::uint8_t* out, std::uint16_t v) {
  out[0] = static_cast<std::uint8_t>(v);
  out[1] = static_cast<std::uint8_t>(v >> 8);
}

void Put32(std::uint8_t* out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint16_t Get16(const std::uint8_t* in) { return static_cast<std::uint16_t>(in[0] | (in[1] << 8)); }

std::uint32_t Get32(const std::uint8_t* in) {
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | in[i];
  return v;
}

// Two's complement on the wire, whatever the host does with negative ints.
std::int32_t ToSigned(std::uint32_t v) {
  return v <= 0x7FFFFFFFu ? static_cast<std::int32_t>(v) : -static_cast<std::int32_t>(~v) - 1;
}

}  // namespace

// ---- Packet -----------------------------------------------------------------

Packet::~Packet() = default;

int Packet::Length() const { return static_cast<int>(kHeaderBytes + PayloadLength() + kCheckBytes); }

bool Packet::NeedsAck() const { return true; }

void Packet::Pack(std::uint8_t* out) const {
  const std::size_t length = static_cast<std::size_t>(Length());
  out[0] = static_cast<std::uint8_t>(length);
  out[1] = type_;
  out[2] = sequence_;
  PackPayload(out + kHeaderBytes);
  const std::uint16_t crc = Checksum(out, length - kCheckBytes);
  out[length - 2] = static_cast<std::uint8_t>(crc >> 8);
  out[length - 1] = static_cast<std::uint8_t>(crc);
}

int Packet::Unpack(const char* data, std::size_t available) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
  // The order is part of the contract (docs/wire-format.md): a packet that
  // has not fully arrived is reported as such, whatever its header claims.
  if (data == nullptr || available < kHeaderBytes + kCheckBytes) return kUnpackTruncated;
  const std::size_t length = bytes[0];
  if (available < length) return kUnpackTruncated;
  if (length < kHeaderBytes + kCheckBytes) return kUnpackBadLength;
  const std::size_t payloadLength = length - kHeaderBytes - kCheckBytes;
  if (!PayloadLengthValid(payloadLength)) return kUnpackBadLength;
  if (bytes[1] != type_) return kUnpackWrongType;
  const std::uint16_t wanted = static_cast<std::uint16_t>((bytes[length - 2] << 8) | bytes[length - 1]);
  if (Checksum(bytes, length - kCheckBytes) != wanted) return kUnpackBadChecksum;

  sequence_ = bytes[2];
  UnpackPayload(bytes + kHeaderBytes, payloadLength);
  return kUnpackOk;
}

// ---- host to board ----------------------------------------------------------

RequestUpdateInfo::RequestUpdateInfo() : Packet(kRequestUpdateInfo) {}

UpdateAvailable::UpdateAvailable() : Packet(kUpdateAvailable) {}

UpdateAvailable::UpdateAvailable(std::uint16_t version, std::uint16_t hash, std::uint32_t chunks)
    : Packet(kUpdateAvailable), version_(version), hash_(hash), chunks_(chunks) {}

void UpdateAvailable::PackPayload(std::uint8_t* out) const {
  Put16(out, version_);
  Put16(out + 2, hash_);
  Put32(out + 4, chunks_);
}

void UpdateAvailable::UnpackPayload(const std::uint8_t* payload, std::size_t) {
  version_ = Get16(payload);
  hash_ = Get16(payload + 2);
  chunks_ = Get32(payload + 4);
}

FirmwareBlock::FirmwareBlock() : Packet(kFirmwareBlock) {}

FirmwareBlock::FirmwareBlock(int blockNum, std::vector<unsigned char> data)
    : Packet(kFirmwareBlock), blockNum_(blockNum), data_(std::move(data)) {
  // The length byte could not describe a bigger packet.
  if (data_.size() > kMaxData) throw std::length_error("FirmwareBlock: chunk larger than a packet");
}

void FirmwareBlock::PackPayload(std::uint8_t* out) const {
  Put32(out, static_cast<std::uint32_t>(blockNum_));
  std::copy(data_.begin(), data_.end(), out + 4);
}

void FirmwareBlock::UnpackPayload(const std::uint8_t* payload, std::size_t length) {
  blockNum_ = ToSigned(Get32(payload));
  data_.assign(payload + 4, payload + length);
}

ApplyUpdate::ApplyUpdate() : Packet(kApplyUpdate) {}

ClearPendingUpdate::ClearPendingUpdate() : Packet(kClearPendingUpdate) {}

// ---- board to host ----------------------------------------------------------

DatalinkPacketAck::DatalinkPacketAck() : Packet(kDatalinkPacketAck) {}

DatalinkPacketAck::DatalinkPacketAck(std::uint8_t ackedSequence, bool ok)
    : Packet(kDatalinkPacketAck), acked_(ackedSequence), ok_(ok) {}

void DatalinkPacketAck::PackPayload(std::uint8_t* out) const {
  out[0] = acked_;
  out[1] = ok_ ? 1 : 0;
}

void DatalinkPacketAck::UnpackPayload(const std::uint8_t* payload, std::size_t) {
  acked_ = payload[0];
  ok_ = payload[1] != 0;
}

UpdateInfo::UpdateInfo() : Packet(kUpdateInfo) {}

UpdateInfo::UpdateInfo(std::uint16_t partialVersion, std::uint32_t downloadedBlocks, std::uint8_t blockSize,
                       int flashRegion)
    : Packet(kUpdateInfo),
      partialVersion_(partialVersion),
      downloadedBlocks_(downloadedBlocks),
      blockSize_(blockSize),
      flashRegion_(flashRegion) {}

void UpdateInfo::PackPayload(std::uint8_t* out) const {
  Put16(out, partialVersion_);
  Put32(out + 2, downloadedBlocks_);
  out[6] = blockSize_;
  Put32(out + 7, static_cast<std::uint32_t>(flashRegion_));
}

void UpdateInfo::UnpackPayload(const std::uint8_t* payload, std::size_t) {
  partialVersion_ = Get16(payload);
  downloadedBlocks_ = Get32(payload + 2);
  blockSize_ = payload[6];
  flashRegion_ = ToSigned(Get32(payload + 7));
}

ReceivedFirmwareBlock::ReceivedFirmwareBlock() : Packet(kReceivedFirmwareBlock) {}

ReceivedFirmwareBlock::ReceivedFirmwareBlock(int lastReceived, std::uint32_t next)
    : Packet(kReceivedFirmwareBlock), lastReceived_(lastReceived), next_(next) {}

void ReceivedFirmwareBlock::PackPayload(std::uint8_t* out) const {
  Put32(out, static_cast<std::uint32_t>(lastReceived_));
  Put32(out + 4, next_);
}

void ReceivedFirmwareBlock::UnpackPayload(const std::uint8_t* payload, std::size_t) {
  lastReceived_ = ToSigned(Get32(payload));
  next_ = Get32(payload + 4);
}

UpdateComplete::UpdateComplete() : Packet(kUpdateComplete) {}

UpdateError::UpdateError() : Packet(kUpdateError) {}

}  // namespace VYRCam
