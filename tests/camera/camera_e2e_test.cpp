// firmware-updater camera <index> as a real process against camd-sim on a
// private bus, in real time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sstream>
#include <thread>

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
ProcessResult RunUpdater(const ProcessOptions& options = {}) { return RunProcess(UpdaterBinary(), {"camera", "0"}, options); }

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
    std::string stallSeconds = "";
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
      // Nothing ever acknowledged: the stall limit ends what would run forever.
      {"--loss-rate=1", 255, 0, "fw-updater Debug: [ERROR] -- No progress for 2 s, at block [0]; giving up the update",
       errorExit, 0, "2"},
  };
  AddPackage(3, RandomBytes(5000, 13));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sim);
    StartSim({row.sim});
    ProcessOptions options;
    if (!row.stallSeconds.empty()) options.env = {{"QUORVEX_STALL_SECONDS", row.stallSeconds}};
    const auto r = RunUpdater(options);
    EXPECT_EQ(r.exitStatus, row.status) << r.out << r.err;
    EXPECT_EQ(r.termSignal, row.signal);
    EXPECT_THAT(r.out + r.err, HasSubstr(row.has));
    EXPECT_THAT(r.out, EndsWith(row.outTail));
    const auto dbusErrors = CountOf(r.err, "Dbus::Error");
    EXPECT_TRUE(row.dbusErrors ? dbusErrors >= row.dbusErrors : dbusErrors == 0) << r.err;
    EXPECT_LT(r.elapsed, 10s);
  }
}

// camd-sim ends at every call of a clean run in turn, and the bus daemon dies
// during the check, mid-transfer and after the last chunk. Whatever happens,
// the updater ends by itself with the designed status, an exit 0 after an
// announced update means camd holds the image, and the next run delivers it.
TEST_F(CameraEndToEndTest, FaultMatrix) {
  auto image = RandomBytes(100, 21);  // two chunks
  AddPackage(3, image);
  ProcessOptions quick;  // a check without camd ends at the stall limit instead of after 10 s
  quick.env = {{"QUORVEX_STALL_SECONDS", "2"}};
  const auto check = [&](const std::string& trace, const ProcessResult& r, int status) {
    SCOPED_TRACE(trace);
    EXPECT_EQ(r.termSignal, 0);
    EXPECT_LT(r.elapsed, 15s);
    EXPECT_EQ(r.exitStatus, status) << r.out << r.err;
    const bool announced = r.out.find("Checksum:") != std::string::npos;
    if (r.exitStatus == 0 && announced) {
      EXPECT_EQ(ReadFile(OutPath()), image);
    }
    std::filesystem::remove(OutPath());
    StartSim({"--out=" + OutPath()});
    EXPECT_EQ(RunUpdater().exitStatus, 0);
    EXPECT_EQ(ReadFile(OutPath()), image);
    std::filesystem::remove(OutPath());
  };

  StartSim({"--out=" + OutPath()});
  ASSERT_EQ(RunUpdater().exitStatus, 0);
  std::vector<std::string> calls;  // the clean run, call by call
  std::istringstream log(sim_->Log());
  for (std::string line; std::getline(log, line);)
    if (line.rfind("camd-sim[0]: ", 0) == 0) calls.push_back(line.substr(13));
  const auto firstOf = [&](const std::string& call) {
    return static_cast<std::size_t>(std::find_if(calls.begin(), calls.end(), [&](auto& c) { return c.rfind(call, 0) == 0; }) -
                                    calls.begin()) + 1;
  };
  // Up to the first version read camd has been told nothing: no update. From the
  // first "complete" answer on the image is in place. In between: the error exit.
  const std::size_t versionRead = firstOf("GetCameraFirmwareVersion"), complete = firstOf("WaitForAck -> 3");
  ASSERT_LT(complete, calls.size());
  for (std::size_t n = 1; n <= calls.size() + 2; ++n) {
    std::filesystem::remove(OutPath());
    StartSim({"--exit-after=" + std::to_string(n), "--out=" + OutPath()});
    check("camd exits on call " + std::to_string(n), RunUpdater(quick), n <= versionRead || n > complete ? 0 : 255);
  }

  const struct {
    std::string when;
    std::function<bool(const std::string& out)> now;
    int status;
  } kills[] = {
      {"during the check", [](const std::string& out) { return out.find("Entered: UpdateInit") != std::string::npos; }, 0},
      {"mid-transfer", [](const std::string& out) { return CountOf(out, "This block: [") >= 20; }, 255},
      {"after the last chunk", [&](const std::string&) { return sim_->Out().find("VERDICT ok") != std::string::npos; }, 0},
  };
  image = RandomBytes(20000, 22);  // long enough to be cut in the middle
  AddPackage(3, image);
  for (const auto& kill : kills) {
    auto bus = std::make_unique<PrivateBus>();
    std::filesystem::remove(OutPath());
    StartSim({kill.when == "during the check" ? "--info-false=forever" : "--slow=WaitForAck:5", "--out=" + OutPath()});
    ProcessOptions options = quick;
    bool killed = false;
    options.stopWhen = [&](const std::string& out, const std::string&) {
      if (!killed && kill.now(out)) bus->Kill(), killed = true;
      return false;
    };
    const auto r = RunUpdater(options);
    EXPECT_TRUE(killed) << kill.when;
    sim_.reset();
    bus.reset();  // back on the suite's bus
    check("bus killed " + kill.when, r, kill.status);
  }
}

// Two runs for one camera at once, the second writing into a pipe nobody reads:
// they take turns, and each delivers its own image whole.
TEST_F(CameraEndToEndTest, RunsForOneCameraTakeTurns) {
  StartSim({"--out=" + OutPath()});
  const auto first = RandomBytes(1000, 1), second = RandomBytes(900, 2);
  AddPackage(3, first);
  const std::string otherDir = fwDir_ + "/other";
  std::filesystem::create_directories(otherDir);
  std::ofstream(otherDir + "/camera-region0-4.bin", std::ios::binary).write(reinterpret_cast<const char*>(second.data()), 900);
  ProcessResult a, b;
  std::thread one([&] { a = RunUpdater(); });
  std::this_thread::sleep_for(500ms);  // well inside the first run's transfer
  ProcessOptions options;
  options.env = {{"QUORVEX_FIRMWARE_DIR", otherDir}};
  options.closedStdout = true;
  b = RunUpdater(options);
  one.join();
  const std::string waiting = "Waiting for another update of camera [0] to finish\n";
  EXPECT_EQ(CountOf(a.err + b.err, waiting), 1u) << a.err << b.err;
  EXPECT_EQ(a.exitStatus, 0);
  EXPECT_EQ(b.exitStatus, 0);  // no SIGPIPE
  // The newer image ends up in the camera either way; run after it, the older one finds nothing to do.
  EXPECT_EQ(CountOf(sim_->Out(), "VERDICT ok"), CountOf(b.err, waiting) ? 2u : 1u) << sim_->Out();
  EXPECT_EQ(ReadFile(OutPath()), second);
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
