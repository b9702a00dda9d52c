// Every packet class unpacks arbitrary bytes without reading past the
// input, and whatever unpacks packs back to the same bytes.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "vyrcam/packets.hpp"

namespace {

template <typename T>
void Check(const std::uint8_t* data, std::size_t size) {
  // An exact-size copy: a read past `size` is a heap overflow for ASan.
  std::unique_ptr<char[]> copy(new char[size == 0 ? 1 : size]);
  if (size != 0) std::memcpy(copy.get(), data, size);
  T packet;
  if (packet.Unpack(copy.get(), size) != VYRCam::kUnpackOk) return;
  const auto length = static_cast<std::size_t>(packet.Length());
  if (length > size) std::abort();
  std::vector<std::uint8_t> again(length);
  packet.Pack(again.data());
  // The acknowledgement reads any non-zero ok byte as 1 and packs it as 1;
  // everything else must come back byte for byte.
  if constexpr (std::is_same_v<T, VYRCam::DatalinkPacketAck>) {
    T second;
    if (second.Unpack(reinterpret_cast<const char*>(again.data()), again.size()) != VYRCam::kUnpackOk)
      std::abort();
    if (second.AckIsOk() != packet.AckIsOk() ||
        second.AckedSequenceNumber() != packet.AckedSequenceNumber()) {
      std::abort();
    }
  } else if (std::memcmp(again.data(), data, length) != 0) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace VYRCam;
  Check<RequestUpdateInfo>(data, size);
  Check<UpdateAvailable>(data, size);
  Check<FirmwareBlock>(data, size);
  Check<ApplyUpdate>(data, size);
  Check<ClearPendingUpdate>(data, size);
  Check<DatalinkPacketAck>(data, size);
  Check<UpdateInfo>(data, size);
  Check<ReceivedFirmwareBlock>(data, size);
  Check<UpdateComplete>(data, size);
  Check<UpdateError>(data, size);
  return 0;
}
