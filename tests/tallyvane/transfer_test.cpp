// A whole update against tallyvane-sim: the receive loop on a second thread,
// the machine driving the helper on this one, real FIFOs, the real clock.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "helpers/tallyvane/tallyvane.hpp"
#include "sm/update_machine.hpp"
#include "subprocess.hpp"
#include "temp_dir.hpp"
#include "vyrcam/packets.hpp"

namespace {

using Updater::Helpers::Tallyvane;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The machine's exit(-1) must not tear down the control library's statics under
// the receive loop: the loop is joined from an atexit handler registered once the
// library is in use (handlers run before the destructors of statics built earlier).
Tallyvane* gExitHelper = nullptr;
std::thread* gExitReader = nullptr;

class RealClockStoppingReaderAtExit : public Updater::Clock {
 public:
  time_point Now() override { return Updater::SystemClock().Now(); }
  void Sleep(std::chrono::nanoseconds d) override {
    // Every wait for a block's acknowledgement sleeps at least once, after the block went out.
    if (!registered_.exchange(true)) std::atexit([] { gExitHelper->StopReader(), gExitReader->join(); });
    Updater::SystemClock().Sleep(d);
  }

 private:
  std::atomic<bool> registered_{false};
};

// The machine reads the board's last report (no next position) as a failure and
// takes its error exit, so it runs in a child and the image is checked here.
TEST(TallyvaneTransfer, MachineDeliversTheImageByteForByte) {
  Updater::Testing::TempDir dir;
  std::string image;  // not a multiple of the chunk size, so the last chunk is a short one
  for (int i = 0; i < 1000; ++i) image += static_cast<char>(i * 7 + 3);
  dir.Write("tallyvane-9.bin", image);
  setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
  setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
  setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "board-version").c_str(), 1);
  const std::string uplink = dir / "uplink", log = dir / "sim.log";
  auto sim_command = Updater::Testing::CommandFor(
      TALLYVANE_SIM_BIN, {"--uplink", uplink, "--downlink", dir / "downlink", "--out", dir / "received.bin",
                          "--version-file", dir / "board-version", "--board-version", "3"});
  auto argv = sim_command.ExecArgv();
  const pid_t sim = fork();
  if (sim == 0) {
    dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    execvp(sim_command.program.c_str(), argv.data());
    _exit(127);
  }
  ASSERT_GT(sim, 0);
  auto waitFor = [](int tenths, auto done) {
    for (; !done() && tenths > 0; --tenths) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return done();
  };
  bool ended = false;
  if (waitFor(100, [&] { return ReadAll(log).find("READY") != std::string::npos; })) {
    EXPECT_EXIT(
        {
          RealClockStoppingReaderAtExit clock;
          Tallyvane helper(uplink, clock);
          std::thread reader([&] { helper.RunReader(); });
          gExitHelper = &helper;
          gExitReader = &reader;
          Updater::SM::UpdateMachine machine;
          machine.SetHelper(&helper);
          machine.start();
          std::exit(0);
        },
        testing::ExitedWithCode(255), "");
    waitFor(30, [&] { return ended = ended || waitpid(sim, nullptr, WNOHANG) == sim; });  // told to apply
  }
  if (!ended) kill(sim, SIGTERM), waitpid(sim, nullptr, 0);
  EXPECT_NE(ReadAll(log).find("VERDICT ok bytes=1000"), std::string::npos) << ReadAll(log);
  EXPECT_EQ(ReadAll(dir / "received.bin"), image);
}

// The receive loop alone on a real FIFO: frames reach the helper, and a writer
// that goes away costs one "Read 0 bytes" and a reopen, after which reading goes on.
TEST(TallyvaneReader, ReadsFramesAndReopensWhenTheWriterLeaves) {
  Updater::Testing::TempDir dir;
  const std::string device = dir / "data";
  ASSERT_EQ(mkfifo(device.c_str(), 0600), 0);
  Tallyvane helper(device);
  const auto deadline = [] { return std::chrono::steady_clock::now() + std::chrono::seconds(5); };
  auto writeFrame = [&](const VYRCam::Packet& packet) {
    std::vector<std::uint8_t> frame(2 + static_cast<std::size_t>(packet.Length()));
    frame[0] = 0xAA, frame[1] = 0xA9;
    packet.Pack(frame.data() + 2);
    int fd = -1;  // fails with ENXIO until the loop has (re)opened the device
    for (auto end = deadline(); fd < 0 && std::chrono::steady_clock::now() < end;)
      if ((fd = open(device.c_str(), O_WRONLY | O_NONBLOCK)) < 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(write(fd, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    return fd;
  };
  auto waitUntil = [&](auto done) {
    for (auto end = deadline(); !done() && std::chrono::steady_clock::now() < end;)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return done();
  };
  // The loop keeps the descriptor it had when it reopens, so a reopen shows as
  // one more descriptor of this process on the device.
  auto openOnDevice = [&] {
    int n = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      n += std::filesystem::read_symlink(fd.path(), ec) == device;
    }
    return n;
  };
  testing::internal::CaptureStdout();
  std::thread reader([&] { helper.RunReader(); });
  const int first = writeFrame(VYRCam::UpdateInfo(7, 3, 64, 2));
  EXPECT_TRUE(waitUntil([&] { return helper.State().haveUpdateInfo == 1; }));
  close(first);
  EXPECT_TRUE(waitUntil([&] { return openOnDevice() == 2; }));
  const int second = writeFrame(VYRCam::ReceivedFirmwareBlock(-1, 128));
  EXPECT_TRUE(waitUntil([&] { return helper.State().nextBlock == 128; }));
  helper.StopReader();
  reader.join();
  close(second);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(helper.State().flashSector, 2);
  EXPECT_EQ(helper.State().firstBlock, 128);
  EXPECT_NE(out.find("\tflash Sector: [2]"), std::string::npos) << out;
  EXPECT_EQ(out.find("Read 0 bytes"), out.rfind("Read 0 bytes")) << out;
  EXPECT_NE(out.find("Read 0 bytes"), std::string::npos) << out;
}

}  // namespace
