#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fifo_reader.hpp"
#include "lc/downlink_frame.hpp"
#include "lc/qel_arm_control.hpp"
#include "temp_dir.hpp"
#include "vyrcam/packets.hpp"

namespace {

using fwu::testing::FifoReader;
using fwu::testing::ScopedEnv;
using fwu::testing::TempDir;
using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

int Send(const Bytes& bytes, int channel = lc::kPacketChannel) {
  return lc::QelArmControl::Send_Dl_Us_Raw(channel, bytes.data(), bytes.size());
}

class DownlinkTest : public ::testing::Test {
 protected:
  TempDir dir;
  ScopedEnv env{"QUORVEX_TALLYVANE_DOWNLINK", dir.File("downlink")};
};

TEST_F(DownlinkTest, WritesOneFramePerCall) {
  FifoReader reader(dir.File("downlink"));
  VYRCam::UpdateAvailable packet(3, 0x1234, 500);
  packet.SequenceNumber(17);
  Bytes bytes(static_cast<std::size_t>(packet.Length()));
  packet.Pack(bytes.data());

  ASSERT_NE(Send(bytes), 0);
  ASSERT_NE(Send({0x42}, 200), 0);

  Bytes expected{0xAA, 0xA9, 5, static_cast<std::uint8_t>(bytes.size()), 0};
  expected.insert(expected.end(), bytes.begin(), bytes.end());
  expected.insert(expected.end(), {0xAA, 0xA9, 200, 1, 0, 0x42});
  EXPECT_EQ(reader.Read(expected.size()), expected);
  EXPECT_TRUE(reader.Drain().empty());
}

TEST_F(DownlinkTest, LengthFieldIsLittleEndianSixteenBits) {
  FifoReader reader(dir.File("downlink"));
  const Bytes big(lc::kMaxDownlinkPayload, 0x5C);
  ASSERT_NE(Send(big), 0);
  const Bytes got = reader.Read(lc::kDownlinkHeaderBytes + big.size());
  ASSERT_EQ(got.size(), lc::kDownlinkHeaderBytes + big.size());
  EXPECT_EQ(got[3] | (got[4] << 8), static_cast<int>(lc::kMaxDownlinkPayload));
  EXPECT_EQ(Bytes(got.begin() + 5, got.end()), big);
}

TEST_F(DownlinkTest, RefusesWhatCannotBeFramed) {
  FifoReader reader(dir.File("downlink"));
  EXPECT_EQ(Send({}), 0);
  EXPECT_EQ(Send(Bytes(lc::kMaxDownlinkPayload + 1, 1)), 0);
  EXPECT_EQ(Send({1}, -1), 0);
  EXPECT_EQ(Send({1}, 256), 0);
  EXPECT_EQ(lc::QelArmControl::Send_Dl_Us_Raw(5, nullptr, 3), 0);
  EXPECT_TRUE(reader.Drain().empty());
}

TEST_F(DownlinkTest, MissingDeviceFails) { EXPECT_EQ(Send({1, 2, 3}), 0); }

TEST_F(DownlinkTest, FifoWithoutReaderFailsAtOnce) {
  ASSERT_EQ(mkfifo(dir.File("downlink").c_str(), 0600), 0);
  const auto start = Clock::now();
  EXPECT_EQ(Send({1, 2, 3}), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(DownlinkTest, ReaderGoingAwayFailsWithoutKillingUsAndReaderComingBackWorks) {
  {
    FifoReader reader(dir.File("downlink"));
    ASSERT_NE(Send({1}), 0);
    EXPECT_EQ(reader.Read(6).size(), 6u);
  }
  // Writing into a pipe nobody reads raises SIGPIPE; we must still be alive.
  EXPECT_EQ(Send({2}), 0);
  unlink(dir.File("downlink").c_str());
  FifoReader again(dir.File("downlink"));
  ASSERT_NE(Send({3}), 0);
  EXPECT_EQ(again.Read(6), (Bytes{0xAA, 0xA9, 5, 1, 0, 3}));
}

TEST_F(DownlinkTest, FullPipeFailsWithinTheBound) {
  FifoReader reader(dir.File("downlink"));
  const Bytes chunk(lc::kMaxDownlinkPayload, 0);
  int sent = 0;
  const auto start = Clock::now();
  while (Send(chunk) != 0 && sent < 1000) ++sent;
  EXPECT_LT(sent, 1000) << "a pipe that nobody drains must fill up";
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  const auto failStart = Clock::now();
  EXPECT_EQ(Send(chunk), 0);
  EXPECT_LT(Clock::now() - failStart, std::chrono::seconds(1));
}

TEST_F(DownlinkTest, FollowsTheEnvironmentWhenThePathChanges) {
  FifoReader first(dir.File("downlink"));
  ASSERT_NE(Send({1}), 0);
  FifoReader second(dir.File("other"));
  ScopedEnv moved("QUORVEX_TALLYVANE_DOWNLINK", second.path());
  ASSERT_NE(Send({2}), 0);
  EXPECT_EQ(first.Read(6).back(), 1);
  EXPECT_EQ(second.Read(6).back(), 2);
  EXPECT_TRUE(first.Drain().empty());
}

TEST_F(DownlinkTest, ConcurrentSendersNeverInterleaveFrames) {
  FifoReader reader(dir.File("downlink"));
  constexpr int kThreads = 4;
  constexpr int kFrames = 200;
  std::atomic<int> failures{0};
  std::atomic<bool> sendersDone{false};
  Bytes received;
  std::thread drain([&] {
    while (!sendersDone) {
      const Bytes got = reader.Read(4096, std::chrono::milliseconds(20));
      received.insert(received.end(), got.begin(), got.end());
    }
    const Bytes rest = reader.Drain();
    received.insert(received.end(), rest.begin(), rest.end());
  });
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t) {
    senders.emplace_back([t, &failures] {
      // Each thread's frames have their own length and fill byte.
      const Bytes payload(static_cast<std::size_t>(100 + 37 * t), static_cast<std::uint8_t>(t));
      for (int i = 0; i < kFrames; ++i) {
        while (Send(payload) == 0) {
          if (++failures > 10000) return;
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
    });
  }
  for (auto& s : senders) s.join();
  sendersDone = true;
  drain.join();

  std::map<int, int> perThread;
  std::size_t at = 0;
  while (at + lc::kDownlinkHeaderBytes <= received.size()) {
    ASSERT_EQ(received[at], 0xAA) << "at " << at;
    ASSERT_EQ(received[at + 1], 0xA9) << "at " << at;
    const std::size_t count = received[at + 3] | (received[at + 4] << 8);
    ASSERT_LE(at + lc::kDownlinkHeaderBytes + count, received.size());
    const std::uint8_t owner = received[at + 5];
    ASSERT_EQ(count, 100u + 37u * owner);
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(received[at + 5 + i], owner);
    ++perThread[owner];
    at += lc::kDownlinkHeaderBytes + count;
  }
  EXPECT_EQ(at, received.size());
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(perThread[t], kFrames) << "thread " << t;
}

class FirmwareVersionTest : public ::testing::Test {
 protected:
  int VersionFrom(const std::string& text) {
    dir.Write("version", text);
    return lc::QelArmControl::TallyvaneFirmwareVer();
  }
  TempDir dir;
  ScopedEnv env{"QUORVEX_TALLYVANE_VERSION_FILE", dir.File("version")};
};

TEST_F(FirmwareVersionTest, ReadsOneDecimalNumber) {
  EXPECT_EQ(VersionFrom("42\n"), 42);
  EXPECT_EQ(VersionFrom("7"), 7);
  EXPECT_EQ(VersionFrom("  0  \r\n"), 0);
  EXPECT_EQ(VersionFrom("2147483647\n"), 2147483647);
}

TEST_F(FirmwareVersionTest, GarbageIsUnknown) {
  for (const char* text : {"", "\n", "abc", "12abc", "1 2", "-3", "+3", "0x10", "2147483648", "4.5",
                           "99999999999999999999"}) {
    EXPECT_EQ(VersionFrom(text), -1) << "'" << text << "'";
  }
  EXPECT_EQ(VersionFrom(std::string(100, ' ') + "5"), -1);
}

TEST_F(FirmwareVersionTest, MissingFileOrDirectoryIsUnknown) {
  EXPECT_EQ(lc::QelArmControl::TallyvaneFirmwareVer(), -1);
  mkdir(dir.File("version").c_str(), 0700);
  EXPECT_EQ(lc::QelArmControl::TallyvaneFirmwareVer(), -1);
}

TEST_F(FirmwareVersionTest, FifoWithoutWriterDoesNotHang) {
  ASSERT_EQ(mkfifo(dir.File("version").c_str(), 0600), 0);
  const auto start = Clock::now();
  EXPECT_EQ(lc::QelArmControl::TallyvaneFirmwareVer(), -1);
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(500));
}

}  // namespace
