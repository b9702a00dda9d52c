// The receive loop on a real FIFO, running on its own thread as it does
// beside the update operations.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <future>
#include <thread>

#include "helpers/tallyvane/tallyvane.hpp"
#include "link_fixture.hpp"

namespace {

using namespace std::chrono_literals;
using Updater::Helpers::Tallyvane;
using namespace Updater::Testing;

// Sends one of the process's standard streams into a file that the test can
// read while the loop is still writing.
class StreamToFile {
 public:
  StreamToFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {
    std::fflush(nullptr);
    saved_ = dup(fd_);
    const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, fd_);
    close(file);
  }
  ~StreamToFile() {
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
  }
  std::string Text() const {
    std::fflush(nullptr);
    std::ifstream in(path_);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

 private:
  int fd_;
  std::string path_;
  int saved_ = -1;
};

template <class Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds limit = 5000ms) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

class ReaderTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetStreams();
    MakeFifo(device);
  }
  void TearDown() override {
    if (reader.valid()) {
      helper.StopReader();
      reader.wait();
    }
    if (writer >= 0) close(writer);
  }

  void StartReader() {
    reader = std::async(std::launch::async, [this] { return helper.RunReader(); });
    ASSERT_TRUE(WaitFor([this] { return helper.ReaderRunning(); }));
  }
  // Blocks until the loop has the device open for reading.
  void OpenWriter() {
    writer = open(device.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(writer, 0);
  }
  void Write(const std::vector<std::uint8_t>& bytes) {
    ASSERT_EQ(write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  int Stop() {
    helper.StopReader();
    EXPECT_EQ(reader.wait_for(3s), std::future_status::ready);
    return reader.get();
  }

  TempDir dir;
  DownlinkTap downlink{dir};
  std::string device = dir / "uplink";
  FakeClock clock;
  Tallyvane helper{device, clock};
  std::future<int> reader;
  int writer = -1;
};

TEST_F(ReaderTest, FramesWrittenToTheDeviceReachTheHelper) {
  StartReader();
  OpenWriter();
  Write(Concat({Frame(VYRCam::UpdateInfo(1, 2, 64, 3)), Frame(VYRCam::ReceivedFirmwareBlock(-1, 256))}));
  EXPECT_TRUE(WaitFor([this] { return helper.State().nextBlock == 256; }));
  const auto state = helper.State();
  EXPECT_EQ(state.haveUpdateInfo, 1);
  EXPECT_EQ(state.firstBlock, 256);
  EXPECT_EQ(Stop(), 0);
  EXPECT_FALSE(helper.ReaderRunning());
}

TEST_F(ReaderTest, WriterGoingAwayIsReportedAndTheDeviceReopened) {
  StreamToFile out(STDOUT_FILENO, dir / "stdout");
  StartReader();
  OpenWriter();
  close(writer);
  writer = -1;
  ASSERT_TRUE(WaitFor([&] { return out.Text().find("Read 0 bytes") != std::string::npos; }));

  // Opening for writing only returns once the loop has opened the device again.
  OpenWriter();
  Write(Frame(VYRCam::ReceivedFirmwareBlock(-1, 512)));
  EXPECT_TRUE(WaitFor([this] { return helper.State().nextBlock == 512; }));
  EXPECT_EQ(Stop(), 0);
  EXPECT_EQ(Count(out.Text(), "\033[0;31mfw-updater Debug: [ERROR] -- Read 0 bytes\033[0m\n"), 1u);
}

TEST_F(ReaderTest, SilenceIsReportedAtMostOncePerFiveSeconds) {
  StreamToFile out(STDOUT_FILENO, dir / "stdout");
  const auto ouches = [&] { return Count(out.Text(), "Tallyvane polling ouch...\n"); };
  StartReader();
  OpenWriter();  // a writer that never writes: every poll times out

  clock.Advance(std::chrono::nanoseconds(5'000'999'999));
  std::this_thread::sleep_for(1200ms);  // at least one more poll time-out
  EXPECT_EQ(ouches(), 0u);

  clock.Advance(1ns);
  EXPECT_TRUE(WaitFor([&] { return ouches() == 1; }, 3000ms));
  std::this_thread::sleep_for(1200ms);
  EXPECT_EQ(ouches(), 1u);
  EXPECT_EQ(Stop(), 0);
}

TEST_F(ReaderTest, FailedReadIsReportedOnStderr) {
  StreamToFile err(STDERR_FILENO, dir / "stderr");
  Tallyvane onDirectory(dir.path().string(), clock);  // opens, polls ready, read() fails
  auto loop = std::async(std::launch::async, [&] { return onDirectory.RunReader(); });
  EXPECT_TRUE(WaitFor([&] { return err.Text().find("read() EOD: Is a directory\n") != std::string::npos; }));
  EXPECT_TRUE(WaitFor([&] { return onDirectory.ReaderRunning(); }));
  onDirectory.StopReader();
  ASSERT_EQ(loop.wait_for(3s), std::future_status::ready);
  EXPECT_EQ(loop.get(), 0);
}

}  // namespace
