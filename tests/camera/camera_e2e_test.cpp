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

ProcessResult RunUpdater(const ProcessOptions& options = {}) {
  return RunProcess(UpdaterBinary(), {"camera", "0"}, options);
}

enum class Before { kNothing, kLockTaken, kBusSilenced };
struct RunRow {
  std::string name;
  std::string sim;    // its one option; none for camd absent
  const char* limit;  // QUORVEX_STALL_SECONDS, when set
  int status;
  std::size_t dbusErrors;
  std::string has;   // on standard output or error
  std::string tail;  // of standard output
  int seconds;       // the run's length, within 5 s
  Before before = Before::kNothing;
};
const RunRow kRuns[] = {
    // The update check leaves standard output hexadecimal, and the machine's trace shows it.
    {"Updated", "--version=2", nullptr, /*status=*/0, /*dbusErrors=*/0,
     "Entered: SendingBlock: 1380\nThis block: [1380], blockSize: [40]\n",
     "Action: done_updating\nEntered: UpdateDone\n" + kClosing, /*seconds=*/0},
    {"SendRefused", "--fail-send=3", nullptr, /*status=*/255, /*dbusErrors=*/0, "This block: [80], blockSize",
     "Exited: SendingBlock\n" + kErrorExit, /*seconds=*/0},
    {"NoNextBlock", "--negative-next=2", nullptr, /*status=*/255, /*dbusErrors=*/0,
     "Didn't get an ACK... exiting?\n", kErrorExit, /*seconds=*/0},
    // Nothing ever acknowledged: the stall limit ends what would run forever.
    {"NothingAcknowledged", "--loss-rate=1", "2", /*status=*/255, /*dbusErrors=*/0,
     "[ERROR] -- No progress for 2 s, at block [0]; giving up the update", kErrorExit, /*seconds=*/2},
    {"CamdAbsent", "", nullptr, /*status=*/0, /*dbusErrors=*/5 * 102,
     "Error asking camd for update info status, not updating\n", "Entered: UpdateInit\n" + kNotNeeded,
     /*seconds=*/10},
    // Given up at the stall limit, like the other refusals of the check.
    {"LockNeverReleased", "", "2", /*status=*/0, /*dbusErrors=*/0, "Waiting for another update of camera [0]",
     "held the lock for 2 s; not updating" + kReset + kNotNeeded, /*seconds=*/2, Before::kLockTaken},
    // Not announced, not sent.
    {"AnnouncementFailing", "--error=SendUpdateAvailable", nullptr, /*status=*/0, /*dbusErrors=*/5,
     "[ERROR] -- camd did not take the announcement of version 3 ([5000] bytes", kNotNeeded, /*seconds=*/0},
    // Then naming the end of the image and answering 0: a few paced rounds end it, with no limit.
    {"CamdRestartedMidTransfer", "--restart-at=20", "0", /*status=*/255, /*dbusErrors=*/0,
     "No progress for 12 s, at block [5000]; giving up", kErrorExit, /*seconds=*/12},
    // The bus is given the limit, not the 90 s sd-bus would wait for its handshake.
    {"BusNeverAnswers", "", "2", /*status=*/0, /*dbusErrors=*/1,
     "Dbus::Error: The bus did not answer within ", "Entered: UpdateInit\n" + kNotNeeded, /*seconds=*/2,
     Before::kBusSilenced},
};
class AnUpdaterRun : public CamdBusTest, public ::testing::WithParamInterface<RunRow> {};

// One run in real time per row, so the row's whole outcome is checked at once.
TEST_P(AnUpdaterRun, EndsAsDesigned) {
  const RunRow& row = GetParam();
  AddPackage(3, RandomBytes(5000, 13));  // 78 chunks of 64 and one of 8
  if (!row.sim.empty()) StartSim({row.sim});
  if (row.limit) setenv("QUORVEX_STALL_SECONDS", row.limit, 1);
  if (row.before == Before::kLockTaken) HoldLock();
  ProcessOptions options;
  const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // accepts and never says a word
  if (row.before == Before::kBusSilenced) {
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
  EXPECT_THAT(r.out, ::testing::StartsWith(kStart + "Entered: UpdateInit\n"));
  EXPECT_THAT(r.out + r.err, HasSubstr(row.has));
  EXPECT_THAT(r.out, ::testing::EndsWith(row.tail));
  EXPECT_LT(CountOf(r.out + r.err, "\n"), 1000u);  // a few kilobytes, however camd behaves
  EXPECT_GE(r.elapsed, row.seconds * 1s);
  EXPECT_LT(r.elapsed, (row.seconds + 5) * 1s);
}
INSTANTIATE_TEST_SUITE_P(Cases, AnUpdaterRun, ::testing::ValuesIn(kRuns), RowName<RunRow>);

// Whatever happens, the updater ends by itself with the designed status, an exit 0 after an announced update
// means camd holds the image, and the next run delivers it.
class AnInterruptedUpdate : public CamdBusTest {
 protected:
  void SetUp() override {
    CamdBusTest::SetUp();
    setenv("QUORVEX_STALL_SECONDS", "2", 1);  // a check without camd ends at the limit instead of after 10 s
  }
  void ExpectEndAndRecovery(const ProcessResult& r, int status) {
    EXPECT_EQ(r.exitStatus, status) << r.out << r.err;
    EXPECT_LT(r.elapsed, 15s);
    if (r.exitStatus == 0 && r.out.find("Asking camd for first update block") != std::string::npos) {
      EXPECT_EQ(ReadFile(OutPath()), image_);
    }
    StartSim({});
    EXPECT_EQ(RunUpdater().exitStatus, 0);
    EXPECT_EQ(ReadFile(OutPath()), image_);
  }
  std::string image_;
};

// Up to the announcement camd has taken nothing: no update. From the first "complete" answer on the image
// is in place. In between: the error exit.
TEST_F(AnInterruptedUpdate, EndsAsDesignedWhenCamdEndsAtAnyCall) {
  AddPackage(3, image_ = RandomBytes(100, 21));  // two chunks
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
    ExpectEndAndRecovery(RunUpdater(), n <= announced || n > complete ? 0 : 255);
  }
}

struct KillRow {
  std::string name, sim, text;  // the bus dies once `text` is seen `times` in the updater's output or camd's
  std::size_t times;
  int status;
};
const KillRow kKills[] = {
    {"DuringTheCheck", "--info-false=forever", "Entered: UpdateInit", 1, 0},
    {"MidTransfer", "--slow=WaitForAck:5", "This block: [", 20, 255},
    {"AfterTheLastChunk", "--slow=WaitForAck:5", "VERDICT ok", 1, 0},
};
class ABusDaemonThatDies : public AnInterruptedUpdate, public ::testing::WithParamInterface<KillRow> {};

TEST_P(ABusDaemonThatDies, LeavesAnUpdateTheNextRunCompletes) {
  AddPackage(3, image_ = RandomBytes(20000, 22));  // long enough to be cut in the middle
  auto bus = std::make_unique<PrivateBus>();
  StartSim({GetParam().sim});
  bool killed = false;
  ProcessOptions options;
  options.stopWhen = [&](const std::string& out, const std::string&) {
    if (killed || CountOf(out + sim_->Out(), GetParam().text) < GetParam().times) return false;
    bus->Kill();
    killed = true;
    return false;
  };
  const auto r = RunUpdater(options);
  EXPECT_TRUE(killed);
  sim_.reset();
  bus.reset();  // back on the suite's bus
  ExpectEndAndRecovery(r, GetParam().status);
}
INSTANTIATE_TEST_SUITE_P(Moments, ABusDaemonThatDies, ::testing::ValuesIn(kKills), RowName<KillRow>);

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
