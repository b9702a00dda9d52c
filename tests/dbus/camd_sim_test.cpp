// The simulator's camera model on its own: the update protocol as a camera
// sees it, and the fault schedule, without a bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "camera_model.hpp"

namespace CamdSim {
namespace {

Options Parse(const std::vector<std::string>& args) {
  std::string message;
  bool help = false;
  auto options = ParseOptions(args, message, help);
  EXPECT_TRUE(options.has_value()) << message;
  return options.value_or(Options{});
}

std::vector<std::uint8_t> Bytes(std::size_t n) {
  std::vector<std::uint8_t> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>(i * 7 + 1);
  return v;
}

// Plays the updater's part: whole chunks of `size` from `first` on.
int Deliver(Camera& cam, const std::vector<std::uint8_t>& image, int size) {
  int pos = cam.GetFirstUpdateBlock();
  int status = 0;
  while (true) {
    const auto end = std::min<std::size_t>(image.size(), static_cast<std::size_t>(pos + size));
    cam.SendFirmwareBlock(pos, {image.begin() + pos, image.begin() + static_cast<long>(end)});
    status = cam.WaitForAck();
    if (status != 0) return status;
    pos = cam.GetNextFirmwareBlock();
  }
}

TEST(CamdSimCamera, AssemblesTheImageAndAcksTheLastChunkWithThree) {
  const Options options = Parse({});
  Camera cam("0", options);
  EXPECT_FALSE(cam.UpdateInfoReceived());
  cam.RequestUpdateInfo();
  EXPECT_TRUE(cam.UpdateInfoReceived());
  const auto image = Bytes(1000);
  cam.SendUpdateAvailable(2, Crc16(image), 1000);
  EXPECT_EQ(Deliver(cam, image, 64), 3);
  EXPECT_TRUE(cam.Done());
  EXPECT_EQ(cam.WaitForAck(), 3);  // and stays done for the polls that follow
  EXPECT_EQ(cam.Image(), image);
  EXPECT_EQ(cam.GetPreviouslyDownloadedChunks(), 16);
  char expected[64];
  std::snprintf(expected, sizeof expected, "VERDICT ok camera=0 bytes=1000 crc=%04x", Crc16(image));
  EXPECT_EQ(cam.Verdict(), expected);
}

TEST(CamdSimCamera, LostAckKeepsTheChunkPendingUntilDequeued) {
  const Options options = Parse({"--lose-acks=1-2"});
  Camera cam("0", options);
  const auto image = Bytes(128);
  cam.SendUpdateAvailable(2, Crc16(image), 128);
  cam.SendFirmwareBlock(0, {image.begin(), image.begin() + 64});
  EXPECT_EQ(cam.WaitForAck(), 1);
  cam.DequeuePacket();
  EXPECT_EQ(cam.Dequeued(), 1);
  // The resend is taken; the dropped chunk left no trace.
  cam.SendFirmwareBlock(0, {image.begin(), image.begin() + 32});
  EXPECT_EQ(cam.WaitForAck(), 1);
  EXPECT_EQ(cam.WaitForAck(), 0);
  EXPECT_EQ(cam.GetNextFirmwareBlock(), 32);
  // Nothing pending: a poll cannot acknowledge anything.
  EXPECT_EQ(cam.WaitForAck(), 1);
}

TEST(CamdSimCamera, ScriptedFaultsHitTheNamedCallsOnly) {
  const Options options = Parse({"--info-false=2", "--fail-send=2", "--negative-next=1",
                                 "--ack-status=3:5", "--first=-1"});
  Camera cam("0", options);
  cam.RequestUpdateInfo();
  EXPECT_FALSE(cam.UpdateInfoReceived());
  EXPECT_FALSE(cam.UpdateInfoReceived());
  EXPECT_TRUE(cam.UpdateInfoReceived());
  EXPECT_EQ(cam.GetFirstUpdateBlock(), -1);
  cam.SendUpdateAvailable(2, 0, 1000);
  EXPECT_TRUE(cam.SendFirmwareBlock(0, Bytes(8)));
  EXPECT_FALSE(cam.SendFirmwareBlock(0, Bytes(8)));
  EXPECT_EQ(cam.WaitForAck(), 0);
  EXPECT_EQ(cam.GetNextFirmwareBlock(), -1);
  EXPECT_EQ(cam.GetNextFirmwareBlock(), 8);
  EXPECT_EQ(cam.WaitForAck(), 1);  // nothing pending
  EXPECT_EQ(cam.WaitForAck(), 5);

  const Options never = Parse({"--info-false=forever"});
  Camera stubborn("1", never);
  stubborn.RequestUpdateInfo();
  for (int i = 0; i < 200; ++i) ASSERT_FALSE(stubborn.UpdateInfoReceived());
}

TEST(CamdSimCamera, ResumeStartsFromThePreloadedPrefix) {
  const auto image = Bytes(300);
  const std::string path = ::testing::TempDir() + "/camd-sim-preload.bin";
  {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(image.data()), 300);
  }
  const Options options = Parse({"--first=128", "--preload=" + path});
  Camera cam("0", options);
  cam.SendUpdateAvailable(2, Crc16(image), 300);
  EXPECT_EQ(Deliver(cam, image, 64), 3);
  EXPECT_EQ(cam.Image(), image);
  EXPECT_EQ(cam.GetPreviouslyDownloadedChunks(), 3);
  EXPECT_EQ(cam.Verdict().rfind("VERDICT ok", 0), 0u) << cam.Verdict();
  std::remove(path.c_str());
}

}  // namespace
}  // namespace CamdSim
