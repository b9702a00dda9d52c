// Board update cost against tallyvane-sim on FIFOs, the helper in process on the real clock:
//   BM_DesignedBlock     the designed mode (receive loop on a second thread, as the tests run it):
//                        milliseconds per 64-byte block, its fixed 30 ms poll and 250 ms pause included
//   BM_ConcurrentUpdate  a whole update in the concurrent mode through the machine, for a 64 KiB and a
//                        1 MiB image: milliseconds per block, bytes per second, the ratio to the designed
//                        mode's 30 ms poll, and the private memory (USS) sampled mid-transfer
// Figures compare only within one run: the simulator and this process share the machine's cores.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "helpers/tallyvane/tallyvane.hpp"
#include "sm/update_machine.hpp"
#include "subprocess.hpp"

namespace {

using Steady = std::chrono::steady_clock;
using Updater::Helpers::Tallyvane;

constexpr double kDesignedPollMs = 30;

// A scratch directory with a random image of `bytes` as version 9, and the board's devices in it.
struct Scratch {
  explicit Scratch(std::size_t bytes) {
    std::filesystem::create_directories(dir);
    std::mt19937 gen(3);
    std::vector<char> data(bytes);
    for (auto& b : data) b = static_cast<char>(gen());
    std::ofstream(dir + "/tallyvane-9.bin", std::ios::binary)
        .write(data.data(), static_cast<std::streamsize>(bytes));
    setenv("QUORVEX_FIRMWARE_DIR", dir.c_str(), 1);
    setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir + "/downlink").c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir + "/version").c_str(), 1);
  }
  ~Scratch() { std::filesystem::remove_all(dir); }
  Updater::Testing::ChildProcess Board() const {
    return {
        FWU_TALLYVANE_SIM_BIN,
        {"--uplink", dir + "/uplink", "--downlink", dir + "/downlink", "--version-file", dir + "/version"},
        dir,
        "READY"};
  }
  // A directory of its own each time: the control library keeps its downlink open by path.
  static inline int made = 0;
  std::string dir = std::filesystem::temp_directory_path().string() + "/fwu-bench-" +
                    std::to_string(getpid()) + "-" + std::to_string(++made);
};

// Standard output goes to /dev/null while it lives: the helper prints several lines per block.
class Quiet {
 public:
  Quiet() : saved_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~Quiet() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int saved_;
};

// Private_Clean + Private_Dirty of this process, in KiB.
long UssKib() {
  std::ifstream smaps("/proc/self/smaps_rollup");
  long total = 0;
  for (std::string key; smaps >> key;) {
    long kib = 0;
    if ((key == "Private_Clean:" || key == "Private_Dirty:") && smaps >> kib) total += kib;
  }
  return total;
}

double designedMsPerBlock = 0;

void BM_DesignedBlock(benchmark::State& state) {
  constexpr int kBlocks = 8;
  const Scratch scratch(kBlocks * 64 * 4);
  const auto board = scratch.Board();
  Tallyvane helper(scratch.dir + "/uplink", Updater::SystemClock());
  std::thread reader([&] { helper.RunReader(); });
  double perBlockMs = 0;
  {
    const Quiet quiet;
    helper.CheckForUpdate();
    int block = helper.GetFirstUpdateBlock();
    for (auto _ : state) {
      const auto start = Steady::now();
      for (int i = 0; i < kBlocks && block >= 0; ++i) {
        helper.SendFirmwareBlock(block);
        helper.WaitForAck(static_cast<unsigned>(block));
        block = helper.GetNextFirmwareBlock();
      }
      perBlockMs = std::chrono::duration<double, std::milli>(Steady::now() - start).count() / kBlocks;
      state.SetIterationTime(perBlockMs * kBlocks / 1000);
    }
  }
  helper.StopReader();
  reader.join();
  designedMsPerBlock = perBlockMs;
  state.counters["ms_per_block"] = perBlockMs;
}
BENCHMARK(BM_DesignedBlock)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ConcurrentUpdate(benchmark::State& state) {
  const auto bytes = static_cast<std::size_t>(state.range(0));
  double seconds = 0;
  long ussMid = 0;
  for (auto _ : state) {
    const Scratch scratch(bytes);
    const auto board = scratch.Board();
    Tallyvane helper(scratch.dir + "/uplink", Updater::SystemClock(), true);
    std::atomic<bool> done{false};
    std::thread sampler([&] {  // the largest private memory seen while the update runs
      while (!done) {
        ussMid = std::max(ussMid, UssKib());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    const Quiet quiet;
    helper.BeginRun();
    const auto start = Steady::now();
    Updater::SM::UpdateMachine machine;
    machine.SetHelper(&helper);
    machine.start();
    seconds = std::chrono::duration<double>(Steady::now() - start).count();
    helper.EndRun();
    done = true;
    sampler.join();
    state.SetIterationTime(seconds);
    std::ifstream version(scratch.dir + "/version");
    int running = 0;
    if (!(version >> running) || running != 9) state.SkipWithError("the board does not run the new image");
  }
  const double blocks = static_cast<double>((bytes + 63) / 64);
  const double perBlockMs = seconds * 1000 / blocks;
  state.counters["ms_per_block"] = perBlockMs;
  state.counters["bytes_per_s"] = static_cast<double>(bytes) / seconds;
  state.counters["of_30ms_poll"] = perBlockMs / kDesignedPollMs;
  if (designedMsPerBlock > 0) state.counters["of_designed_block"] = perBlockMs / designedMsPerBlock;
  state.counters["uss_kib_mid"] = static_cast<double>(ussMid);
}
BENCHMARK(BM_ConcurrentUpdate)
    ->Arg(64 * 1024)
    ->Arg(1024 * 1024)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
