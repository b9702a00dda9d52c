// Test base for everything that talks to camd-sim: one private bus per
// suite, one simulator per test (each test configures its own camera).
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

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

inline void WriteFile(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<unsigned char> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

class CamdBusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { bus_ = std::make_unique<PrivateBus>(); }
  static void TearDownTestSuite() { bus_.reset(); }

  void SetUp() override {
    // The camera check leaves std::cout hexadecimal; every test starts decimal.
    std::cout.flags(std::ios::dec | std::ios::skipws);
  }
  void TearDown() override {
    sim_.reset();
    std::cout.flags(std::ios::dec | std::ios::skipws);
  }

  void StartSim(const std::vector<std::string>& args) {
    sim_.reset();  // the service name is free again before the next one asks for it
    sim_ = std::make_unique<CamdSimProcess>(FWU_CAMD_SIM_BIN, args, bus_->Dir());
  }
  // Calls of `method` that the simulator has answered so far.
  std::size_t SimCalls(const std::string& method) const {
    return CountOf(sim_->Log(), "]: " + method + " ") + CountOf(sim_->Log(), "]: " + method + "\n");
  }
  std::string Dir() const { return bus_->Dir(); }

  static inline std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<CamdSimProcess> sim_;
};

}  // namespace Updater::Testing
