// firmware-updater camera <index> as a real process against camd-sim on a private bus, in real time.
#include <gmock/gmock.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "camd_fixture.hpp"

namespace Updater::Testing {
namespace {

using namespace std::chrono_literals;
using CameraEndToEndTest = CamdBusTest;

const std::string kYellow = "\033[0;33mfw-updater Debug: ", kReset = "\033[0m\n";
ProcessResult RunUpdater(const ProcessOptions& options = {}) { return RunProcess(UpdaterBinary(), {"camera", "0"}, options); }

// Every run starts alike; how it ends is camd's doing.
TEST_F(CameraEndToEndTest, WholeRuns) {
  AddPackage(3, RandomBytes(5000, 13));  // 78 chunks of 64 and one of 8
  const std::string closing = kYellow + "Exiting firmware-updater ..." + kReset;
  const std::string errorExit = "Entered: Updating_ErrorExit\n";
  const std::string notNeeded =
      "          Update not needed, exiting...\nExited: UpdateInit\nEntered: UpdateDone\n" + closing;
  // A bus address that accepts connections and never says a word.
  const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  (fw_ / "silent-bus").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(silent, 8), 0);
  // sim: none for camd absent; has: on standard output or error, or camd-sim's; seconds: the run's length, within 5 s
  const struct { std::vector<std::string> sim; int status; std::size_t dbusErrors; std::vector<std::string> has;
                 std::string outTail; const char* stallSeconds = nullptr; bool lockHeld = false; int seconds = 0;
                 bool silentBus = false; } rows[] = {
      // The update check leaves standard output hexadecimal, and the machine's trace shows it.
      {{"--version=2"}, 0, 0, {"Entered: SendingBlock: 1380\nThis block: [1380], blockSize: [40]\n",
       "VERDICT ok camera=0 bytes=5000"}, "Action: done_updating\nEntered: UpdateDone\n" + closing},
      {{"--fail-send=3"}, 255, 0, {}, "Exited: SendingBlock\n" + errorExit},
      {{"--negative-next=2"}, 255, 0, {"Didn't get an ACK... exiting?\n"}, errorExit},
      // Nothing ever acknowledged: the stall limit ends what would run forever.
      {{"--loss-rate=1"}, 255, 0, {"fw-updater Debug: [ERROR] -- No progress for 2 s, at block [0]; giving up the update"},
       errorExit, "2"},
      {{}, 0, 5 * 102, {"Error asking camd for update info status, not updating\n"},
       "Entered: UpdateInit\n" + notNeeded, nullptr, false, 10},
      // A lock another run never lets go of: given up at the stall limit, like other refusals of the check.
      {{}, 0, 0, {}, "held the lock for 2 s; not updating" + kReset + notNeeded, "2", true, 2},
      // Not announced, not sent.
      {{"--error=SendUpdateAvailable"}, 0, 5, {"[ERROR] -- camd did not take the announcement of version 3 ([5000] bytes"},
       notNeeded},
      // camd restarted mid-transfer, then naming the end of the image and answering 0; camd naming one position for
      // ever. A few paced rounds end either, with no limit.
      {{"--restart-at=20"}, 255, 0, {"No progress for 12 s, at block [5000]; giving up"}, errorExit, "0", false, 12},
      {{"--next=3-:128"}, 255, 0, {"No progress for 12 s, at block [128]; giving up"}, errorExit, "0", false, 12},
      // The bus is given the limit, not the 90 s sd-bus would wait for its handshake.
      {{}, 0, 1, {"Dbus::Error: The bus did not answer within "}, "Entered: UpdateInit\n" + notNeeded, "2", false, 2, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lockHeld ? "lock held" : row.sim.empty() ? "camd absent" : row.sim[0]);
    row.sim.empty() ? sim_.reset() : StartSim(row.sim);
    row.stallSeconds ? setenv("QUORVEX_STALL_SECONDS", row.stallSeconds, 1) : unsetenv("QUORVEX_STALL_SECONDS");
    if (row.lockHeld) HoldLock();
    ProcessOptions options;
    if (row.silentBus) options.env = {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + fw_ / "silent-bus"}};
    const auto r = RunUpdater(options);
    ReleaseLock();
    EXPECT_EQ(std::make_tuple(r.exitStatus, r.termSignal, CountOf(r.err, "Dbus::Error")),
              std::make_tuple(row.status, 0, row.dbusErrors)) << r.out << r.err;
    EXPECT_EQ(r.out.rfind(kYellow + "Update target selected as camera" + kReset + "Initializing dbus-cxx\nEntered: UpdateInit\n", 0), 0u);
    for (const auto& text : row.has) EXPECT_THAT(r.out + r.err + (sim_ ? sim_->Out() : ""), ::testing::HasSubstr(text));
    EXPECT_THAT(r.out, ::testing::EndsWith(row.outTail));
    EXPECT_LT(CountOf(r.out + r.err, "\n"), 1200u);  // a few kilobytes, however camd behaves
    EXPECT_TRUE(r.elapsed >= row.seconds * 1s && r.elapsed < (row.seconds + 5) * 1s) << r.elapsed.count();
  }
  close(silent);
}

// camd-sim ends at every call of a clean run in turn, and the bus daemon dies during the check, mid-transfer
// and after the last chunk. Whatever happens, the updater ends by itself with the designed status, an exit 0
// after an announced update means camd holds the image, and the next run delivers it.
TEST_F(CameraEndToEndTest, FaultMatrix) {
  auto image = RandomBytes(100, 21);  // two chunks
  AddPackage(3, image);
  setenv("QUORVEX_STALL_SECONDS", "2", 1);  // a check without camd ends at the stall limit instead of after 10 s
  const auto check = [&](const std::string& trace, const ProcessResult& r, int status) {
    SCOPED_TRACE(trace);
    EXPECT_EQ(std::make_tuple(r.exitStatus, r.termSignal, r.elapsed < 15s), std::make_tuple(status, 0, true)) << r.out << r.err;
    if (r.exitStatus == 0 && r.out.find("Asking camd for first update block") != std::string::npos) {
      EXPECT_EQ(ReadFile(OutPath()), image);
    }
    StartSim({});
    EXPECT_EQ(RunUpdater().exitStatus, 0);
    EXPECT_EQ(ReadFile(OutPath()), image);
  };

  StartSim({});
  ASSERT_EQ(RunUpdater().exitStatus, 0);
  // The clean run, call by call. Up to the announcement camd has taken nothing: no update.
  // From the first "complete" answer on the image is in place. In between: the error exit.
  const std::string log = sim_->Log(), call = "camd-sim[0]: ";
  const auto nth = [&](const std::string& what) { return CountOf(log.substr(0, log.find(call + what)), call) + 1; };
  const std::size_t announced = nth("SendUpdateAvailable");
  const std::size_t complete = nth("WaitForAck -> 3"), calls = CountOf(log, call);
  ASSERT_LT(complete, calls);
  for (std::size_t n = 1; n <= calls + 2; ++n) {
    StartSim({"--exit-after=" + std::to_string(n)});
    check("camd exits on call " + std::to_string(n), RunUpdater(), n <= announced || n > complete ? 0 : 255);
  }

  // The bus dies once `text` is seen `times` in the updater's output (or camd-sim's).
  const struct { std::string when, sim, text; std::size_t times; int status; } kills[] = {
      {"during the check", "--info-false=forever", "Entered: UpdateInit", 1, 0},
      {"mid-transfer", "--slow=WaitForAck:5", "This block: [", 20, 255},
      {"after the last chunk", "--slow=WaitForAck:5", "VERDICT ok", 1, 0},
  };
  AddPackage(3, image = RandomBytes(20000, 22));  // long enough to be cut in the middle
  for (const auto& kill : kills) {
    auto bus = std::make_unique<PrivateBus>();
    StartSim({kill.sim});
    ProcessOptions options;
    bool killed = false;
    options.stopWhen = [&](const std::string& out, const std::string&) {
      if (!killed && CountOf(out + sim_->Out(), kill.text) >= kill.times) bus->Kill(), killed = true;
      return false;
    };
    const auto r = RunUpdater(options);
    EXPECT_TRUE(killed) << kill.when;
    sim_.reset(), bus.reset();  // back on the suite's bus
    check("bus killed " + kill.when, r, kill.status);
  }
}

// Two runs for one camera at once, the second writing into a pipe nobody reads: they take turns, each delivering its own image.
TEST_F(CameraEndToEndTest, RunsForOneCameraTakeTurns) {
  StartSim({});
  AddPackage(3, RandomBytes(1000, 1));
  const TempDir other;
  other.Write("camera-region0-4.bin", RandomBytes(900, 2));
  ProcessResult a, b;
  std::thread one([&] { a = RunUpdater(); });
  std::this_thread::sleep_for(500ms);  // well inside the first run's transfer
  ProcessOptions options;
  options.env = {{"QUORVEX_FIRMWARE_DIR", other.path()}};
  options.closedStdout = true;
  b = RunUpdater(options);
  one.join();
  const std::string waiting = "Waiting for another update of camera [0] to finish\n";
  EXPECT_EQ(CountOf(a.err + b.err, waiting), 1u) << a.err << b.err;
  EXPECT_EQ(std::make_tuple(a.exitStatus, b.exitStatus), std::make_tuple(0, 0));  // no SIGPIPE
  // The newer image ends up in the camera either way; run after it, the older one finds nothing to do.
  EXPECT_EQ(CountOf(sim_->Out(), "VERDICT ok"), CountOf(b.err, waiting) ? 2u : 1u) << sim_->Out();
  EXPECT_EQ(ReadFile(OutPath()), ReadFile(other / "camera-region0-4.bin"));
}

}  // namespace
}  // namespace Updater::Testing
