// The receive loop on real FIFOs and files, on a thread of its own and the real clock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "fake_clock.hpp"
#include "helpers/tallyvane/tallyvane.hpp"
#include "text.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using namespace Updater::Testing;
using Updater::Helpers::Tallyvane;
using Bytes = std::vector<std::uint8_t>;

// Calls `done` until it is true (at most `limit`); true when it was.
template <class Done>
bool WaitUntil(Done done, std::chrono::milliseconds limit) {
  for (auto end = std::chrono::steady_clock::now() + limit; !done(); std::this_thread::sleep_for(200us))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}
void Append(Bytes& out, const VYRCam::Packet& packet) {  // as a frame from the board
  out.insert(out.end(), {0xAA, 0xA9});
  out.resize(out.size() + static_cast<std::size_t>(packet.Length()));
  packet.Pack(out.data() + out.size() - packet.Length());
}

// A data path failing every read (end-of-file or an error) is retried after a pause doubling up to a second;
// a plain file's frames are handled once, however often it is reopened. Two real seconds show both.
struct DeadLink {
  std::string name;
  std::string failure;          // the line each failed read prints
  bool directory = false;       // or a plain file of `completions` completions, each forgotten again
  std::size_t completions = 0;  // by an update error
};
void PrintTo(const DeadLink& row, std::ostream* os) { *os << row.name; }

class ADeadDataPath : public testing::TestWithParam<DeadLink> {};

TEST_P(ADeadDataPath, IsRetriedAtAPaceThatSlowsDown) {
  TempDir dir;
  setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
  Bytes frames;
  for (std::size_t i = 0; i < GetParam().completions; ++i) {
    Append(frames, VYRCam::UpdateComplete());
    Append(frames, VYRCam::UpdateError());
  }
  if (GetParam().directory) mkdir((dir / "data").c_str(), 0700);
  if (!GetParam().directory) dir.Write("data", std::string(frames.begin(), frames.end()));
  Tallyvane helper(dir / "data", Updater::SystemClock());
  const auto seen = Capture([&] {
    std::thread reader([&] { helper.RunReader(); });
    std::this_thread::sleep_for(2s);
    helper.StopReader();
    reader.join();
  });
  EXPECT_GE(CountOf(seen.out + seen.err, GetParam().failure), 2u);
  EXPECT_LE(CountOf(seen.out + seen.err, GetParam().failure), 12u);
  EXPECT_EQ(CountOf(seen.out, "that the update has completed!"), GetParam().completions);
}

const DeadLink kDeadLinks[] = {
    {"Directory", "read() EOD: Is a directory", /*directory=*/true},
    {"FileOfFrames", "Read 0 bytes", /*directory=*/false, /*completions=*/1},
};
INSTANTIATE_TEST_SUITE_P(Paths, ADeadDataPath, testing::ValuesIn(kDeadLinks), RowName<DeadLink>);

// The receive loop alone on a FIFO of ours, its output counted from a file as it comes.
class AFifoDevice : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkfifo(device.c_str(), 0600), 0);
    std::fflush(stdout);
    dup2(out, STDOUT_FILENO);
    reader = std::thread([&] { helper.RunReader(); });
    close(Connect());
    ASSERT_TRUE(WaitUntil([&] { return Reopens() == 1; }, 5000ms));
  }
  void TearDown() override {
    helper.StopReader();
    if (reader.joinable()) reader.join();
    std::fflush(stdout);
    dup2(console, STDOUT_FILENO);
    close(console);
    close(out);
  }
  int Connect() {  // fails with ENXIO while the loop has the device closed
    int fd = -1;
    WaitUntil([&] { return (fd = open(device.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }, 5000ms);
    return fd;
  }
  std::size_t Reopens() {  // "Read 0 bytes" so far: a writer went away and the device was reopened
    char chunk[4096];
    for (ssize_t n; (n = pread(out, chunk, sizeof chunk, consumed)) > 0; consumed += n) {
      tail.append(chunk, static_cast<std::size_t>(n));
      reopens += CountOf(tail, "Read 0 bytes");
      tail.erase(0, tail.size() - std::min<std::size_t>(tail.size(), 11));  // never a whole "Read 0 bytes"
    }
    return reopens;
  }
  TempDir dir;
  const std::string device = dir / "data";
  FakeClock clock;  // keeps progress lines and "ouch" reminders out, and counts pauses
  Tallyvane helper{device, clock};
  const int out = open((dir / "out").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int console = dup(STDOUT_FILENO);
  std::thread reader;
  std::string tail;
  std::size_t reopens = 0;
  off_t consumed = 0;
};

TEST_F(AFifoDevice, TakesABurstOf1024BytesInOneRead) {
  Bytes burst;  // whole frames, the update information last: a burst cut in two loses it
  Append(burst, VYRCam::UpdateError());
  for (int i = 0; i < 111; ++i) Append(burst, VYRCam::DatalinkPacketAck(static_cast<std::uint8_t>(i), true));
  Append(burst, VYRCam::UpdateInfo(7, 3, 64, 2));
  ASSERT_EQ(burst.size(), 1024u);
  const int fd = Connect();
  EXPECT_EQ(write(fd, burst.data(), burst.size()), 1024);
  EXPECT_TRUE(WaitUntil([&] { return helper.Board().State().haveUpdateInfo == 1; }, 5000ms));
  close(fd);
}

TEST_F(AFifoDevice, ReopensAtOnceTwoThousandTimesWithoutLeakingADescriptor) {
  const auto descriptors = [] {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
  };
  const auto before = descriptors();
  const auto connectOnce = [&] {  // whether the device has been reopened often enough
    close(Connect());
    return Reopens() >= 2001;
  };
  EXPECT_TRUE(WaitUntil(connectOnce, 60000ms));
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(clock.Slept(), 0ns) << "a writer leaving a FIFO is no failure to pace";
}

}  // namespace
