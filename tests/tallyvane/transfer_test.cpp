// A whole update against tallyvane-sim: the receive loop on a second thread,
// the machine driving the helper on this one, real FIFOs, the real clock.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "fake_clock.hpp"
#include "helpers/tallyvane/tallyvane.hpp"
#include "lc/qel_arm_control.hpp"
#include "sm/update_machine.hpp"
#include "subprocess.hpp"
#include "temp_dir.hpp"
#include "text.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using Updater::Helpers::Tallyvane;

// Calls `done` until it is true (at most `limit`); true when it was.
template <class Done>
bool WaitUntil(Done done, std::chrono::milliseconds limit) {
  for (auto end = std::chrono::steady_clock::now() + limit; !done(); std::this_thread::sleep_for(200us))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

// The machine reads the board's last report (no next position) as a failure and takes its error exit, so it
// runs in a child and the image is checked here. exit() must not tear down the control library's statics under
// the receive loop: a frame on a channel the board ignores brings them up first, so that the loop, joined at
// exit, stops before they go.
Tallyvane* gExitHelper = nullptr;
std::thread* gExitReader = nullptr;
TEST(TallyvaneTransfer, MachineDeliversTheImageByteForByte) {
  Updater::Testing::TempDir dir;
  const auto image = Updater::Testing::RandomBytes(1000, 3);  // not a multiple of the chunk size: a short last chunk
  dir.Write("tallyvane-9.bin", image);
  setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
  setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
  setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "board-version").c_str(), 1);
  const std::string uplink = dir / "uplink";
  Updater::Testing::ChildProcess sim(TALLYVANE_SIM_BIN, {"--uplink", uplink, "--downlink", dir / "downlink", "--out",
      dir / "received.bin", "--version-file", dir / "board-version", "--board-version", "3"}, dir.path(), "READY");
  EXPECT_EXIT(
      {
        Tallyvane helper(uplink, Updater::SystemClock());
        const std::uint8_t ignored = 0;
        lc::QelArmControl::Send_Dl_Us_Raw(200, &ignored, 1);
        std::thread reader([&] { helper.RunReader(); });
        (gExitHelper = &helper, gExitReader = &reader, std::atexit([] { gExitHelper->StopReader(), gExitReader->join(); }));
        Updater::SM::UpdateMachine machine;
        machine.SetHelper(&helper);
        machine.start();
        std::exit(0);
      },
      testing::ExitedWithCode(255), "");
  WaitUntil([&] { return Updater::Testing::ReadFile(dir / "received.bin") == image; }, 3s);
  EXPECT_EQ(Updater::Testing::ReadFile(dir / "received.bin"), image) << sim.Out();
}

// The concurrent mode in process: the receive thread and the machine meet in the helper, and the machine ends in
// UpdateDone with the image delivered.
TEST(TallyvaneTransfer, ConcurrentModeEndsInUpdateDoneWithTheImageDelivered) {
  Updater::Testing::TempDir dir;
  const auto image = Updater::Testing::RandomBytes(3000, 4);
  dir.Write("tallyvane-9.bin", image);
  setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
  setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
  setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "board-version").c_str(), 1);
  const std::string uplink = dir / "uplink";
  Updater::Testing::ChildProcess sim(TALLYVANE_SIM_BIN, {"--uplink", uplink, "--downlink", dir / "downlink", "--out",
      dir / "received.bin", "--version-file", dir / "board-version", "--drop-reports", "4"}, dir.path(), "READY");
  Tallyvane helper(uplink, Updater::SystemClock(), true);
  helper.StartReaderThread();
  Updater::SM::UpdateMachine machine;
  machine.SetHelper(&helper);
  const std::string out = Updater::Testing::Stdout([&] { machine.start(); });
  helper.StopReaderThread();

  // The receive thread prints too, so its lines may fall between the machine's.
  EXPECT_NE(out.find("Tallyvane ACK status: 3\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Action: done_updating\n"), std::string::npos);
  EXPECT_NE(out.find("Entered: UpdateDone\n"), std::string::npos);
  EXPECT_EQ(Updater::Testing::ReadFile(dir / "received.bin"), image);
}

// A data path that fails on every read (end-of-file or an error, as an empty file, a directory or a dead
// driver does) is retried after a pause that doubles up to a second, and the frames of a plain file are
// handled once, however often it is reopened. Two seconds of the real clock show both.
struct DeadLink {
  const char* name;
  void (*make)(const std::string& path);
  const char* failure;  // the line each failed read prints
  std::size_t completions = 0;
};

void PrintTo(const DeadLink& link, std::ostream* os) { *os << link.name; }

class TallyvaneDeadLink : public testing::TestWithParam<DeadLink> {};

TEST_P(TallyvaneDeadLink, IsRetriedAtAPaceThatSlowsDown) {
  Updater::Testing::TempDir dir;
  setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
  GetParam().make(dir / "data");
  Tallyvane helper(dir / "data", Updater::SystemClock());
  const auto seen = Updater::Testing::Capture([&] {
    std::thread reader([&] { helper.RunReader(); });
    std::this_thread::sleep_for(2s);
    helper.StopReader();
    reader.join();
  });
  const std::string all = seen.out + seen.err;
  EXPECT_GE(Updater::Testing::CountOf(all, GetParam().failure), 2u);
  EXPECT_LE(Updater::Testing::CountOf(all, GetParam().failure), 12u);
  EXPECT_EQ(Updater::Testing::CountOf(all, "that the update has completed!"), GetParam().completions);
}

void WriteFrames(const std::string& path) {  // a completion, then an update error that forgets it
  std::ofstream file(path, std::ios::binary);
  const auto write = [&](const VYRCam::Packet& packet) {
    std::vector<std::uint8_t> frame{0xAA, 0xA9};
    frame.resize(2 + static_cast<std::size_t>(packet.Length()));
    packet.Pack(frame.data() + 2);
    file.write(reinterpret_cast<const char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
  };
  write(VYRCam::UpdateComplete());
  write(VYRCam::UpdateError());
}

INSTANTIATE_TEST_SUITE_P(
    Paths, TallyvaneDeadLink,
    testing::Values(DeadLink{"EmptyFile", [](const std::string& path) { std::ofstream{path}; }, "Read 0 bytes"},
                    DeadLink{"Directory", [](const std::string& path) { mkdir(path.c_str(), 0700); },
                             "read() EOD: Is a directory"},
                    DeadLink{"FileOfFrames", WriteFrames, "Read 0 bytes", 1}),
    [](const testing::TestParamInfo<DeadLink>& info) { return std::string(info.param.name); });

// The receive loop alone on a real FIFO, its lines counted from a file of ours as they come. A writer that comes
// and goes 2,000 times costs one "Read 0 bytes" and a reopen each time, and leaves no descriptor or memory
// behind. A burst of exactly 1024 bytes on a reopened device is one read: its last frame arrives whole.
TEST(TallyvaneReader, TakesAFullReadWholeAndSurvivesAWriterThatKeepsReconnecting) {
  Updater::Testing::TempDir dir;
  const std::string device = dir / "data";
  ASSERT_EQ(mkfifo(device.c_str(), 0600), 0);
  Updater::Testing::FakeClock clock;  // keeps progress lines and "ouch" reminders out
  Tallyvane helper(device, clock);
  std::vector<std::uint8_t> burst;  // whole frames, the update information last
  auto append = [&](const VYRCam::Packet& packet) {
    burst.insert(burst.end(), {0xAA, 0xA9});
    burst.resize(burst.size() + static_cast<std::size_t>(packet.Length()));
    packet.Pack(burst.data() + burst.size() - packet.Length());
  };
  append(VYRCam::UpdateError());
  for (int i = 0; i < 111; ++i) append(VYRCam::DatalinkPacketAck(static_cast<std::uint8_t>(i), true));
  append(VYRCam::UpdateInfo(7, 3, 64, 2));
  ASSERT_EQ(burst.size(), 1024u);
  std::fflush(stdout);
  const int out = open((dir / "out").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), console = dup(1);
  dup2(out, STDOUT_FILENO);
  std::string tail;  // only a short tail of the output is kept, so that our own memory stays flat too
  std::size_t reopens = 0, chokes = 0;
  off_t consumed = 0;
  auto reopened = [&] {
    char chunk[4096];
    for (ssize_t n; (n = pread(out, chunk, sizeof chunk, consumed)) > 0; consumed += n) {
      tail.append(chunk, static_cast<std::size_t>(n));
      reopens += Updater::Testing::CountOf(tail, "Read 0 bytes"), chokes += Updater::Testing::CountOf(tail, "CHOKE");
      tail.erase(0, tail.size() - std::min<std::size_t>(tail.size(), 11));  // a split "Read 0 bytes", never a whole one
    }
    return reopens;
  };
  auto connect = [&, fd = -1]() mutable {  // fails with ENXIO while the loop has the device closed
    return WaitUntil([&] { return (fd = open(device.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }, 5000ms), fd;
  };
  auto usage = [] {  // open descriptors, resident kilobytes
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    using std::filesystem::directory_iterator;
    return std::make_pair(std::distance(directory_iterator("/proc/self/fd"), directory_iterator()),
                          resident * sysconf(_SC_PAGESIZE) / 1024);
  };
  std::thread reader([&] { helper.RunReader(); });
  close(connect());
  EXPECT_TRUE(WaitUntil([&] { return reopened() == 1; }, 5000ms));
  const auto first = usage();
  const int fd = connect();  // on the reopened device
  EXPECT_EQ(write(fd, burst.data(), burst.size()), 1024);
  EXPECT_TRUE(WaitUntil([&] { return helper.State().haveUpdateInfo == 1; }, 5000ms));
  close(fd);
  // A writer that connects while the loop is between its close and its open
  // leaves no hang-up on the new descriptor; it simply connects again.
  for (auto end = std::chrono::steady_clock::now() + 60s; reopened() < 2000 && std::chrono::steady_clock::now() < end;) {
    const auto before = reopens;
    close(connect());
    WaitUntil([&] { return reopened() > before; }, 20ms);
  }
  const auto last = usage();
  helper.StopReader();
  reader.join();
  std::fflush(stdout);
  dup2(console, STDOUT_FILENO), close(console), close(out);
  EXPECT_EQ(std::make_tuple(reopens, chokes, last.first, helper.State().flashSector),
            std::make_tuple(std::size_t{2000}, std::size_t{0}, first.first, 2));
// ThreadSanitizer keeps its own record of every descriptor it has seen, and
// under qemu-user the resident size is the emulator's, translations included.
#if !defined(__SANITIZE_THREAD__) && !defined(FWU_EMULATED)
  EXPECT_LE(last.second, first.second + 256) << "kB";
#endif
}

}  // namespace
