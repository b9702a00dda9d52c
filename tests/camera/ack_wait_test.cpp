// The acknowledgement wait and the first-block poll, through the real proxy
// against camd-sim, with the pauses on a fake clock.
#include <gtest/gtest.h>

#include <chrono>

#include "camera_fixture.hpp"
#include "dbus/errors.hpp"
#include "fake_clock.hpp"
#include "helpers/camera/vyr_camera.hpp"

namespace Updater::Testing {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;
using namespace std::chrono_literals;

class AckWaitTest : public CameraTest {
 protected:
  // A chunk in flight, so that camd has something to acknowledge.
  void SendOneChunk(Helpers::CamdDbusIface& camd) {
    camd.SendUpdateAvailable(2, 0, 1000);
    camd.SendFirmwareBlock(0, std::vector<unsigned char>(64, 1));
  }
  struct Outcome {
    int status;
    std::string out, err;
  };
  Outcome Wait(Helpers::VyrCamera& camera) {
    CaptureStdout();
    CaptureStderr();
    const int status = camera.WaitForAck(0);
    Outcome o{status, GetCapturedStdout(), GetCapturedStderr()};
    // A call with an answer: camd has handled any DequeuePacket sent before it.
    camera.Proxy().GetFlashRegion();
    return o;
  }
  FakeClock clock_;
};

TEST_F(AckWaitTest, ImmediateAckAtFullSizeChangesNothing) {
  StartSim({});
  Helpers::VyrCamera camera("0", clock_);
  SendOneChunk(camera.Proxy());
  const auto o = Wait(camera);
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, "camd waiting for ACK!\ncamd ACK status: 0\n");
  EXPECT_EQ(o.err, "");
  EXPECT_EQ(camera.Proxy().packetSize, 64);
  EXPECT_EQ(SimCalls("WaitForAck"), 1u);
  EXPECT_EQ(clock_.Sleeps(), 0);
}

TEST_F(AckWaitTest, TenLossesDropThePacketAndHalveTheSize) {
  StartSim({"--lose-acks=1-10"});
  Helpers::VyrCamera camera("0", clock_);
  SendOneChunk(camera.Proxy());
  const auto o = Wait(camera);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out,
            "camd waiting for ACK!\ncamd ACK status: 1\n"
            "********************* Dropping packet size to [32]\n");
  EXPECT_EQ(o.err, "Caught ACK timeout! Still waiting...\n");
  EXPECT_EQ(camera.Proxy().packetSize, 32);
  EXPECT_EQ(SimCalls("WaitForAck"), 10u);
  EXPECT_EQ(SimCalls("DequeuePacket"), 1u);
  EXPECT_EQ(clock_.Sleeps(), 10);
  EXPECT_EQ(clock_.Slept(), 2s);
}

TEST_F(AckWaitTest, AckAfterThreeLossesDoublesASmallSize) {
  StartSim({"--lose-acks=1-3"});
  Helpers::VyrCamera camera("0", clock_);
  camera.Proxy().packetSize = 16;
  SendOneChunk(camera.Proxy());
  std::cout << std::hex;  // as after the update check
  const auto o = Wait(camera);
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, "camd waiting for ACK!\ncamd ACK status: 0\nBumping packet size to [20]\n");
  EXPECT_EQ(camera.Proxy().packetSize, 32);
  EXPECT_EQ(SimCalls("WaitForAck"), 4u);
  EXPECT_EQ(SimCalls("DequeuePacket"), 0u);
  EXPECT_EQ(clock_.Sleeps(), 3);
}

TEST_F(AckWaitTest, SizeStaysBetweenOneAndItsCeilingRules) {
  StartSim({"--lose-acks=1-10"});
  Helpers::VyrCamera camera("0", clock_);
  camera.Proxy().packetSize = 1;
  SendOneChunk(camera.Proxy());
  auto o = Wait(camera);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(camera.Proxy().packetSize, 1);
  EXPECT_NE(o.out.find("********************* Dropping packet size to [1]\n"), std::string::npos);

  // 63 cannot come from halving 64 but is still below the ceiling: it doubles.
  camera.Proxy().packetSize = 63;
  camera.Proxy().SendFirmwareBlock(0, std::vector<unsigned char>(8, 2));
  o = Wait(camera);
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(camera.Proxy().packetSize, 126);
  EXPECT_NE(o.out.find("Bumping packet size to [126]\n"), std::string::npos);
}

TEST_F(AckWaitTest, OtherStatusIsPolledTenTimesAndPassedOn) {
  StartSim({"--ack-status=1-:5"});
  Helpers::VyrCamera camera("0", clock_);
  SendOneChunk(camera.Proxy());
  const auto o = Wait(camera);
  EXPECT_EQ(o.status, 5);
  EXPECT_EQ(o.out, "camd waiting for ACK!\ncamd ACK status: 5\n");
  EXPECT_EQ(o.err, "");
  EXPECT_EQ(camera.Proxy().packetSize, 64);
  EXPECT_EQ(SimCalls("WaitForAck"), 10u);
  EXPECT_EQ(SimCalls("DequeuePacket"), 0u);
  EXPECT_EQ(clock_.Sleeps(), 10);
}

TEST_F(AckWaitTest, ErrorReplyCountsAsALostChunk) {
  StartSim({"--error=WaitForAck@1"});
  Helpers::VyrCamera camera("0", clock_);
  SendOneChunk(camera.Proxy());
  const auto o = Wait(camera);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out,
            "camd waiting for ACK!\n"
            "Exception caught: [com.quorvex.common.Camd1.Error.Injected] injected failure of WaitForAck\n"
            "camd ACK status: 1\n"
            "********************* Dropping packet size to [32]\n");
  EXPECT_EQ(o.err, "Caught ACK timeout! Still waiting...\n");
  EXPECT_EQ(SimCalls("WaitForAck"), 1u);  // no further poll after the error
  EXPECT_EQ(SimCalls("DequeuePacket"), 1u);
  EXPECT_EQ(clock_.Sleeps(), 0);
}

TEST_F(AckWaitTest, WrongReplyTypeEscapesTheWait) {
  StartSim({"--wrong-type=WaitForAck"});
  Helpers::VyrCamera camera("0", clock_);
  SendOneChunk(camera.Proxy());
  CaptureStdout();
  EXPECT_THROW(camera.WaitForAck(0), Dbus::ReplyTypeMismatch);
  GetCapturedStdout();
  EXPECT_EQ(SimCalls("DequeuePacket"), 0u);
}

TEST_F(AckWaitTest, FirstBlockPollsTenTimesWhileNegative) {
  StartSim({"--first=-1"});
  Helpers::VyrCamera camera("0", clock_);
  CaptureStdout();
  EXPECT_EQ(camera.GetFirstUpdateBlock(), -1);
  EXPECT_EQ(GetCapturedStdout(), "Asking camd for first update block (really)\n");
  EXPECT_EQ(SimCalls("GetFirstUpdateBlock"), 10u);
  EXPECT_EQ(clock_.Sleeps(), 10);
  EXPECT_EQ(clock_.Slept(), 2s);
}

TEST_F(AckWaitTest, FirstBlockStopsAtTheFirstErrorWithoutRetry) {
  StartSim({"--first=-1", "--error=GetFirstUpdateBlock@3"});
  Helpers::VyrCamera camera("0", clock_);
  CaptureStderr();
  EXPECT_EQ(camera.GetFirstUpdateBlock(), -1);  // the last answer before the error
  EXPECT_EQ(GetCapturedStderr(), "Dbus::Error: injected failure of GetFirstUpdateBlock\n");
  EXPECT_EQ(SimCalls("GetFirstUpdateBlock"), 3u);
  EXPECT_EQ(clock_.Sleeps(), 2);

  StartSim({"--first=77"});
  Helpers::VyrCamera resumed("0", clock_);
  EXPECT_EQ(resumed.GetFirstUpdateBlock(), 77);
  EXPECT_EQ(clock_.Sleeps(), 2);
}

}  // namespace
}  // namespace Updater::Testing
