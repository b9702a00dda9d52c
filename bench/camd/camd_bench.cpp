// Camera update cost against camd-sim on a private bus:
//   BM_EmptyRoundTrip   one bare empty sdbus-c++ call (Peer.Ping) to camd-sim
//   BM_UpdatePerBlock   a 1 MiB update in-process (waits on a fake clock):
//                       microseconds per block, and that over three bare round
//                       trips (a block costs SendFirmwareBlock, WaitForAck and
//                       GetNextFirmwareBlock)
//   BM_UpdaterPeakRss   firmware-updater as a child: peak RSS for a 1 MiB and
//                       a 64 MiB image
// Figures compare only within one run: the bus, camd-sim and this process
// share the machine's cores.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <vector>

#include "dbus/camd_methods.hpp"
#include "fake_clock.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "private_bus.hpp"
#include "sm/update_machine.hpp"
#include "subprocess.hpp"

namespace {

using Clock = std::chrono::steady_clock;

std::unique_ptr<Updater::Testing::PrivateBus> bus;
double medianRoundTripUs = 0;

std::string FirmwareDir() { return bus->Dir() + "/fw"; }

void WriteImage(std::size_t bytes, int version) {
  std::filesystem::remove_all(FirmwareDir());
  std::filesystem::create_directories(FirmwareDir());
  std::mt19937 gen(7);
  std::vector<char> data(bytes);
  for (auto& b : data) b = static_cast<char>(gen());
  std::ofstream(FirmwareDir() + "/camera-region0-" + std::to_string(version) + ".bin", std::ios::binary)
      .write(data.data(), static_cast<std::streamsize>(data.size()));
  setenv("QUORVEX_FIRMWARE_DIR", FirmwareDir().c_str(), 1);
  setenv("QUORVEX_LOCK_DIR", bus->Dir().c_str(), 1);  // the camera lock goes with the bus
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

void BM_EmptyRoundTrip(benchmark::State& state) {
  Updater::Testing::ChildProcess sim(FWU_CAMD_SIM_BIN, {"--quiet"}, bus->Dir(), "camd-sim[*]: serving");
  // Set up as the camera helper's connection is: no event loop, each call
  // reads its own reply.
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = sdbus::createProxy(*connection, Updater::Camd::kService, Updater::Camd::ObjectPath("0"));
  std::vector<double> samples;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    proxy->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  medianRoundTripUs = Median(samples);
  state.counters["median_us"] = medianRoundTripUs;
  proxy.reset();
}
BENCHMARK(BM_EmptyRoundTrip)->Iterations(3000)->Unit(benchmark::kMicrosecond);

// Output of a whole update is long; it goes to /dev/null while timed.
class QuietStdout {
 public:
  QuietStdout() : saved_(dup(STDOUT_FILENO)), savedErr_(dup(STDERR_FILENO)) {
    std::cout.flush();
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);
  }
  ~QuietStdout() {
    std::cout.flush();
    std::cerr.flush();
    dup2(saved_, STDOUT_FILENO);
    dup2(savedErr_, STDERR_FILENO);
    close(saved_);
    close(savedErr_);
    std::cout.flags(std::ios::dec | std::ios::skipws);
  }

 private:
  int saved_;
  int savedErr_;
};

void BM_UpdatePerBlock(benchmark::State& state) {
  constexpr std::size_t kImage = 1 << 20;
  constexpr double kBlocks = kImage / 64.0;
  WriteImage(kImage, 2);
  Updater::Testing::ChildProcess sim(FWU_CAMD_SIM_BIN, {"--quiet"}, bus->Dir(), "camd-sim[*]: serving");
  Updater::Testing::FakeClock fake;
  double perBlockUs = 0;
  for (auto _ : state) {
    Updater::Helpers::VyrCamera camera("0", fake);
    const auto t0 = Clock::now();
    {
      QuietStdout quiet;
      Updater::SM::UpdateMachine machine;
      machine.SetHelper(&camera);
      machine.start();
    }
    perBlockUs = std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / kBlocks;
    state.SetIterationTime(perBlockUs * kBlocks / 1e6);
  }
  if (sim.Out().find("VERDICT ok") == std::string::npos) state.SkipWithError("update did not complete");
  state.counters["us_per_block"] = perBlockUs;
  state.counters["bare_rtt_us"] = medianRoundTripUs;
  if (medianRoundTripUs > 0) state.counters["ratio_block_per_3rtt"] = perBlockUs / (3 * medianRoundTripUs);
}
BENCHMARK(BM_UpdatePerBlock)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Runs firmware-updater camera 0; returns the child's peak RSS in KiB.
long RunUpdaterRss() {
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execl(FWU_UPDATER_BIN, FWU_UPDATER_BIN, "camera", "0", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  return usage.ru_maxrss;
}

void BM_UpdaterPeakRss(benchmark::State& state) {
  const auto bytes = static_cast<std::size_t>(state.range(0)) << 20;
  const bool whole = state.range(1) != 0;
  WriteImage(bytes, 2);
  // A whole 64 MiB update takes a million blocks; past the checksum and the
  // first block nothing grows with the image, so the run may stop there
  // (status 2 after the first block leaves the machine resting).
  std::vector<std::string> args{"--quiet"};
  if (!whole) args.push_back("--ack-status=1-:2");
  Updater::Testing::ChildProcess sim(FWU_CAMD_SIM_BIN, args, bus->Dir(), "camd-sim[*]: serving");
  long rss = 0;
  for (auto _ : state) rss = RunUpdaterRss();
  state.counters["peak_rss_kib"] = static_cast<double>(rss);
  state.counters["image_mib"] = static_cast<double>(state.range(0));
  state.SetLabel(whole ? "whole update" : "check + first block");
}
BENCHMARK(BM_UpdaterPeakRss)
    ->Args({1, 1})
    ->Args({1, 0})
    ->Args({64, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  bus = std::make_unique<Updater::Testing::PrivateBus>();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(FirmwareDir());
  bus.reset();
  return 0;
}
