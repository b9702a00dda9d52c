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
using ::testing::HasSubstr;

const std::string kYellow = "\033[0;33mfw-updater Debug: ", kReset = "\033[0m\n";
const std::string kStart = kYellow + "Update target selected as camera" + kReset + "Initializing dbus-cxx\n";
const std::string kClosing = kYellow + "Exiting firmware-updater ..." + kReset;
const std::string kErrorExit = "Entered: Updating_ErrorExit\n";
const std::string kNotNeeded =
    "          Update not needed, exiting...\nExited: UpdateInit\nEntered: UpdateDone\n" + kClosing;
// The summary console: the designed console's milestones, no trace and no chunk lines.
const std::string kSummaryStart = kYellow + "Update target selected as camera" + kReset + "File version: 3\n";
const std::string kEnd =
    "Exit status 0: the run is over; the lines above say whether an image was delivered\n" + kClosing;
const std::string kDone = "Result: the target acknowledged the whole image; update done\n" + kEnd;

ProcessResult RunUpdater(const ProcessOptions& options = {}) {
  return RunProcess(UpdaterBinary(), {"camera", "0"}, options);
}

struct RunRow {
  std::string name;
  std::string sim;    // its one option; none: no camd-sim
  const char* limit;  // QUORVEX_STALL_SECONDS, when set
  int status;
  std::size_t dbusErrors;
  std::string has;   // on standard output or error
  std::string tail;  // of standard output
  int seconds;       // the run's length, within 5 s
  bool silentBus = false;
  const char* console = nullptr;  // QUORVEX_CONSOLE, when set
  std::string head = kStart + "Entered: UpdateInit\n";
  std::size_t lines = 999;  // at most, on both streams
  bool terminal = false;    // standard output a pseudo-terminal
};
void PrintTo(const RunRow& row, std::ostream* os) { *os << row.name; }
const RunRow kRuns[] = {
    // The update check leaves standard output hexadecimal, and the machine's trace shows it.
    {"Updated", "--version=2", nullptr, /*status=*/0, /*dbusErrors=*/0,
     "Entered: SendingBlock: 1380\nThis block: [1380], blockSize: [40]\n",
     "Action: done_updating\nEntered: UpdateDone\n" + kClosing, /*seconds=*/0},
    {"SendRefused", "--fail-send=3", nullptr, /*status=*/255, /*dbusErrors=*/0, "This block: [80], blockSize",
     "Exited: SendingBlock\n" + kErrorExit, /*seconds=*/0},
    // The bus is given the limit, not the 90 s sd-bus would wait for its handshake.
    {"BusNeverAnswers", "", "2", /*status=*/0, /*dbusErrors=*/1,
     "Dbus::Error: The bus did not answer within ", "Entered: UpdateInit\n" + kNotNeeded, /*seconds=*/2,
     /*silentBus=*/true},
    {"UpdatedInSummary", "--lose-acks=2-11", nullptr, /*status=*/0, /*dbusErrors=*/0,
     "Caught ACK timeout! Still waiting...\n", "Progress of camera 0: 100% (5000/5000 bytes)\n" + kDone,
     /*seconds=*/2, false, "summary", kSummaryStart, /*lines=*/30},
    {"RefusedInSummary", "--refuse-announcement", nullptr, /*status=*/0, /*dbusErrors=*/0,
     "\033[0;31mfw-updater Debug: [ERROR] -- camd did not take the announcement of version 3 ([5000] bytes",
     "          Update not needed, exiting...\n" + kEnd, /*seconds=*/0, false, "summary", kSummaryStart, 30},
    {"FailedInSummary", "--fail-send=3", nullptr, /*status=*/255, /*dbusErrors=*/0, "Update needed",
     "Result: the update failed part way; the next run starts it again\n"
     "Exit status 255: the update failed (no closing line follows)\n",
     /*seconds=*/0, false, "summary", kSummaryStart, 30},
    // Redrawn in place at most ten times a second, and ended with a newline.
    {"LiveOnATerminal", "--version=2", nullptr, /*status=*/0, /*dbusErrors=*/0,
     "\rProgress of camera 0:   1% (64/5000 bytes)", " 0:00 left\033[K\n" + kDone, /*seconds=*/0, false,
     "summary", kSummaryStart, 30, /*terminal=*/true},
    {"UnknownConsoleMode", "--version=2", nullptr, /*status=*/0, /*dbusErrors=*/0,
     "QUORVEX_CONSOLE=[loud] is not a console mode (only \"summary\" is); printing every line\n",
     "Action: done_updating\nEntered: UpdateDone\n" + kClosing, /*seconds=*/0, false, "loud"},
};
class AnUpdaterRun : public CamdBusTest, public ::testing::WithParamInterface<RunRow> {};

// One run in real time per row, so the row's whole outcome is checked at once.
TEST_P(AnUpdaterRun, EndsAsDesigned) {
  const RunRow& row = GetParam();
  AddPackage(3, RandomBytes(5000, 13));  // 78 chunks of 64 and one of 8
  if (!row.sim.empty()) StartSim({row.sim});
  if (row.limit) setenv("QUORVEX_STALL_SECONDS", row.limit, 1);
  if (row.console) setenv("QUORVEX_CONSOLE", row.console, 1);
  ProcessOptions options;
  options.terminal = row.terminal;
  const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // accepts and never says a word
  if (row.silentBus) {
    sockaddr_un address{AF_UNIX, {}};
    (fw_ / "silent-bus").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent, 8), 0);
    options.env = {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + fw_ / "silent-bus"}};
  }
  const auto r = RunUpdater(options);
  close(silent);
  EXPECT_EQ(r.exitStatus, row.status) << r.out << r.err;
  EXPECT_EQ(CountOf(r.err, "Dbus::Error"), row.dbusErrors);
  EXPECT_THAT(r.out, ::testing::StartsWith(row.head));
  EXPECT_THAT(r.out + r.err, HasSubstr(row.has));
  EXPECT_THAT(r.out, ::testing::EndsWith(row.tail));
  EXPECT_LE(CountOf(r.out + r.err, "\n"), row.lines);  // a few kilobytes at most, however camd behaves
  EXPECT_LE(CountOf(r.out, "\r"), r.elapsed / 100ms + 1);
  EXPECT_GE(r.elapsed, row.seconds * 1s);
  EXPECT_LT(r.elapsed, (row.seconds + 5) * 1s);
}
INSTANTIATE_TEST_SUITE_P(Cases, AnUpdaterRun, ::testing::ValuesIn(kRuns), RowName<RunRow>);

using AnInterruptedUpdate = CamdBusTest;

// Up to the announcement camd has taken nothing: no update. From the first "complete" answer on the image
// is in place. In between: the error exit. Whatever happens, the next run delivers the image.
TEST_F(AnInterruptedUpdate, EndsAsDesignedWhenCamdEndsAtAnyCall) {
  setenv("QUORVEX_STALL_SECONDS", "2", 1);  // a check without camd ends at the limit instead of after 10 s
  const std::string image = RandomBytes(100, 21);  // two chunks
  AddPackage(3, image);
  StartSim({});
  ASSERT_EQ(RunUpdater().exitStatus, 0);
  const std::string log = sim_->Log(), call = "camd-sim[0]: ";
  const auto nth = [&](const std::string& what) {
    return CountOf(log.substr(0, log.find(call + what)), call) + 1;
  };
  const std::size_t announced = nth("SendUpdateAvailable"), complete = nth("WaitForAck -> 3");
  const std::size_t calls = CountOf(log, call);
  ASSERT_LT(complete, calls);
  for (std::size_t n = 1; n <= calls + 2; ++n) {
    SCOPED_TRACE("camd exits on call " + std::to_string(n));
    StartSim({"--exit-after=" + std::to_string(n)});
    const auto r = RunUpdater();
    EXPECT_EQ(r.exitStatus, n <= announced || n > complete ? 0 : 255) << r.out << r.err;
    EXPECT_LT(r.elapsed, 15s);
    if (r.exitStatus == 0 && n > announced) {
      EXPECT_EQ(ReadFile(OutPath()), image);
    }
    StartSim({});
    EXPECT_EQ(RunUpdater().exitStatus, 0);
    EXPECT_EQ(ReadFile(OutPath()), image);
  }
}

using TwoRunsForOneCamera = CamdBusTest;

// The second writes into a pipe nobody reads, and still ends normally.
TEST_F(TwoRunsForOneCamera, TakeTurns) {
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
  EXPECT_EQ(a.exitStatus, 0);
  EXPECT_EQ(b.exitStatus, 0);  // no SIGPIPE
  // The newer image ends up in the camera either way; run after it, the older one finds nothing to do.
  EXPECT_EQ(CountOf(sim_->Out(), "VERDICT ok"), CountOf(b.err, waiting) ? 2u : 1u) << sim_->Out();
  EXPECT_EQ(ReadFile(OutPath()), ReadFile(other / "camera-region0-4.bin"));
}

}  // namespace
}  // namespace Updater::Testing
