// One read() of the board's data device, at most 1024 bytes, through the
// frame parser and the handlers it reaches: the one path that takes bytes
// from outside the process. A completion sends ApplyUpdate, so the downlink
// is pointed at /dev/null; console output goes there too.
//
// Input: one mode byte, then the read. Random changes to a frame almost never
// keep its CRC right, which would leave the handlers with the seeds' values
// only; with the mode byte odd, every packet that follows the sync bytes and
// fits in the read gets its check value made right before the read is parsed.
// With it even, the read goes in as it is.
#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/crc16.hpp"
#include "helpers/tallyvane/tallyvane.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("QUORVEX_TALLYVANE_DOWNLINK", "/dev/null", 1);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  // The two syslog failure records would flood the host's log.
  setlogmask(LOG_MASK(LOG_EMERG));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1 + 1024) return -1;  // a read of the device is at most 1024 bytes
  std::vector<std::uint8_t> read(data + 1, data + size);
  for (std::size_t at = 0; (data[0] & 1) != 0 && at + 2 < read.size(); ++at) {
    const std::size_t length = read[at + 2];
    if (read[at] != 0xAA || read[at + 1] != 0xA9 || length < 5 || at + 2 + length > read.size()) continue;
    Updater::Crc16CcittFalse crc;
    crc.process_bytes(&read[at + 2], length - 2);
    read[at + length] = static_cast<std::uint8_t>(crc.checksum() >> 8);
    read[at + length + 1] = static_cast<std::uint8_t>(crc.checksum());
  }
  // A fresh helper per read, so that every input stands on its own.
  Updater::Helpers::Tallyvane helper("/nonexistent");
  helper.Link().Receive(read.data(), read.size());
  return 0;
}
