// Camera tests: camd-sim on a private bus plus a firmware directory of their own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "camd_fixture.hpp"

namespace Updater::Testing {

// Bit by bit, straight from the definition (poly 0x1021, init 0xFFFF, MSB
// first, no reflection, no final XOR), as an independent reference.
inline unsigned ReferenceCrc(const std::vector<unsigned char>& bytes) {
  unsigned crc = 0xFFFF;
  for (unsigned char byte : bytes) {
    crc ^= static_cast<unsigned>(byte) << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? ((crc << 1) ^ 0x1021) & 0xFFFF : (crc << 1) & 0xFFFF;
  }
  return crc;
}

inline std::string Hex(unsigned value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", value);
  return buf;
}

class CameraTest : public CamdBusTest {
 protected:
  void SetUp() override {
    CamdBusTest::SetUp();
    firmwareDir_ = Dir() + "/fw-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::remove_all(firmwareDir_);
    std::filesystem::create_directories(firmwareDir_);
    setenv("QUORVEX_FIRMWARE_DIR", firmwareDir_.c_str(), 1);
  }
  void TearDown() override {
    CamdBusTest::TearDown();
    unsetenv("QUORVEX_FIRMWARE_DIR");
    std::filesystem::remove_all(firmwareDir_);
  }

  // Puts a camera package for `region` with `version` in place; returns its path.
  std::string AddPackage(int version, const std::vector<unsigned char>& bytes, int region = 0) {
    const std::string path = firmwareDir_ + "/camera-region" + std::to_string(region) + "-" +
                             std::to_string(version) + ".bin";
    WriteFile(path, bytes);
    return path;
  }
  std::string OutPath() const { return firmwareDir_ + "/received.bin"; }

  std::string firmwareDir_;
};

}  // namespace Updater::Testing
