// firmware-updater camera <index> as a real process against camd-sim on a
// private bus, in real time.
#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <csignal>

#include "camera_fixture.hpp"
#include "subprocess.hpp"

namespace Updater::Testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

const std::string kYellow = "\033[0;33m";
const std::string kReset = "\033[0m";
const std::string kClosing = kYellow + "fw-updater Debug: Exiting firmware-updater ..." + kReset + "\n";

class CameraEndToEndTest : public CameraTest {
 protected:
  ProcessResult RunUpdater(const std::string& index = "0", std::chrono::milliseconds timeout = 60s) {
    ProcessOptions options;
    options.timeout = timeout;
    return RunProcess(FWU_UPDATER_BIN, {"camera", index}, options);
  }
};

TEST_F(CameraEndToEndTest, DeliversAnImageWithAShortLastChunk) {
  const auto image = RandomBytes(1000, 11);  // 15 chunks of 64 and one of 40
  AddPackage(3, image);
  StartSim({"--version=2", "--out=" + OutPath()});
  const auto r = RunUpdater();

  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_THAT(r.out, StartsWith(kYellow + "fw-updater Debug: Update target selected as camera" + kReset +
                                "\nInitializing dbus-cxx\nEntered: UpdateInit\n"));
  EXPECT_THAT(r.out, HasSubstr("File version: 3\n"));
  EXPECT_THAT(r.out, HasSubstr("Checksum:" + Hex(ReferenceCrc(image)) + "\n"
                               "This file [3e8] contains [3e8] chunks of [40]\n"
                               "          Update needed, initiating...\n"));
  EXPECT_THAT(r.out, HasSubstr("Entered: SendingBlock: 3c0\nThis block: [3c0], blockSize: [40]\n"));
  EXPECT_THAT(r.err, HasSubstr("Couldn't read full [64] bytes into chunk, only read [40] bytes.\n"));
  EXPECT_THAT(r.out, EndsWith("camd ACK status: 3\n"
                              "Exited: WaitingForAck\n"
                              "Entered: Updating_UpdateDone\n"
                              "Exited: Updating_UpdateDone\n"
                              "Exited: Updating\n"
                              "Action: done_updating\n"
                              "Entered: UpdateDone\n" + kClosing));
  EXPECT_EQ(CountOf(r.err, "Dbus::Error"), 0u);
  EXPECT_EQ(ReadFile(OutPath()), image);
  EXPECT_THAT(sim_->Out(), HasSubstr("VERDICT ok camera=0 bytes=1000 crc=" + Hex(ReferenceCrc(image))));
}

TEST_F(CameraEndToEndTest, EmptyImageGoesOutAsOneEmptyChunk) {
  AddPackage(3, {});
  StartSim({"--camera=7", "--version=2", "--out=" + OutPath()});
  const auto r = RunUpdater("7");
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Checksum:ffff\nThis file [0] contains [0] chunks of [40]\n"));
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=0 bytes=0"));
  EXPECT_THAT(sim_->Out(), HasSubstr("VERDICT ok camera=7 bytes=0 crc=ffff"));
  EXPECT_THAT(r.out, EndsWith("Entered: UpdateDone\n" + kClosing));
}

TEST_F(CameraEndToEndTest, NoUpdateWhenTheFileIsNotNewer) {
  AddPackage(4, RandomBytes(100, 1));
  StartSim({"--version=4"});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_THAT(r.out, HasSubstr("File version: 4\nAsking camd for firmware version\nCam version: 4\n"
                               "          Update not needed, exiting...\n"
                               "Exited: UpdateInit\nEntered: UpdateDone\n" + kClosing));
  EXPECT_EQ(SimCalls("SendUpdateAvailable"), 0u);
}

TEST_F(CameraEndToEndTest, LostChunkIsResentAtHalfSize) {
  const auto image = RandomBytes(700, 12);
  AddPackage(3, image);
  StartSim({"--lose-acks=2-11", "--out=" + OutPath()});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("camd ACK status: 1\n********************* Dropping packet size to [20]\n"
                               "Ready with block #40\n"));
  EXPECT_THAT(r.err, HasSubstr("Caught ACK timeout! Still waiting...\n"));
  EXPECT_THAT(r.out, HasSubstr("Bumping packet size to [40]\n"));
  EXPECT_EQ(SimCalls("DequeuePacket"), 1u);
  // The same block goes again, at half the size.
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=64 bytes=64 -> true"));
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=64 bytes=32 -> true"));
  EXPECT_EQ(ReadFile(OutPath()), image);
}

TEST_F(CameraEndToEndTest, ResumesAtThePositionCamdNames) {
  const auto image = RandomBytes(1500, 17);
  const std::string path = AddPackage(3, image);
  StartSim({"--first=1024", "--preload=" + path, "--out=" + OutPath()});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("                First:400\nReady with block #400\n"));
  EXPECT_THAT(sim_->Log(), HasSubstr("GetFirstUpdateBlock -> 1024\ncamd-sim[0]: SendFirmwareBlock position=1024 bytes=64"));
  EXPECT_EQ(CountOf(sim_->Log(), "SendFirmwareBlock position="), 8u);  // (1500 - 1024) / 64, rounded up
  EXPECT_EQ(ReadFile(OutPath()), image);
}

TEST_F(CameraEndToEndTest, UnrecognisedStatusLeavesTheRunRestingWithStatusZero) {
  AddPackage(3, RandomBytes(500, 18));
  StartSim({"--ack-status=1-:2"});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_THAT(r.out, EndsWith("Entered: WaitingForAck: 0\ncamd waiting for ACK!\ncamd ACK status: 2\n" + kClosing));
  EXPECT_EQ(SimCalls("WaitForAck"), 10u);
  EXPECT_EQ(SimCalls("GetNextFirmwareBlock"), 0u);
}

TEST_F(CameraEndToEndTest, FailedSendEndsInTheErrorExit) {
  AddPackage(3, RandomBytes(500, 13));
  StartSim({"--fail-send=3"});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 255);
  EXPECT_THAT(r.out, EndsWith("Exited: SendingBlock\nEntered: Updating_ErrorExit\n"));
  EXPECT_EQ(SimCalls("WaitForAck"), 2u);
}

TEST_F(CameraEndToEndTest, NegativeNextPositionEndsInTheErrorExit) {
  AddPackage(3, RandomBytes(500, 14));
  StartSim({"--negative-next=2"});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 255);
  EXPECT_THAT(r.out, HasSubstr("Didn't get an ACK... exiting?\n"));
  EXPECT_THAT(r.out, EndsWith("Entered: Updating_ErrorExit\n"));
}

TEST_F(CameraEndToEndTest, WrongReplyTypeAbortsTheRun) {
  AddPackage(3, RandomBytes(500, 15));
  StartSim({"--wrong-type=GetNextFirmwareBlock"});
  const auto r = RunUpdater();
  EXPECT_EQ(r.termSignal, SIGABRT) << r.out << r.err;
  // A standard exception: the machine's exception hook fails its assertion
  // (a non-standard one would go straight to terminate instead).
  EXPECT_THAT(r.err, HasSubstr("Assertion `false' failed"));
  EXPECT_EQ(CountOf(r.err, "Dbus::Error"), 0u);
  EXPECT_EQ(SimCalls("GetNextFirmwareBlock"), 1u);
}

TEST_F(CameraEndToEndTest, CamdCrashMidUpdateFailsTheNextSend) {
  AddPackage(3, RandomBytes(5000, 16));
  StartSim({"--exit-after=30"});
  const auto r = RunUpdater();
  // camd vanishes: five failed tries of the next send, then the error exit.
  EXPECT_EQ(r.exitStatus, 255) << r.out;
  EXPECT_GE(CountOf(r.err, "Dbus::Error: "), 5u);
  EXPECT_THAT(r.out, EndsWith("Entered: Updating_ErrorExit\n"));
}

TEST_F(CameraEndToEndTest, CamdAbsentGivesUpAfterAboutTenSeconds) {
  AddPackage(3, RandomBytes(100, 1));
  const auto r = RunUpdater("0", 40s);
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_THAT(r.err, EndsWith("Error asking camd for update info status, not updating\n"));
  EXPECT_EQ(CountOf(r.err, "Dbus::Error: "), 5u * 102u);
  EXPECT_THAT(r.out, EndsWith("Entered: UpdateInit\n          Update not needed, exiting...\n"
                              "Exited: UpdateInit\nEntered: UpdateDone\n" + kClosing));
  EXPECT_GE(r.elapsed, 10s);
  EXPECT_LT(r.elapsed, 30s);
}

}  // namespace
}  // namespace Updater::Testing
