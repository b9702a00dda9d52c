// Base for tests that talk to camd-sim: a private bus per suite, a simulator and firmware directory per test.
#pragma once

#include <gtest/gtest.h>

#include <boost/crc.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fake_clock.hpp"
#include "private_bus.hpp"

namespace Updater::Testing {

inline std::size_t CountOf(const std::string& text, const std::string& needle) {
  std::size_t count = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}
inline std::vector<unsigned char> RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<unsigned char> bytes(n);
  for (auto& b : bytes) b = static_cast<unsigned char>(gen());
  return bytes;
}
inline std::vector<unsigned char> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
inline std::string WriteFile(const std::string& path, const std::vector<unsigned char>& bytes) {  // returns the path
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return path;
}
// CRC-16/CCITT-FALSE spelled out here (poly 0x1021, init 0xFFFF, no reflection, no final XOR), not taken from the code under test.
inline unsigned ReferenceCrc(const std::vector<unsigned char>& bytes) {
  boost::crc_optimal<16, 0x1021, 0xFFFF, 0, false, false> crc;
  return crc.process_bytes(bytes.data(), bytes.size()), crc.checksum();
}
inline std::string Hex(unsigned value) { char text[16]; std::snprintf(text, sizeof text, "%x", value); return text; }

// What `f` wrote on standard output and error.
struct Captured { std::string out, err; };
template <class F> Captured Capture(F&& f) {
  ::testing::internal::CaptureStdout(), ::testing::internal::CaptureStderr();
  f();
  return {::testing::internal::GetCapturedStdout(), ::testing::internal::GetCapturedStderr()};
}

class CamdBusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { bus_ = std::make_unique<PrivateBus>(); }
  static void TearDownTestSuite() { bus_.reset(); }
  void SetUp() override {
    // The update check leaves std::cout hexadecimal; every test starts decimal.
    std::cout.flags(std::ios::dec | std::ios::skipws);
    fwDir_ = bus_->Dir() + "/fw-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::create_directories(fwDir_);
    setenv("QUORVEX_FIRMWARE_DIR", fwDir_.c_str(), 1), setenv("QUORVEX_LOCK_DIR", fwDir_.c_str(), 1);
  }
  void TearDown() override { unsetenv("QUORVEX_FIRMWARE_DIR"), unsetenv("QUORVEX_LOCK_DIR"); }  // the directory goes with the bus

  void StartSim(const std::vector<std::string>& args) {  // the service name is free before the next one asks for it
    sim_.reset(), sim_ = std::make_unique<CamdSimProcess>(FWU_CAMD_SIM_BIN, args, bus_->Dir());
  }
  std::size_t SimCalls(const std::string& method) const {  // calls of `method` that the simulator has answered so far
    return CountOf(sim_->Log(), "]: " + method + " ") + CountOf(sim_->Log(), "]: " + method + "\n");
  }
  // A camera package for region 0; returns its path.
  std::string AddPackage(int version, const std::vector<unsigned char>& bytes) {
    return WriteFile(fwDir_ + "/camera-region0-" + std::to_string(version) + ".bin", bytes);
  }
  std::string OutPath() const { return fwDir_ + "/received.bin"; }

  static inline std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<CamdSimProcess> sim_;
  std::string fwDir_;
  FakeClock clock_;
};

}  // namespace Updater::Testing
