// Goodput of a 64 KiB board update in the concurrent mode, the real program against tallyvane-sim on FIFOs:
//   lost_1_in  every Nth acknowledgement and every Nth block report withheld (10: a tenth of the frames that
//              answer a chunk); 0: none
//   late_ms    every frame of the board written that much late (acknowledgements too): 20 ms is a serial
//              link's turnaround, 1000 a board erasing flash
// Each case ends with the update or after $FWU_BENCH_SECONDS (30 by default), whichever comes first; what the
// board holds then (the union of the chunks it stored) over the time taken is the goodput. Counters:
//   bytes_per_s       that goodput
//   of_clean          against the link without loss at the same lateness (run before it)
//   of_stop_and_wait  against one 64-byte chunk per round trip, a round trip being the clean link's time
//                     per chunk plus the answers' lateness
// Against a simulator that answers at once, any timeout floor outweighs the link's time per chunk, so losses
// are measured at 20 ms as well: that is the figure to hold against the clean link's.
// Figures compare only within one run: the simulator and the updater share the machine's cores.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "helpers/tallyvane/acknowledged_image.hpp"
#include "subprocess.hpp"

namespace {

using namespace std::chrono_literals;
using Updater::Testing::ChildProcess;
using Updater::Testing::ProcessOptions;

constexpr std::int64_t kImageBytes = 64 * 1024;
constexpr double kChunkBytes = 64;

std::chrono::seconds Bound() {
  const char* text = std::getenv("FWU_BENCH_SECONDS");
  const long seconds = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : 30);
}

// Bytes of the image the board stored, from its "RX FirmwareBlock seq=S position=P bytes=K" lines.
std::int64_t HeldBytes(const std::string& boardLog) {
  Updater::Helpers::AcknowledgedImage held(kImageBytes);
  std::istringstream lines(boardLog);
  for (std::string line; std::getline(lines, line);) {
    long long position = 0, bytes = 0;
    unsigned sequence = 0;
    if (std::sscanf(line.c_str(), "RX FirmwareBlock seq=%u position=%lld bytes=%lld", &sequence, &position,
                    &bytes) == 3)
      held.Add(position, bytes);
  }
  return held.Covered();
}

// Goodput without loss, by lateness; and the clean link's time per chunk without lateness.
std::map<std::int64_t, double> cleanBytesPerSecond;
double cleanRoundTrip = 0;

void BM_Goodput(benchmark::State& state) {
  const auto lostOneIn = state.range(0);
  const auto lateMs = state.range(1);
  const std::string dir = std::filesystem::temp_directory_path().string() + "/fwu-goodput-" +
                          std::to_string(getpid()) + "-" + std::to_string(lostOneIn) + "-" +
                          std::to_string(lateMs);
  std::filesystem::create_directories(dir);
  {
    std::mt19937 gen(5);
    std::vector<char> image(kImageBytes);
    for (auto& b : image) b = static_cast<char>(gen());
    std::ofstream(dir + "/tallyvane-9.bin", std::ios::binary).write(image.data(), kImageBytes);
  }
  std::vector<std::string> args = {"--uplink",       dir + "/uplink",  "--downlink",      dir + "/downlink",
                                   "--version-file", dir + "/version", "--board-version", "3"};
  if (lostOneIn > 0) {
    for (const char* option : {"--drop-ack-every", "--drop-report-every"})
      args.insert(args.end(), {option, std::to_string(lostOneIn)});
  }
  if (lateMs > 0) args.insert(args.end(), {"--answer-delay-ms", std::to_string(lateMs)});

  double seconds = 0;
  std::int64_t held = 0;
  for (auto _ : state) {
    const ChildProcess board(FWU_TALLYVANE_SIM_BIN, args, dir, "READY");
    ProcessOptions options;
    options.env = {{"QUORVEX_TALLYVANE_DATA", dir + "/uplink"},
                   {"QUORVEX_TALLYVANE_DOWNLINK", dir + "/downlink"},
                   {"QUORVEX_FIRMWARE_DIR", dir},
                   {"QUORVEX_TALLYVANE_VERSION_FILE", dir + "/version"},
                   {"QUORVEX_TALLYVANE_READER", "concurrent"}};
    options.timeout = Bound();
    const auto run = Updater::Testing::RunProcess(Updater::Testing::UpdaterBinary(), {"tallyvane"}, options);
    seconds = std::chrono::duration<double>(run.elapsed).count();
    held = HeldBytes(board.Out());
    state.SetIterationTime(seconds);
  }
  std::filesystem::remove_all(dir);

  const double bytesPerSecond = static_cast<double>(held) / seconds;
  if (lostOneIn == 0) cleanBytesPerSecond[lateMs] = bytesPerSecond;
  if (lostOneIn == 0 && lateMs == 0) cleanRoundTrip = kChunkBytes / bytesPerSecond;
  state.counters["held_bytes"] = static_cast<double>(held);
  state.counters["bytes_per_s"] = bytesPerSecond;
  if (cleanBytesPerSecond[lateMs] > 0)
    state.counters["of_clean"] = bytesPerSecond / cleanBytesPerSecond[lateMs];
  if (cleanRoundTrip > 0) {
    state.counters["of_stop_and_wait"] =
        bytesPerSecond / (kChunkBytes / (cleanRoundTrip + static_cast<double>(lateMs) / 1000));
  }
}
BENCHMARK(BM_Goodput)
    ->ArgNames({"lost_1_in", "late_ms"})
    ->Args({0, 0})
    ->Args({10, 0})
    ->Args({0, 20})
    ->Args({10, 20})
    ->Args({0, 1000})
    ->Args({10, 1000})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
