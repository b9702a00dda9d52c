// Framing of the bytes that lc::QelArmControl::Send_Dl_Us_Raw puts on the
// board's downlink device (layout in docs/wire-format.md), and where the
// board's devices and files are found (docs/platform.md). Exposed so that the
// board simulator and the tests parse exactly what the library writes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lc {

// Every frame on the board's devices, either way, starts with these two bytes.
inline constexpr std::uint8_t kSync0 = 0xAA;
inline constexpr std::uint8_t kSync1 = 0xA9;
// sync 0xAA 0xA9, channel, payload length (16 bits, little-endian)
inline constexpr std::size_t kDownlinkHeaderBytes = 5;
// A whole frame fits PIPE_BUF (4096), so a FIFO write of it is atomic and
// frames from two threads never interleave.
inline constexpr std::size_t kMaxDownlinkPayload = 4096 - kDownlinkHeaderBytes;
// The channel the updater's packets travel on.
inline constexpr int kPacketChannel = 5;

// The frame for `count` bytes on `channel`; empty when the arguments cannot
// be framed (channel outside 0..255, no bytes, more than kMaxDownlinkPayload).
std::vector<std::uint8_t> EncodeDownlinkFrame(int channel, const std::uint8_t* bytes, std::size_t count);

// Writes `size` bytes to the non-blocking `fd`, waiting for room at most
// `limit` in all. Returns how many went out; fewer than `size` on an error or
// when time ran out (errno tells which error).
std::size_t WriteWithin(int fd, const std::uint8_t* data, std::size_t size, std::chrono::milliseconds limit);

// $QUORVEX_TALLYVANE_DATA, else "/dev/arm-tallyvane-data": the uplink the
// updater's receive loop reads.
std::string DataDevicePath();
// $QUORVEX_TALLYVANE_DOWNLINK, else "/dev/arm-tallyvane-ctl".
std::string DownlinkDevicePath();
// $QUORVEX_TALLYVANE_VERSION_FILE, else "/run/tallyvane/firmware-version".
std::string FirmwareVersionFilePath();

}  // namespace lc
