// The update operations on real image files, with the test playing the
// board from inside the helper's waits.
#include <gtest/gtest.h>

#include <random>

#include "helpers/tallyvane/tallyvane.hpp"
#include "link_fixture.hpp"

namespace {

using namespace std::chrono_literals;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
using Updater::Helpers::Tallyvane;
using namespace Updater::Testing;

std::uint16_t Checksum(const std::vector<std::uint8_t>& bytes) {
  CaptureStdout();
  const auto sum = Tallyvane::tallyvane_checksum(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  GetCapturedStdout();
  return sum;
}

TEST(TallyvaneChecksum, IsTheByteSumSubtractedFrom256) {
  EXPECT_EQ(Checksum({}), 256);
  EXPECT_EQ(Checksum({200, 56}), 0);
  EXPECT_EQ(Checksum({255, 45}), 65492);
  // 300 bytes of 0xFF sum to 76500, which wraps to 10964 in 16 bits.
  EXPECT_EQ(Checksum(std::vector<std::uint8_t>(300, 0xFF)), static_cast<std::uint16_t>(256 - 10964));
}

TEST(TallyvaneChecksum, PrintsLengthAndLocationInGreen) {
  ResetStreams();
  CaptureStdout();
  Tallyvane::tallyvane_checksum("abc", 3);
  EXPECT_EQ(GetCapturedStdout(),
            "\033[0;32mfw-updater Debug: File length of [3]\033[0m\n"
            "\033[0;32mfw-updater Debug: [uint16_t Updater::Helpers::Tallyvane::tallyvane_checksum"
            "(const char*, size_t)::542]  \033[0m\n");
}

class HelperTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetStreams();
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "board-version").c_str(), 1);
    WriteText(dir / "board-version", "5\n");
  }
  void TearDown() override { ResetStreams(); }

  void Feed(const std::vector<std::uint8_t>& bytes) { helper.Receive(bytes.data(), bytes.size()); }

  void AckEverything() {
    for (auto sequence : helper.PendingSequences()) Feed(Frame(VYRCam::DatalinkPacketAck(sequence, true)));
  }

  // The board answers the information request during the first 100 ms wait.
  void BoardAnswersRequest() {
    clock.onSleep = [this](int sleeps) {
      if (sleeps != 1) return;
      AckEverything();
      Feed(Frame(VYRCam::UpdateInfo(0, 0, 64, 1)));
    };
  }

  // Runs the check quietly with the board answering; leaves nothing pending.
  int Check() {
    BoardAnswersRequest();
    CaptureStdout();
    const int result = helper.CheckForUpdate();
    lastOut = GetCapturedStdout();
    AckEverything();
    clock.onSleep = nullptr;
    downlink.Take();
    ResetStreams();
    return result;
  }

  std::vector<std::uint8_t> SentBlockData() {
    const auto sent = downlink.Take();
    EXPECT_EQ(sent.size(), 1u);
    if (sent.size() != 1) return {};
    VYRCam::FirmwareBlock block;
    EXPECT_EQ(block.Unpack(reinterpret_cast<const char*>(sent[0].bytes.data()), sent[0].bytes.size()), 0);
    return block.Data();
  }

  TempDir dir;
  DownlinkTap downlink{dir};
  ScriptedClock clock;
  Tallyvane helper{dir / "no-device", clock};
  std::string lastOut;
};

TEST_F(HelperTest, NoAnswerFromTheBoardMeansNoUpdateAfter102Polls) {
  std::vector<std::uint8_t> image(10, 1);
  WriteFile(dir / "tallyvane-9.bin", image);
  CaptureStdout();
  EXPECT_EQ(helper.CheckForUpdate(), 0);
  const auto out = GetCapturedStdout();
  EXPECT_EQ(out,
            " ** Sending message pkt # [0]\n"
            "\033[0;31mfw-updater Debug: [ERROR] -- Error asking tallyvane for update info status, "
            "not updating\033[0m\n");
  EXPECT_EQ(clock.Sleeps(), 102);
  EXPECT_EQ(clock.Slept(), 102 * 100ms);
  const auto sent = downlink.Take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].Type(), VYRCam::kRequestUpdateInfo);
  EXPECT_TRUE(helper.FirmwarePath().empty());
}

TEST_F(HelperTest, NewerImageIsAnnouncedWithItsByteSumAndLength) {
  // Larger than one checksum piece, so the sum is carried across pieces.
  std::vector<std::uint8_t> image(200000);
  std::mt19937 random(7);
  for (auto& b : image) b = static_cast<std::uint8_t>(random());
  const auto path = dir / "tallyvane-7.bin";
  WriteFile(path, image);
  const std::uint16_t expected = Checksum(image);

  BoardAnswersRequest();
  CaptureStdout();
  EXPECT_EQ(helper.CheckForUpdate(), 1);
  const auto out = GetCapturedStdout();
  EXPECT_EQ(clock.Sleeps(), 1);

  const auto sent = downlink.Take();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].Type(), VYRCam::kRequestUpdateInfo);
  VYRCam::UpdateAvailable announce;
  ASSERT_EQ(announce.Unpack(reinterpret_cast<const char*>(sent[1].bytes.data()), sent[1].bytes.size()), 0);
  EXPECT_EQ(announce.Version(), 7);
  EXPECT_EQ(announce.Hash(), expected);
  EXPECT_EQ(announce.Chunks(), image.size());

  // From the checksum on, standard output is hexadecimal and stays so.
  char hex[8];
  std::snprintf(hex, sizeof hex, "%x", expected);
  EXPECT_NE(out.find("\033[0;32mfw-updater Debug: File length of [200000]\033[0m\n"), std::string::npos);
  EXPECT_NE(out.find("\033[0;32mfw-updater Debug: Checksum: [" + std::string(hex) + "]\033[0m\n"
                     "This file [" + path + "] contains [30d40] chunks of [40]\n"
                     "Sending version [7] with hash [" + hex + "] in [30d40] chunks\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(std::cout.flags() & std::ios::basefield, std::ios::hex);
  EXPECT_EQ(helper.PackageVersion(), 7);
  EXPECT_EQ(helper.FirmwarePath(), path);
}

TEST_F(HelperTest, ImageNotNewerThanTheBoardMeansNoUpdate) {
  WriteFile(dir / "tallyvane-5.bin", {1, 2, 3});
  EXPECT_EQ(Check(), 0);
  EXPECT_EQ(lastOut.find("Checksum"), std::string::npos);
  EXPECT_EQ(helper.PackageVersion(), 5);

  WriteText(dir / "board-version", "6\n");
  EXPECT_EQ(Check(), 0);
}

TEST_F(HelperTest, NoImageMeansNoUpdateAndNoFile) {
  WriteText(dir / "board-version", "garbage");  // the board's version is unknown too
  EXPECT_EQ(Check(), 0);
  EXPECT_EQ(lastOut.find("Sending version"), std::string::npos);

  CaptureStdout();
  EXPECT_FALSE(helper.HaveUpdateFile());
  EXPECT_EQ(GetCapturedStdout(), "No update file; can't update!\n");
}

TEST_F(HelperTest, ChunksAreReadAtTheBoardsPositionAndTheLastIsShort) {
  std::vector<std::uint8_t> image(100);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i * 3);
  WriteFile(dir / "tallyvane-8.bin", image);
  ASSERT_EQ(Check(), 1);
  EXPECT_TRUE(helper.HaveUpdateFile());

  CaptureStderr();
  EXPECT_EQ(helper.SendFirmwareBlock(0), 1);
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_EQ(SentBlockData(), std::vector<std::uint8_t>(image.begin(), image.begin() + 64));
  AckEverything();

  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(helper.SendFirmwareBlock(64), 1);
  const auto err = GetCapturedStderr();
  const auto out = GetCapturedStdout();
  EXPECT_EQ(err,
            "Chunk #[64] extends past file (length [100]), this should be the last chunk!\n"
            "Couldn't read full [64] bytes into chunk, only read [36] bytes.\n");
  EXPECT_EQ(out.rfind("This block: [64], blockSize: [64]\n", 0), 0u);
  EXPECT_EQ(SentBlockData(), std::vector<std::uint8_t>(image.begin() + 64, image.end()));
}

TEST_F(HelperTest, PositionAtTheEndSendsAnEmptyChunkAndBeyondIsRefused) {
  WriteFile(dir / "tallyvane-8.bin", std::vector<std::uint8_t>(100, 9));
  ASSERT_EQ(Check(), 1);

  CaptureStderr();
  EXPECT_EQ(helper.SendFirmwareBlock(100), 1);
  EXPECT_EQ(GetCapturedStderr(),
            "Chunk #[100] extends past file (length [100]), this should be the last chunk!\n"
            "Couldn't read full [64] bytes into chunk, only read [0] bytes.\n");
  EXPECT_TRUE(SentBlockData().empty());
  AckEverything();

  CaptureStderr();
  EXPECT_EQ(helper.SendFirmwareBlock(101), 0);
  EXPECT_EQ(GetCapturedStderr(),
            "Calculated chunk start of [101] which is larger than the firmware file... aborting update.\n");
  EXPECT_TRUE(downlink.Take().empty());
}

TEST_F(HelperTest, ImageIsReadAfreshForEveryChunk) {
  const auto path = dir / "tallyvane-8.bin";
  WriteFile(path, std::vector<std::uint8_t>(64, 1));
  ASSERT_EQ(Check(), 1);
  WriteFile(path, std::vector<std::uint8_t>(64, 2));
  EXPECT_EQ(helper.SendFirmwareBlock(0), 1);
  EXPECT_EQ(SentBlockData(), std::vector<std::uint8_t>(64, 2));
  AckEverything();

  std::filesystem::remove(path);
  EXPECT_EQ(helper.SendFirmwareBlock(0), 0);
  EXPECT_TRUE(downlink.Take().empty());
}

TEST_F(HelperTest, FirstBlockIsWaitedForAndNextBlockIsTheBoardsWord) {
  clock.onSleep = [this](int sleeps) {
    if (sleeps == 5) Feed(Frame(VYRCam::ReceivedFirmwareBlock(-1, 128)));
  };
  EXPECT_EQ(helper.GetFirstUpdateBlock(), 128);
  EXPECT_EQ(clock.Sleeps(), 5);
  EXPECT_EQ(clock.Slept(), 5 * 30ms);
  EXPECT_EQ(helper.GetFirstUpdateBlock(), 128);
  EXPECT_EQ(clock.Sleeps(), 5);

  EXPECT_EQ(helper.GetNextFirmwareBlock(), 128);
  Feed(Frame(VYRCam::ReceivedFirmwareBlock(128, 192)));
  EXPECT_EQ(helper.GetNextFirmwareBlock(), 192);
  Feed(Frame(VYRCam::UpdateComplete()));
  EXPECT_EQ(helper.GetNextFirmwareBlock(), -1);
}

}  // namespace
