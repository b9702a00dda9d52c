// Frame parsing and the handlers behind it, fed one read() at a time.
#include <syslog.h>

#include <gtest/gtest.h>

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

std::string Hex(const std::vector<std::uint8_t>& bytes) {
  std::string out;
  char cell[4];
  for (auto b : bytes) {
    std::snprintf(cell, sizeof cell, "%02X ", b);
    out += cell;
  }
  return out;
}

class ReceiveTest : public testing::Test {
 protected:
  void SetUp() override {
    ResetStreams();
    Tallyvane::lastProgressPrint = clock.Now() - 1h;
  }

  std::string Feed(const std::vector<std::uint8_t>& bytes) {
    CaptureStdout();
    helper.Receive(bytes.data(), bytes.size());
    return GetCapturedStdout();
  }

  TempDir dir;
  DownlinkTap downlink{dir};
  FakeClock clock;
  Tallyvane helper{dir / "no-device", clock};
};

TEST_F(ReceiveTest, ReadsTooShortForAFrameAreIgnored) {
  EXPECT_EQ(Feed({0xAA, 0xA9}), "");
  EXPECT_EQ(Feed({0x01, 0x02}), "");
  EXPECT_EQ(Feed({}), "");
  const auto state = helper.State();
  EXPECT_EQ(state.nextBlock, -1);
  EXPECT_EQ(state.haveUpdateInfo, 0);
}

TEST_F(ReceiveTest, ReadNotStartingWithSyncIsDroppedWholeWithOneGulp) {
  const auto report = Frame(VYRCam::ReceivedFirmwareBlock(-1, 128));
  EXPECT_EQ(Feed(Concat({{0x00}, report})), "GULP; ignoring this frame's data\n");
  EXPECT_EQ(Feed(Concat({{0xAA, 0x00}, report})), "GULP; ignoring this frame's data\n");
  EXPECT_EQ(helper.State().nextBlock, -1);
}

TEST_F(ReceiveTest, TwoFramesInOneReadAreHandledInOrder) {
  const auto out = Feed(Concat({Frame(VYRCam::ReceivedFirmwareBlock(-1, 10)),
                                Frame(VYRCam::ReceivedFirmwareBlock(10, 20))}));
  const auto state = helper.State();
  EXPECT_EQ(state.firstBlock, 10);  // set only by the first report
  EXPECT_EQ(state.nextBlock, 20);   // left by the second
  EXPECT_EQ(state.lastAckedBlock, 10);
  EXPECT_EQ(Count(out, "CHOKE"), 0u);
  EXPECT_EQ(Count(out, "GULP"), 0u);
}

TEST_F(ReceiveTest, FrameAfterGarbageTailStopsWithGulp) {
  const auto out = Feed(Concat({Frame(VYRCam::ReceivedFirmwareBlock(-1, 10)), {0x55, 0x66, 0x77},
                                Frame(VYRCam::ReceivedFirmwareBlock(10, 20))}));
  EXPECT_EQ(out, "GULP; ignoring this frame's data\n");
  EXPECT_EQ(helper.State().nextBlock, 10);
}

// Types the updater has no class for: 34 sits among the board's codes, 40 above them.
class UnknownTypeTest : public ReceiveTest, public testing::WithParamInterface<int> {};

TEST_P(UnknownTypeTest, IsDumpedAndSkippedByteByByteUntilTheNextFrame) {
  auto unknown = Frame(VYRCam::UpdateComplete());
  unknown[3] = static_cast<std::uint8_t>(GetParam());
  const auto good = Frame(VYRCam::ReceivedFirmwareBlock(-1, 64));
  const auto read = Concat({unknown, good});

  const auto out = Feed(read);

  // First the whole read, then the same read one byte further on.
  const std::string first = "*** Received:\n" + Hex(read) + "\nCHOKE\n";
  const std::string second =
      "*** Received:\n" + Hex(std::vector<std::uint8_t>(read.begin() + 1, read.end())) + "\nCHOKE\n";
  EXPECT_EQ(out.rfind(first + second, 0), 0u) << out;
  EXPECT_EQ(Count(out, "CHOKE"), unknown.size());
  EXPECT_EQ(helper.State().nextBlock, 64);
}

INSTANTIATE_TEST_SUITE_P(Codes, UnknownTypeTest, testing::Values(34, 40));

TEST_F(ReceiveTest, CorruptFrameInTheMiddleCostsOneChokePerByteUntilTheNextSync) {
  auto corrupt = Frame(VYRCam::ReceivedFirmwareBlock(10, 20));
  corrupt.back() ^= 0xFF;  // check bytes no longer match
  const auto out = Feed(Concat({Frame(VYRCam::ReceivedFirmwareBlock(-1, 10)), corrupt,
                                Frame(VYRCam::ReceivedFirmwareBlock(20, 30))}));

  EXPECT_EQ(Count(out, "CHOKE\n"), corrupt.size());
  EXPECT_EQ(Count(out, "\033[0;31mfw-updater Debug: [ERROR] -- Failed to Unpack ReceivedFirmwareBlock [4]\033[0m\n"),
            1u);
  const auto state = helper.State();
  EXPECT_EQ(state.firstBlock, 10);
  EXPECT_EQ(state.nextBlock, 30);
  EXPECT_EQ(state.lastAckedBlock, 20);
}

TEST_F(ReceiveTest, InfoAndCompletionThatFailToUnpackAreReportedInRed) {
  auto info = Frame(VYRCam::UpdateInfo(1, 2, 64, 3));
  info.resize(info.size() - 4);  // the frame runs past the end of the read
  auto out = Feed(info);
  EXPECT_NE(out.find("\033[0;31mfw-updater Debug: [ERROR] -- Failed to Unpack UpdateInfo [1]\033[0m\n"),
            std::string::npos);
  EXPECT_GE(Count(out, "CHOKE"), 1u);
  EXPECT_EQ(helper.State().haveUpdateInfo, 0);

  auto complete = Frame(VYRCam::UpdateComplete());
  complete[5] ^= 0x01;  // the sequence byte is covered by the check
  out = Feed(complete);
  EXPECT_NE(out.find("\033[0;31mfw-updater Debug: [ERROR] -- Failed to Unpack UpdateComplete [4]\033[0m\n"),
            std::string::npos);
  EXPECT_EQ(helper.State().updateCompleted, 0);
}

// syslog() mirrors its records to stderr under LOG_PERROR, which is how the
// two records that never reach the console are seen here.
TEST_F(ReceiveTest, AckAndUpdateErrorThatFailToUnpackGoToSyslog) {
  openlog("tallyvane-test", LOG_PERROR, LOG_USER);
  auto ack = Frame(VYRCam::DatalinkPacketAck(7, true));
  ack.back() ^= 0x10;
  auto error = Frame(VYRCam::UpdateError());
  error.pop_back();

  CaptureStderr();
  Feed(ack);
  Feed(error);
  const auto err = GetCapturedStderr();
  closelog();

  EXPECT_NE(err.find("Failed to Unpack DataLink Packet ACK [4]"), std::string::npos) << err;
  EXPECT_NE(err.find("Failed to Unpack UpdateError [1]"), std::string::npos) << err;
}

TEST_F(ReceiveTest, UpdateInfoIsStoredAndPrintedInGreen) {
  const auto out = Feed(Frame(VYRCam::UpdateInfo(0x1234, 0xFFFFFFFE, 32, 7)));
  const auto state = helper.State();
  EXPECT_EQ(state.haveUpdateInfo, 1);
  EXPECT_EQ(state.partialDlVer, 0x1234);
  EXPECT_EQ(state.downloadedBlocks, -2);  // sign-extended from 32 bits
  EXPECT_EQ(state.flashSector, 7);
  EXPECT_EQ(out,
            "\033[0;32mfw-updater Debug: Processed ACK for setUpdateInfo\n"
            "\tpartialDlVer: [4660]\n"
            "\t# DL blocks: [-2]\n"
            "\tflash Sector: [7]\033[0m\n");
}

TEST_F(ReceiveTest, ProgressLineIsThrottledExceptForTheLastReport) {
  const std::string line0 = "Processing ACK for firmware block, last byte: [0], next byte: [64]\n";
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(0, 64))), line0);

  clock.Advance(500ms);
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(64, 128))), "");
  clock.Advance(500ms);  // exactly the interval since the last line: still quiet
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(128, 192))), "");
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(192, 0xFFFFFFFF))),
            "Processing ACK for firmware block, last byte: [192], next byte: [-1]\n");
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(192, 0xFFFFFFFF))),
            "Processing ACK for firmware block, last byte: [192], next byte: [-1]\n");

  clock.Advance(1ms);
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(192, 256))),
            "Processing ACK for firmware block, last byte: [192], next byte: [256]\n");
  EXPECT_EQ(helper.State().nextBlock, 256);

  // The first report of a transfer restarts the interval without a line of its own.
  clock.Advance(2s);
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(-1, 0))), "");
  clock.Advance(900ms);
  EXPECT_EQ(Feed(Frame(VYRCam::ReceivedFirmwareBlock(0, 64))), "");
}

TEST_F(ReceiveTest, SecondUpdateCompleteIsIgnored) {
  const auto out = Feed(Frame(VYRCam::UpdateComplete()));
  EXPECT_EQ(out,
            "Last acked block: [-1], last sent block: [-1, setting them equal.\n"
            "Processing ACK for firmware block, last byte: [-1], next byte: [-1]\n"
            " ** Sending message pkt # [0]\n"
            "\033[0;32mfw-updater Debug: Tell UI, or whoever, that the update has completed!\033[0m\n");
  auto sent = downlink.Take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].Type(), VYRCam::kApplyUpdate);
  EXPECT_EQ(sent[0].channel, 5);

  // Acknowledge the ApplyUpdate so a second one could not be held back by the queue.
  Feed(Frame(VYRCam::DatalinkPacketAck(0, true)));
  EXPECT_EQ(helper.PendingCount(), 0u);
  EXPECT_EQ(Feed(Frame(VYRCam::UpdateComplete())), "");
  EXPECT_TRUE(downlink.Take().empty());
  const auto state = helper.State();
  EXPECT_EQ(state.updateCompleted, 1);
  EXPECT_EQ(state.firstBlock, -1);
  EXPECT_EQ(state.nextBlock, -1);
}

TEST_F(ReceiveTest, UpdateErrorResetsEveryFieldAndEmptiesTheQueueSilently) {
  Feed(Concat({Frame(VYRCam::UpdateInfo(3, 4, 64, 5)), Frame(VYRCam::ReceivedFirmwareBlock(-1, 40)),
               Frame(VYRCam::ReceivedFirmwareBlock(40, 80))}));
  helper.SendBlock(40, std::vector<std::uint8_t>(8, 0x11));
  Feed(Frame(VYRCam::UpdateComplete()));  // queues an ApplyUpdate behind the block
  ASSERT_EQ(helper.PendingCount(), 2u);
  auto before = helper.State();
  ASSERT_EQ(before.updateCompleted, 1);
  ASSERT_NE(before.lastSentBlock, -1);

  EXPECT_EQ(Feed(Frame(VYRCam::UpdateError())), "");

  const auto s = helper.State();
  EXPECT_EQ(helper.PendingCount(), 0u);
  EXPECT_EQ(s.updateCompleted, 0);
  EXPECT_EQ(s.partialDlVer, 0);
  EXPECT_EQ(s.downloadedBlocks, 0);
  EXPECT_EQ(s.haveUpdateInfo, 0);
  EXPECT_EQ(s.firstBlock, 0);
  EXPECT_EQ(s.lastReceived, -1);
  EXPECT_EQ(s.nextBlock, -1);
  EXPECT_EQ(s.blockReportReceived, 0);
  EXPECT_EQ(s.lastSentBlock, -1);
  EXPECT_EQ(s.lastAckedBlock, -1);
  // The flash sector is not part of an update's progress and is kept.
  EXPECT_EQ(s.flashSector, 5);
}

TEST_F(ReceiveTest, AcknowledgementRemovesOnlyTheMatchingPendingPacket) {
  VYRCam::RequestUpdateInfo first;
  VYRCam::ClearPendingUpdate second;
  helper.SendPacket(first);
  helper.SendPacket(second);
  ASSERT_EQ(helper.PendingSequences(), (std::vector<std::uint8_t>{0, 1}));

  Feed(Frame(VYRCam::DatalinkPacketAck(1, false)));  // a refusal changes nothing
  EXPECT_EQ(helper.PendingSequences(), (std::vector<std::uint8_t>{0, 1}));
  Feed(Frame(VYRCam::DatalinkPacketAck(1, true)));
  EXPECT_EQ(helper.PendingSequences(), (std::vector<std::uint8_t>{0}));
  Feed(Frame(VYRCam::DatalinkPacketAck(9, true)));
  EXPECT_EQ(helper.PendingSequences(), (std::vector<std::uint8_t>{0}));

  EXPECT_FALSE(helper.RemovePending(9));
  EXPECT_TRUE(helper.RemovePending(0));
  EXPECT_TRUE(helper.RemovePending(9));  // nothing outstanding: nothing to miss
}

}  // namespace
