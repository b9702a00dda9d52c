// Base for tests that talk to camd-sim: a private bus per suite, a simulator and firmware directory per test.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>

#include "fake_clock.hpp"
#include "private_bus.hpp"
#include "text.hpp"

namespace Updater::Testing {

struct CamdBusTest : ::testing::Test {
  static void SetUpTestSuite() { bus_ = std::make_unique<PrivateBus>(); }
  static void TearDownTestSuite() { bus_.reset(); }
  void SetUp() override {
    std::cout.flags(std::ios::dec | std::ios::skipws);  // the update check leaves it hexadecimal
    setenv("QUORVEX_FIRMWARE_DIR", fw_.path().c_str(), 1);
    setenv("QUORVEX_LOCK_DIR", fw_.path().c_str(), 1);
  }
  void TearDown() override {
    for (const char* name : {"QUORVEX_FIRMWARE_DIR", "QUORVEX_LOCK_DIR", "QUORVEX_STALL_SECONDS",
                             "NOTIFY_SOCKET", "QUORVEX_CONSOLE"})
      unsetenv(name);
    if (held_ >= 0) close(held_);
  }

  // The simulator writes what it receives to OutPath(); the one before goes first and frees the bus name.
  void StartSim(std::vector<std::string> args) {
    sim_.reset();
    std::filesystem::remove(OutPath());
    args.push_back("--out=" + OutPath());
    sim_ = std::make_unique<ChildProcess>(FWU_CAMD_SIM_BIN, args, bus_->Dir(), "camd-sim[*]: serving");
  }
  // Calls of `method` that the simulator has answered.
  std::size_t SimCalls(const std::string& method) const {
    return CountOf(sim_->Log(), "]: " + method + " ") + CountOf(sim_->Log(), "]: " + method + "\n");
  }
  std::string AddPackage(int version, const std::string& bytes) {  // for region 0; returns its path
    return fw_.Write("camera-region0-" + std::to_string(version) + ".bin", bytes);
  }
  std::string OutPath() const { return fw_ / "received.bin"; }
  // Camera 0's lock, held by a descriptor of the test's until the test ends.
  void HoldLock(uid_t owner = 0) {
    held_ = open((fw_ / "firmware-updater-camera-0.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(fchown(held_, owner, owner), 0);
    EXPECT_EQ(flock(held_, LOCK_EX), 0);
  }

  static inline std::unique_ptr<PrivateBus> bus_;
  const TempDir fw_;  // outlives the simulator, which may write into it
  std::unique_ptr<ChildProcess> sim_;
  FakeClock clock_;
  int held_ = -1;
};

}  // namespace Updater::Testing
