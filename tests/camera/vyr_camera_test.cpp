// The camera helper against camd-sim with a fake clock: the update check,
// the block reads at the file's edges, and a whole update through the state
// machine with a camera that loses chunk after chunk (14 s of waits in real time).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "camera_fixture.hpp"
#include "fake_clock.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "sm/update_machine.hpp"

namespace Updater::Testing {
namespace {

using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;
using namespace std::chrono_literals;

class VyrCameraTest : public CameraTest {
 protected:
  struct Run {
    int result;
    std::string out, err;
  };
  Run Check(Helpers::VyrCamera& camera) {
    CaptureStdout();
    CaptureStderr();
    const int result = camera.CheckForUpdate();
    Run run{result, GetCapturedStdout(), GetCapturedStderr()};
    return run;
  }
  Run Send(Helpers::VyrCamera& camera, int block) {
    CaptureStdout();
    CaptureStderr();
    const int result = camera.SendFirmwareBlock(block);
    Run run{result, GetCapturedStdout(), GetCapturedStderr()};
    return run;
  }
  // The whole update as main runs it, in this process.
  Run Update(Helpers::VyrCamera& camera) {
    CaptureStdout();
    CaptureStderr();
    {
      SM::UpdateMachine machine;
      machine.SetHelper(&camera);
      machine.start();
    }
    Run run{0, GetCapturedStdout(), GetCapturedStderr()};
    return run;
  }
  FakeClock clock_;
};

TEST_F(VyrCameraTest, GivesUpWhenCamdNeverConfirmsUpdateInfo) {
  StartSim({"--info-false=forever"});
  AddPackage(9, RandomBytes(100, 1));
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Check(camera);
  EXPECT_EQ(run.result, 0);
  EXPECT_EQ(run.err, "Error asking camd for update info status, not updating\n");
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(SimCalls("UpdateInfoReceived"), 102u);
  EXPECT_EQ(SimCalls("RequestUpdateInfo"), 1u);
  EXPECT_EQ(SimCalls("GetFlashRegion"), 0u);
  EXPECT_EQ(clock_.Sleeps(), 102);
  EXPECT_EQ(clock_.Slept(), 10200ms);
}

TEST_F(VyrCameraTest, ConfirmationOnTheLastPollStillUpdates) {
  StartSim({"--info-false=101", "--region=4"});
  AddPackage(9, RandomBytes(100, 1), 4);
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Check(camera);
  EXPECT_EQ(run.result, 1);
  EXPECT_EQ(clock_.Sleeps(), 101);
  EXPECT_EQ(SimCalls("SendUpdateAvailable"), 1u);
}

TEST_F(VyrCameraTest, NoUpdateUnlessTheFileIsNewer) {
  StartSim({"--version=5"});
  AddPackage(5, RandomBytes(100, 1));
  {
    Helpers::VyrCamera camera("0", clock_);
    const auto run = Check(camera);
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.out,
              "Asking camd for firmware version\nFile version: 5\n"
              "Asking camd for firmware version\nCam version: 5\n");
    EXPECT_EQ(SimCalls("GetCameraFirmwareVersion"), 2u);  // asked twice on purpose
    EXPECT_EQ(SimCalls("SendUpdateAvailable"), 0u);
  }
  // No package at all: version -1 never beats a camera at -1.
  StartSim({"--version=-1", "--region=2"});
  Helpers::VyrCamera camera("0", clock_);
  EXPECT_EQ(Check(camera).result, 0);
  CaptureStdout();
  EXPECT_FALSE(camera.HaveUpdateFile());
  EXPECT_EQ(GetCapturedStdout(), "No update file; can't update!\n");
}

TEST_F(VyrCameraTest, AnnouncesAKnownChecksumAndLeavesStdoutHexadecimal) {
  StartSim({"--version=1"});
  const std::string text = "123456789";  // the catalogue check value of CRC-16/CCITT-FALSE is 29b1
  const std::string path = AddPackage(2, std::vector<unsigned char>(text.begin(), text.end()));
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Check(camera);
  EXPECT_EQ(run.result, 1);
  EXPECT_THAT(run.out, HasSubstr("File version: 2\n"));
  EXPECT_THAT(run.out, HasSubstr("\nChecksum:29b1\nThis file [9] contains [9] chunks of [40]\n"));
  EXPECT_THAT(sim_->Log(), HasSubstr("SendUpdateAvailable version=2 checksum=10673 length=9 -> true"));
  EXPECT_EQ(camera.FirmwarePath(), path);
  CaptureStdout();
  std::cout << 255 << std::endl;
  EXPECT_EQ(GetCapturedStdout(), "ff\n");
}

TEST_F(VyrCameraTest, SizesPrintInHexAndEmptyImageSumsToFfff) {
  StartSim({});
  AddPackage(2, std::vector<unsigned char>(4096, 0x5a));
  {
    Helpers::VyrCamera camera("0", clock_);
    EXPECT_THAT(Check(camera).out, HasSubstr("This file [1000] contains [1000] chunks of [40]\n"));
  }
  std::cout << std::dec;
  AddPackage(3, {});
  StartSim({});
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Check(camera);
  EXPECT_EQ(run.result, 1);
  EXPECT_THAT(run.out, HasSubstr("Checksum:ffff\nThis file [0] contains [0] chunks of [40]\n"));
  EXPECT_THAT(sim_->Log(), HasSubstr("SendUpdateAvailable version=3 checksum=65535 length=0"));
}

TEST_F(VyrCameraTest, ChecksumOfALargeImageMatchesTheDefinition) {
  // Spans several of the pieces the image is read in, ending mid-piece.
  const auto image = RandomBytes(3 * 65536 + 1234, 42);
  StartSim({});
  AddPackage(2, image);
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Check(camera);
  EXPECT_THAT(run.out, HasSubstr("Checksum:" + Hex(ReferenceCrc(image)) + "\n"));
  EXPECT_THAT(sim_->Log(), HasSubstr("checksum=" + std::to_string(ReferenceCrc(image)) +
                                     " length=" + std::to_string(image.size())));
}

TEST_F(VyrCameraTest, BlockReadsAtTheEdgesOfTheFile) {
  StartSim({});
  AddPackage(2, RandomBytes(1000, 7));
  Helpers::VyrCamera camera("0", clock_);
  ASSERT_EQ(Check(camera).result, 1);

  // 960 + 64 runs past 1000: the last 40 bytes go out.
  auto run = Send(camera, 960);
  EXPECT_EQ(run.result, 1);
  EXPECT_EQ(run.out, "This block: [3c0], blockSize: [40]\nSending camd firmware block\n");
  EXPECT_EQ(run.err,
            "Chunk #[960] extends past file (length [1000]), this should be the last chunk!\n"
            "Couldn't read full [64] bytes into chunk, only read [40] bytes.\n");
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=960 bytes=40 -> true"));

  // Exactly at the end: passes the start check and sends an empty chunk.
  run = Send(camera, 1000);
  EXPECT_EQ(run.result, 1);
  EXPECT_EQ(run.err,
            "Chunk #[1000] extends past file (length [1000]), this should be the last chunk!\n"
            "Couldn't read full [64] bytes into chunk, only read [0] bytes.\n");
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=1000 bytes=0 -> true"));

  // One past the end is refused before anything is sent.
  run = Send(camera, 1001);
  EXPECT_EQ(run.result, 0);
  EXPECT_EQ(run.out, "This block: [3e9], blockSize: [40]\n");
  EXPECT_EQ(run.err,
            "Calculated chunk start of [1001] which is larger than the firmware file... aborting update.\n");
  EXPECT_EQ(SimCalls("SendFirmwareBlock"), 2u);

  // A whole chunk inside the file: no warning at all.
  run = Send(camera, 0);
  EXPECT_EQ(run.result, 1);
  EXPECT_EQ(run.err, "");

  camera.Proxy().packetSize = 0;
  run = Send(camera, 0);
  EXPECT_EQ(run.result, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "Invalid chunk size from camd: [0], can't update camera firmware.\n");
}

TEST_F(VyrCameraTest, ACameraThatKeepsLosingDrivesTheSizeToOneAndStillCompletes) {
  const auto image = RandomBytes(300, 4);
  AddPackage(2, image);
  // Seven lost chunks in a row: 64 -> 32 -> ... -> 1, and once more at 1.
  StartSim({"--lose-acks=1-70", "--out=" + OutPath()});
  Helpers::VyrCamera camera("0", clock_);
  const auto run = Update(camera);
  EXPECT_EQ(CountOf(run.out, "********************* Dropping packet size to [1]\n"), 2u);
  EXPECT_EQ(SimCalls("DequeuePacket"), 7u);
  EXPECT_THAT(sim_->Log(), HasSubstr("SendFirmwareBlock position=0 bytes=1 -> true"));
  // It climbs back by doubling and stops at the start size.
  EXPECT_THAT(run.out, HasSubstr("Bumping packet size to [2]\n"));
  EXPECT_THAT(run.out, HasSubstr("Bumping packet size to [40]\n"));
  EXPECT_EQ(CountOf(run.out, "Bumping packet size to [80]"), 0u);
  EXPECT_EQ(ReadFile(OutPath()), image);
  EXPECT_THAT(sim_->Out(), HasSubstr("VERDICT ok"));
}

}  // namespace
}  // namespace Updater::Testing
