// firmware-updater camera <index> as a real process against camd-sim on a
// private bus, in real time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "camd_fixture.hpp"
#include "subprocess.hpp"

namespace Updater::Testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

const std::string kYellow = "\033[0;33m", kReset = "\033[0m";
const std::string kClosing = kYellow + "fw-updater Debug: Exiting firmware-updater ..." + kReset + "\n";

using CameraEndToEndTest = CamdBusTest;
ProcessResult RunUpdater() { return RunProcess(UpdaterBinary(), {"camera", "0"}); }  // 60 s at most

TEST_F(CameraEndToEndTest, DeliversAnImageWithAShortLastChunk) {
  const auto image = RandomBytes(1000, 11);  // 15 chunks of 64 and one of 40
  AddPackage(3, image);
  StartSim({"--version=2", "--out=" + OutPath()});
  const auto r = RunUpdater();
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_THAT(r.out, StartsWith(kYellow + "fw-updater Debug: Update target selected as camera" + kReset +
                                "\nInitializing dbus-cxx\nEntered: UpdateInit\n"));
  EXPECT_THAT(r.out, HasSubstr("File version: 3\nAsking camd for firmware version\nCam version: 2\nChecksum:" +
                               Hex(ReferenceCrc(image)) + "\nThis file [3e8] contains [3e8] chunks of [40]\n"
                               "          Update needed, initiating...\n"));
  EXPECT_THAT(r.out, HasSubstr("Entered: SendingBlock: 3c0\nThis block: [3c0], blockSize: [40]\n"));
  EXPECT_THAT(r.err, HasSubstr("Couldn't read full [64] bytes into chunk, only read [40] bytes.\n"));
  EXPECT_THAT(r.out, EndsWith("camd ACK status: 3\nExited: WaitingForAck\nEntered: Updating_UpdateDone\n"
                              "Exited: Updating_UpdateDone\nExited: Updating\nAction: done_updating\n"
                              "Entered: UpdateDone\n" + kClosing));
  EXPECT_EQ(CountOf(r.err, "Dbus::Error"), 0u);
  EXPECT_EQ(ReadFile(OutPath()), image);
  EXPECT_THAT(sim_->Out(), HasSubstr("VERDICT ok camera=0 bytes=1000 crc=" + Hex(ReferenceCrc(image))));
}

TEST_F(CameraEndToEndTest, RunsThatEndEarly) {
  const std::string errorExit = "Entered: Updating_ErrorExit\n";
  const struct {
    std::string sim;
    int status, signal;
    std::string has, outTail;  // has: on standard output or error
    std::size_t dbusErrors;  // at least
  } rows[] = {
      // Not newer. Asked twice: the comparison uses the first answer, the log the second.
      {"--version=3", 0, 0, "", "Asking camd for firmware version\nFile version: 3\nAsking camd for firmware version\n"
       "Cam version: 3\n          Update not needed, exiting...\nExited: UpdateInit\nEntered: UpdateDone\n" + kClosing, 0},
      {"--fail-send=3", 255, 0, "", "Exited: SendingBlock\n" + errorExit, 0},
      {"--negative-next=2", 255, 0, "Didn't get an ACK... exiting?\n", errorExit, 0},
      {"--exit-after=30", 255, 0, "", errorExit, 5},  // camd vanishes: five tries of the next send
      // A std::exception: the machine's exception hook fails its assertion.
      {"--wrong-type=GetNextFirmwareBlock", -1, SIGABRT, "Assertion `false' failed", "", 0},
      {"--ack-status=1-:2", 0, 0, "", "Entered: WaitingForAck: 0\ncamd waiting for ACK!\ncamd ACK status: 2\n" + kClosing, 0},
  };
  AddPackage(3, RandomBytes(5000, 13));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sim);
    StartSim({row.sim});
    const auto r = RunUpdater();
    EXPECT_EQ(r.exitStatus, row.status) << r.out << r.err;
    EXPECT_EQ(r.termSignal, row.signal);
    EXPECT_THAT(r.out + r.err, HasSubstr(row.has));
    EXPECT_THAT(r.out, EndsWith(row.outTail));
    const auto dbusErrors = CountOf(r.err, "Dbus::Error");
    EXPECT_TRUE(row.dbusErrors ? dbusErrors >= row.dbusErrors : dbusErrors == 0) << r.err;
  }
}

TEST_F(CameraEndToEndTest, CamdAbsentGivesUpAfterAboutTenSeconds) {
  AddPackage(3, RandomBytes(100, 1));
  const auto r = RunUpdater();
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
