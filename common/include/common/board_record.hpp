// The board's lines in a recorded update (common/record.hpp), written by the
// board helper and read back by tallyvane-sim --replay:
//
//   {"dir":"rx","hex":"aaa90d21...","ms":12}
//       the bytes of one read() of the data device, as read (sync bytes,
//       noise and all), in lowercase hex;
//   {"dir":"tx","type":16,"seq":0,"hex":"05100054f8","ms":0}
//       one packet as handed to Send_Dl_Us_Raw (without the downlink
//       framing): type code, sequence number, the whole packet in hex;
//   {"dir":"tx","type":18,"seq":5,"position":128,"bytes":64,"crc32":"1c291ca3","ms":3}
//       a FirmwareBlock: its byte position, and its chunk as length and
//       CRC-32, never the bytes;
//   {"board_version":1,"ms":0}
//       the version running on the board as the update check read it (it
//       comes from a file, not over the link).
//
// "ms" is the time since the previous line, added by the recorder. A replay
// compares a frame the updater sends with the recorded one by SentText.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/json_line.hpp"

namespace Updater::Record {

inline constexpr std::uint8_t kFirmwareBlockType = 18;

std::string Hex(const std::uint8_t* bytes, std::size_t count);

// The line of one read() of the data device.
Json::Object BoardReceived(const std::uint8_t* bytes, std::size_t count);
// The line of one packet sent to the board (`count` its whole length).
Json::Object BoardSent(const std::uint8_t* packet, std::size_t count);
// A sent packet's line as one text, "ms" left out: equal texts, equal frames.
std::string SentText(const Json::Object& line);

}  // namespace Updater::Record
