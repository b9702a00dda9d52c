#include "common/board_record.hpp"

#include <boost/crc.hpp>
#include <cstdio>

namespace Updater::Record {

namespace {
// Packet layout: length, type, sequence, payload, two check bytes; a
// FirmwareBlock's payload is its 32-bit little-endian position, then the chunk.
constexpr std::size_t kHeader = 3;
constexpr std::size_t kCheck = 2;
constexpr std::size_t kPosition = 4;
}  // namespace

std::string Hex(const std::uint8_t* bytes, std::size_t count) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(count * 2);
  for (std::size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
  }
  return text;
}

Json::Object BoardReceived(const std::uint8_t* bytes, std::size_t count) {
  return Json::Object().Add("dir", "rx").Add("hex", Hex(bytes, count));
}

Json::Object BoardSent(const std::uint8_t* packet, std::size_t count) {
  Json::Object line;
  line.Add("dir", "tx");
  if (count < kHeader) return line.Add("hex", Hex(packet, count));
  line.Add("type", int{packet[1]}).Add("seq", int{packet[2]});
  if (packet[1] != kFirmwareBlockType || count < kHeader + kPosition + kCheck)
    return line.Add("hex", Hex(packet, count));
  const std::uint32_t position =
      packet[3] | (packet[4] << 8) | (packet[5] << 16) | (static_cast<std::uint32_t>(packet[6]) << 24);
  const std::uint8_t* chunk = packet + kHeader + kPosition;
  const std::size_t bytes = count - kHeader - kPosition - kCheck;
  boost::crc_32_type crc;
  crc.process_bytes(chunk, bytes);
  char crcText[9];
  (void)std::snprintf(crcText, sizeof crcText, "%08x", static_cast<unsigned>(crc.checksum()));
  line.Add("position", std::int64_t{static_cast<std::int32_t>(position)});
  return line.Add("bytes", static_cast<std::int64_t>(bytes)).Add("crc32", crcText);
}

std::string SentText(const Json::Object& line) {
  std::string text = "type " + std::to_string(line.Number("type").value_or(-1)) + " seq " +
                     std::to_string(line.Number("seq").value_or(-1));
  if (const auto hex = line.String("hex")) return text + " " + *hex;
  return text + " position " + std::to_string(line.Number("position").value_or(-1)) + ", " +
         std::to_string(line.Number("bytes").value_or(-1)) + " bytes crc32 " +
         line.String("crc32").value_or("");
}

}  // namespace Updater::Record
