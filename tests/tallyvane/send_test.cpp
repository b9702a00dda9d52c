// Send path: numbering, the pending queue, expiry, and the block
// acknowledgement wait with its packet size. What reaches the board is read
// back from the downlink FIFO.
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

class SendTest : public testing::Test {
 protected:
  void SetUp() override { ResetStreams(); }

  void Feed(const std::vector<std::uint8_t>& bytes) { helper.Receive(bytes.data(), bytes.size()); }

  void AckEverything() {
    for (auto sequence : helper.PendingSequences()) Feed(Frame(VYRCam::DatalinkPacketAck(sequence, true)));
  }

  // Sends one chunk the way the machine would and has the board report it.
  void SendAndReport(int reportedOffset = 0) {
    ASSERT_TRUE(helper.SendBlock(0, std::vector<std::uint8_t>(4, 0x5A)));
    AckEverything();
    const int sent = helper.State().lastSentBlock;
    Feed(Frame(VYRCam::ReceivedFirmwareBlock(sent + reportedOffset, 0)));
  }

  TempDir dir;
  DownlinkTap downlink{dir};
  FakeClock clock;
  Tallyvane helper{dir / "no-device", clock};
};

TEST_F(SendTest, SecondPacketWantingAnAckIsQueuedNotSent) {
  VYRCam::RequestUpdateInfo request;
  VYRCam::ClearPendingUpdate clear;
  EXPECT_TRUE(helper.SendPacket(request));
  EXPECT_FALSE(helper.SendPacket(clear));

  const auto sent = downlink.Take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].channel, Tallyvane::kDownlinkChannel);
  EXPECT_EQ(sent[0].Type(), VYRCam::kRequestUpdateInfo);
  EXPECT_EQ(helper.PendingCount(), 2u);

  // Packets that want no acknowledgement never wait behind the queue.
  VYRCam::DatalinkPacketAck noAck(1, true);
  EXPECT_TRUE(helper.SendPacket(noAck));
  EXPECT_EQ(downlink.Take().size(), 1u);
  EXPECT_EQ(helper.PendingCount(), 2u);
}

TEST_F(SendTest, SequenceNumbersWrapAfter255) {
  CaptureStdout();
  for (int i = 0; i < 258; ++i) {
    VYRCam::DatalinkPacketAck packet(0, true);
    ASSERT_TRUE(helper.SendPacket(packet));
  }
  const auto out = GetCapturedStdout();
  const auto sent = downlink.Take();
  ASSERT_EQ(sent.size(), 258u);
  for (std::size_t i = 0; i < sent.size(); ++i) ASSERT_EQ(sent[i].Sequence(), i % 256) << i;
  EXPECT_NE(out.find(" ** Sending message pkt # [255]\n ** Sending message pkt # [0]\n"), std::string::npos);
}

TEST_F(SendTest, ClearPendingEmptiesTheQueueWithACyanLine) {
  VYRCam::RequestUpdateInfo a;
  VYRCam::ApplyUpdate b;
  helper.SendPacket(a);
  helper.SendPacket(b);
  CaptureStdout();
  helper.ClearPending();
  EXPECT_EQ(GetCapturedStdout(), "\033[0;36mfw-updater Debug: Clearing Vexalume packet queue\033[0m\n");
  EXPECT_EQ(helper.PendingCount(), 0u);
}

TEST_F(SendTest, ResendExpiredSendsTheOldestOnlyAfterTheTimeout) {
  VYRCam::RequestUpdateInfo first;
  VYRCam::ApplyUpdate second;
  helper.SendPacket(first);
  helper.SendPacket(second);
  const auto original = downlink.Take();
  ASSERT_EQ(original.size(), 1u);

  clock.Advance(3000ms);
  CaptureStderr();
  EXPECT_TRUE(helper.ResendExpired());
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_TRUE(downlink.Take().empty());

  clock.Advance(1ns);
  CaptureStderr();
  EXPECT_TRUE(helper.ResendExpired());
  EXPECT_EQ(GetCapturedStderr(), "VYR cam expired ACK [#0], resending.\n");
  auto again = downlink.Take();
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0].bytes, original[0].bytes);

  // The resend restarted its timer.
  EXPECT_TRUE(helper.ResendExpired());
  EXPECT_TRUE(downlink.Take().empty());

  // Once the first is acknowledged, the one queued behind it leaves the same way.
  helper.RemovePending(0);
  clock.Advance(3001ms);
  EXPECT_TRUE(helper.ResendExpired());
  again = downlink.Take();
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0].Type(), VYRCam::kApplyUpdate);
  EXPECT_EQ(again[0].Sequence(), 1);
}

TEST_F(SendTest, SendBlockPrintsBothLinesAndCountsBlocks) {
  const int before = Tallyvane::sentBlockCounter;
  CaptureStdout();
  ASSERT_TRUE(helper.SendBlock(100, {1, 2, 3, 4, 5}));
  const auto out = GetCapturedStdout();
  EXPECT_EQ(out, "** Sending bytes from [100] to [104]\n"
                 "** Sending bytes from [blockNum()] to [4]\n"
                 " ** Sending message pkt # [0]\n"
                 "Setting last sent byte to [" + std::to_string(before + 1) + "]\n");
  EXPECT_EQ(helper.State().lastSentBlock, before + 1);

  const auto sent = downlink.Take();
  ASSERT_EQ(sent.size(), 1u);
  VYRCam::FirmwareBlock block;
  ASSERT_EQ(block.Unpack(reinterpret_cast<const char*>(sent[0].bytes.data()), sent[0].bytes.size()), 0);
  EXPECT_EQ(block.BlockNum(), 100);
  EXPECT_EQ(block.Data(), (std::vector<unsigned char>{1, 2, 3, 4, 5}));

  // Held back behind the unacknowledged block: not counted.
  EXPECT_FALSE(helper.SendBlock(105, {6}));
  EXPECT_EQ(Tallyvane::sentBlockCounter, before + 1);
}

TEST_F(SendTest, PacketSizeDropsToOneAfterAFailedWaitAndClimbsBackTo64) {
  ASSERT_TRUE(helper.SendBlock(0, {1}));  // never reported by the board

  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(helper.WaitForAck(0), 1);  // no block report ever comes
  const auto err = GetCapturedStderr();
  const auto out = GetCapturedStdout();
  EXPECT_EQ(err, "Caught ACK timeout! Still waiting...\n");
  EXPECT_EQ(Count(out, "Returning without firmware black ACK!\n"), 3u);
  EXPECT_NE(out.find("Tallyvane ACK status: 1\n"
                     "\033[0;36mfw-updater Debug: Clearing Vexalume packet queue\033[0m\n"
                     "********************* Dropping packet size to [1]\n"),
            std::string::npos);
  EXPECT_EQ(helper.PacketSize(), 1);
  EXPECT_EQ(helper.PendingCount(), 0u);
  // Three attempts, each 167 polls of 30 ms and 12 pauses of 250 ms.
  EXPECT_EQ(clock.Sleeps(), 3 * (167 + 12));
  EXPECT_EQ(clock.Slept(), 3 * (167 * 30ms + 12 * 250ms));

  for (int expected : {2, 4, 8, 16, 32, 64}) {
    SendAndReport();
    CaptureStdout();
    EXPECT_EQ(helper.WaitForAck(0), 0);
    EXPECT_NE(GetCapturedStdout().find("Bumping packet size to [" + std::to_string(expected) + "]\n"),
              std::string::npos);
    EXPECT_EQ(helper.PacketSize(), expected);
  }

  // At the top it stays there, without a word about it.
  SendAndReport();
  CaptureStdout();
  EXPECT_EQ(helper.WaitForAck(0), 0);
  EXPECT_EQ(GetCapturedStdout(), "[Talyvane] waiting for ACK!\nTallyvane ACK status: 0\n");
  EXPECT_EQ(helper.PacketSize(), 64);
}

TEST_F(SendTest, ReportBeyondTheLastSentBlockIsTakenAsAMissedAck) {
  SendAndReport(100);
  const int reported = helper.State().lastAckedBlock;
  CaptureStdout();
  EXPECT_EQ(helper.WaitForAck(0), 0);
  const auto out = GetCapturedStdout();
  EXPECT_EQ(Count(out, "************************************* Debug: Possible missed ACK?\n"), 1u);
  const std::string both = std::to_string(reported);
  EXPECT_NE(out.find("Last Acked: [" + both + "], last sent: [" + both + "]\n"), std::string::npos);
  EXPECT_EQ(helper.State().lastSentBlock, reported);
  // One 30 ms poll for the report, one 250 ms pause before the second round.
  EXPECT_EQ(clock.Slept(), 30ms + 250ms);
}

}  // namespace
