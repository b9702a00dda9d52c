// camd's firmware interface: endpoint and method table.
//
// The client registers, calls and reads replies from this table, the
// simulator registers its methods from it, and the tests check the wire
// against it, so a signature lives in exactly one place.
#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace Updater::Camd {

inline constexpr const char* kService = "com.quorvex.common.Camd1";
inline constexpr const char* kObjectPathBase = "/com/quorvex/common/Camd1/Camera";
inline constexpr const char* kInterface = "com.quorvex.common.Camd1.Firmware";

// The index text is appended as typed: "03" stays "03".
inline std::string ObjectPath(const std::string& cameraIndex) {
  return std::string(kObjectPathBase) + cameraIndex;
}

// What the client reads from a reply: the first argument as int or bool, or
// nothing at all (the call goes out with the no-reply flag).
enum class Reply { Int, Bool, None };

struct MethodInfo {
  const char* name;
  const char* in;   // D-Bus signature of the arguments
  const char* out;  // D-Bus signature of the reply body
  Reply reply;
};

// Registration order. `Method` below indexes this array.
inline constexpr std::array<MethodInfo, 13> kMethods = {{
    {"GetCameraFirmwareVersion", "", "i", Reply::Int},
    {"GetFirstUpdateBlock", "", "i", Reply::Int},
    {"GetFirmwareUpdateChunkSize", "", "i", Reply::Int},
    {"GetPreviouslyDownloadedChunks", "", "i", Reply::Int},
    {"SendUpdateAvailable", "iii", "b", Reply::Bool},
    {"SendFirmwareBlock", "iay", "b", Reply::Bool},
    {"WaitForAck", "", "i", Reply::Int},
    {"GetNextFirmwareBlock", "", "i", Reply::Int},
    {"RequestUpdateInfo", "", "", Reply::None},
    {"UpdateInfoReceived", "", "b", Reply::Bool},
    {"ClearPendingUpdate", "", "", Reply::None},
    {"GetFlashRegion", "", "i", Reply::Int},
    {"DequeuePacket", "", "", Reply::None},
}};

enum class Method : std::size_t {
  GetCameraFirmwareVersion,
  GetFirstUpdateBlock,
  GetFirmwareUpdateChunkSize,
  GetPreviouslyDownloadedChunks,
  SendUpdateAvailable,
  SendFirmwareBlock,
  WaitForAck,
  GetNextFirmwareBlock,
  RequestUpdateInfo,
  UpdateInfoReceived,
  ClearPendingUpdate,
  GetFlashRegion,
  DequeuePacket,
};

constexpr const MethodInfo& Info(Method m) { return kMethods[static_cast<std::size_t>(m)]; }

}  // namespace Updater::Camd
