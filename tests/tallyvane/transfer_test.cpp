// A whole update against tallyvane-sim: the receive loop on a second thread,
// the update driven on this one, real FIFOs, the real clock.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "helpers/tallyvane/tallyvane.hpp"
#include "link_fixture.hpp"
#include "sm/update_machine.hpp"

namespace {

using namespace std::chrono_literals;
using Updater::Helpers::Tallyvane;
using namespace Updater::Testing;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// tallyvane-sim as a child process, its output going to a file.
class Sim {
 public:
  Sim(const std::vector<std::string>& args, std::string logPath) : log_(std::move(logPath)) {
    std::vector<std::string> store{TALLYVANE_SIM_BIN};
    store.insert(store.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : store) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      const int out = open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, STDOUT_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Sim() { Stop(); }

  std::string Output() const { return ReadAll(log_); }

  bool WaitForLine(const std::string& text, std::chrono::milliseconds limit) const {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (Output().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(10ms);
    }
    return true;
  }

  // Lets the sim finish on its own for a while, then ends it.
  void Stop(std::chrono::milliseconds grace = 0ms) {
    if (pid_ <= 0) return;
    const auto until = std::chrono::steady_clock::now() + grace;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > until) {
        kill(pid_, SIGTERM);
        waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(10ms);
    }
    pid_ = -1;
  }

 private:
  std::string log_;
  pid_t pid_ = -1;
};

class TransferTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetStreams();
    // Not a multiple of the chunk size, so the last chunk is a short one.
    image.resize(1000);
    for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i * 7 + 3);
    WriteFile(dir / "tallyvane-9.bin", image);
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_DOWNLINK", downlink.c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "board-version").c_str(), 1);
    ASSERT_TRUE(sim.WaitForLine("READY", 10s)) << sim.Output();
  }

  void ExpectImageArrived() {
    sim.Stop(3s);
    const auto log = sim.Output();
    EXPECT_NE(log.find("VERDICT ok bytes=1000"), std::string::npos) << log;
    const auto received = ReadAll(dir / "received.bin");
    EXPECT_EQ(received, std::string(image.begin(), image.end()));
  }

  TempDir dir;
  std::string uplink = dir / "uplink";
  std::string downlink = dir / "downlink";
  std::vector<std::uint8_t> image;
  Sim sim{{"--uplink", uplink, "--downlink", downlink, "--out", dir / "received.bin", "--version-file",
           dir / "board-version", "--board-version", "3"},
          dir / "sim.log"};
};

// The machine ends the process from inside start() with exit(-1). With the
// receive loop on a thread of its own, that exit must not tear down the
// control library's statics under the loop's feet: the loop is stopped and
// joined from an atexit handler, registered once the library has been used
// (handlers run before the destructors of statics built earlier).
Tallyvane* gExitHelper = nullptr;
std::thread* gExitReader = nullptr;

void StopReaderAtExit() {
  gExitHelper->StopReader();
  gExitReader->join();
}

class RealClockStoppingReaderAtExit : public Updater::Clock {
 public:
  time_point Now() override { return Updater::SystemClock().Now(); }
  void Sleep(std::chrono::nanoseconds d) override {
    // Every wait for a block's acknowledgement sleeps at least once, after the block went out.
    if (!registered_.exchange(true)) std::atexit(StopReaderAtExit);
    Updater::SystemClock().Sleep(d);
  }

 private:
  std::atomic<bool> registered_{false};
};

// Every update the machine finishes ends in its error exit: the board's
// last report leaves no next position, and the machine reads that as a
// failure. So the machine runs in a child, and the image is checked here.
TEST_F(TransferTest, MachineDeliversTheImageByteForByte) {
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
  ExpectImageArrived();
}

// The same conversation driven step by step, which also lets the loop be
// stopped the way a caller would stop it.
TEST_F(TransferTest, HelperOperationsDeliverTheImageAndTheLoopStops) {
  Tallyvane helper(uplink);
  std::thread reader([&] { helper.RunReader(); });

  ASSERT_EQ(helper.CheckForUpdate(), 1);
  ASSERT_TRUE(helper.HaveUpdateFile());
  int position = helper.GetFirstUpdateBlock();
  EXPECT_EQ(position, 0);
  int chunks = 0;
  while (position >= 0 && chunks < 100) {
    ASSERT_EQ(helper.SendFirmwareBlock(position), 1) << position;
    ++chunks;
    if (helper.WaitForAck(static_cast<unsigned>(position)) == 0) position = helper.GetNextFirmwareBlock();
  }
  EXPECT_EQ(position, -1);
  EXPECT_EQ(chunks, 16);  // 15 full chunks of 64 and one of 40

  // The board's completion arrives right behind its last report.
  const auto until = std::chrono::steady_clock::now() + 5s;
  while (!helper.State().updateCompleted && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(helper.State().updateCompleted, 1);

  while (!helper.ReaderRunning()) std::this_thread::sleep_for(1ms);
  helper.StopReader();
  reader.join();
  EXPECT_FALSE(helper.ReaderRunning());
  ExpectImageArrived();
  EXPECT_NE(sim.Output().find("APPLY"), std::string::npos);
}

}  // namespace
