// One read() of the board's data device, at most 1024 bytes, through the
// frame parser and the handlers it reaches: the one path that takes bytes
// from outside the process. A completion sends ApplyUpdate, so the downlink
// is pointed at /dev/null; console output goes there too.
#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "helpers/tallyvane/tallyvane.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("QUORVEX_TALLYVANE_DOWNLINK", "/dev/null", 1);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  // The two syslog failure records would flood the host's log.
  setlogmask(LOG_MASK(LOG_EMERG));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1024) return -1;  // longer than one read of the device; not added to the corpus
  // A fresh helper per read, so that every input stands on its own.
  Updater::Helpers::Tallyvane helper("/nonexistent");
  helper.Receive(data, size);
  return 0;
}
