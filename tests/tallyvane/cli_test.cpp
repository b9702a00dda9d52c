// `firmware-updater tallyvane` as a real process, on the real clock. By default the board's frames are read
// only after the machine has run, so the check for update information always waits out its ten seconds. Its
// data device is a FIFO of ours (QUORVEX_TALLYVANE_DATA), never the host's.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <vector>

#include "notify_socket.hpp"
#include "subprocess.hpp"
#include "text.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using namespace Updater::Testing;
using Clock = std::chrono::steady_clock;
using testing::HasSubstr;

const std::string kRefusal = "[ERROR] -- Error asking tallyvane for update info status, not updating";

// The run's devices, image directory and notification socket, all in `dir`.
std::vector<std::pair<std::string, std::string>> Environment(const TempDir& dir) {
  return {{"QUORVEX_TALLYVANE_DATA", dir / "uplink"},
          {"QUORVEX_TALLYVANE_DOWNLINK", dir / "downlink"},
          {"QUORVEX_FIRMWARE_DIR", dir.path()},
          {"QUORVEX_TALLYVANE_VERSION_FILE", dir / "version"},
          {"NOTIFY_SOCKET", dir / "notify"}};
}

// The summary console (QUORVEX_CONSOLE=summary) starts with the target, and whatever the board does, its
// whole update fits a screen.
const std::string kTarget = "Target: the counter-link board (tallyvane), frames from [";
const std::string kNotNeeded = "          Update not needed, exiting...";

struct DefaultRun {
  std::string name;
  const char* console;
  std::vector<std::string> head;  // held by the first lines of standard output, one each
  std::string board;              // what the board's update information and 4 bytes of garbage print
};

class TheDefaultRun : public testing::TestWithParam<DefaultRun> {};

TEST_P(TheDefaultRun, ChecksInVainThenReadsTheBoardUntilStopped) {
  const DefaultRun& row = GetParam();
  TempDir dir;
  const std::string data = dir / "uplink";
  ASSERT_EQ(mkfifo(data.c_str(), 0600), 0);
  NotifySocket notify(dir / "notify");
  ProcessOptions options;
  options.env = Environment(dir);
  options.env.emplace_back("QUORVEX_CONSOLE", row.console);
  options.timeout = 40s;
  std::optional<Clock::time_point> doneAt, readyAt;
  bool spoke = false;
  options.stopWhen = [&](const std::string& out, const std::string& err) {
    if (!doneAt && out.find(kNotNeeded + "\n") != std::string::npos) doneAt = Clock::now();
    for (const auto& message : notify.Take())
      if (message == "READY=1") readyAt = Clock::now();
    // Once the loop has the FIFO open (until then ENXIO), the board speaks.
    if (const int fd = doneAt && !spoke ? open(data.c_str(), O_WRONLY | O_NONBLOCK) : -1; fd >= 0) {
      std::uint8_t frame[22] = {0xAA, 0xA9};
      VYRCam::UpdateInfo(7, 3, 64, 2).Pack(frame + 2);
      const std::uint8_t garbage[] = {1, 2, 3, 4};
      std::copy(std::begin(garbage), std::end(garbage), frame + 18);
      spoke = write(fd, frame, sizeof frame) == sizeof frame;
      close(fd);
    }
    return doneAt && Clock::now() - *doneAt > 1500ms && (out + err).find(row.board) != std::string::npos;
  };
  const auto run = RunProcess(UpdaterBinary(), {"tallyvane"}, options);
  EXPECT_TRUE(readyAt && doneAt && *readyAt >= *doneAt)
      << "ready once the receive loop runs, after the machine";
  EXPECT_EQ(run.termSignal, SIGTERM) << "still reading the device, until ended";
  EXPECT_THAT(run.out + run.err, HasSubstr(row.board));
  auto lines = Lines(run.out);
  lines.resize(row.head.size());
  std::vector<testing::Matcher<std::string>> head;
  for (const auto& text : row.head) head.push_back(HasSubstr(text));
  EXPECT_THAT(lines, testing::ElementsAreArray(head));
}

const DefaultRun kDefaultRuns[] = {
    {"Designed",
     "",
     {"Entered: UpdateInit", " ** Sending message pkt # [0]", kRefusal, kNotNeeded, "Exited: UpdateInit",
      "Entered: UpdateDone"},
     "\tflash Sector: [2]\033[0m\nGULP; ignoring this frame's data\n"},
    // The garbage counted, not shown; the refusal's red line kept.
    {"Summary",
     "summary",
     {kTarget, kRefusal, kNotNeeded},
     "Dropped 4 bytes from the board's data device (4 in all)\n"},
};
INSTANTIATE_TEST_SUITE_P(Consoles, TheDefaultRun, testing::ValuesIn(kDefaultRuns), RowName<DefaultRun>);

// The concurrent mode: one update per run against tallyvane-sim on FIFOs of ours, on the real clock. An image
// of 65,000 bytes unless the row says otherwise (not a multiple of the chunk size) replaces the board's
// version 3 with version 9.
const std::string kClosing = "Exiting firmware-updater ...";
const std::string kGivenUp = "[ERROR] -- The board reported an update error; giving up the update";
const std::string kNoProgress = "[ERROR] -- No progress for ";
// Apart: the receive thread's red line of the board leaving may come between them.
const std::string kAllSent = "Progress of tallyvane: 100% (65000/65000 bytes)\n";
const std::string kDone = "Result: the target acknowledged the whole image; update done\n";
const std::string kDropped = " bytes from the board's data device (";
constexpr std::size_t kSummaryLines = 30;
struct BoardRun {
  std::string name;
  std::vector<std::string> simFaults;
  // Printed on standard output. A run that ends with the closing line has delivered the image byte for byte,
  // had it applied and reported its progress complete; any other has delivered nothing.
  std::string line = kClosing;
  std::chrono::seconds within{15};
  std::string stallSeconds = "300";
  bool boardPresent = true;
  std::size_t imageBytes = 65000;
  const char* console = nullptr;       // QUORVEX_CONSOLE, when set
  std::vector<std::string> also = {};  // printed too, on either stream
};
void PrintTo(const BoardRun& row, std::ostream* os) { *os << row.name; }

class AConcurrentBoardUpdate : public testing::TestWithParam<BoardRun> {};

TEST_P(AConcurrentBoardUpdate, EndsAsTheBoardAllows) {
  const BoardRun& run = GetParam();
  const bool delivered = run.line == kClosing;
  TempDir dir;
  const std::string image = RandomBytes(run.imageBytes, 11);
  dir.Write("tallyvane-9.bin", image);
  std::optional<ChildProcess> board;
  std::vector<std::string> args = {
      "--uplink",           dir / "uplink",   "--downlink",    dir / "downlink",  "--out",
      dir / "received.bin", "--version-file", dir / "version", "--board-version", "3"};
  args.insert(args.end(), run.simFaults.begin(), run.simFaults.end());
  if (run.boardPresent) {
    board.emplace(TALLYVANE_SIM_BIN, args, dir.path(), "READY");
  } else {
    ASSERT_EQ(mkfifo((dir / "uplink").c_str(), 0600), 0);  // nobody writes, nobody reads the downlink
  }
  NotifySocket notify(dir / "notify");
  ProcessOptions options;
  options.env = Environment(dir);
  options.env.insert(options.env.end(), {{"QUORVEX_TALLYVANE_READER", "concurrent"},
                                         {"QUORVEX_STALL_SECONDS", run.stallSeconds},
                                         {"QUORVEX_CONSOLE", run.console ? run.console : ""}});
  options.timeout = 60s;
  const auto result = RunProcess(UpdaterBinary(), {"tallyvane"}, options);
  SCOPED_TRACE(result.out.substr(result.out.size() - std::min<std::size_t>(result.out.size(), 2000)));
  EXPECT_EQ(result.exitStatus, delivered || !run.boardPresent ? 0 : 255);
  EXPECT_THAT(result.out, HasSubstr(run.line));
  for (const auto& text : run.also) EXPECT_THAT(result.out + result.err, HasSubstr(text));
  // The designed console starts with the machine's trace and the request for update information, the summary
  // with the target.
  EXPECT_THAT(result.out,
              testing::StartsWith(run.console ? kTarget + dir / "uplink]\n"
                                              : "Entered: UpdateInit\n ** Sending message pkt # [0]\n"));
  if (run.console) {
    EXPECT_LE(CountOf(result.out + result.err, "\n"), kSummaryLines);
  }
  EXPECT_LT(result.elapsed, run.within);
  EXPECT_EQ(ReadFile(dir / "received.bin") == image, delivered);
  EXPECT_EQ(ReadFile(dir / "version"), delivered ? "9\n" : run.boardPresent ? "3\n" : "");
  if (board) {
    EXPECT_EQ(board->Out().find("\nAPPLY\n") != std::string::npos, delivered);
  }
  const auto statuses = notify.Take();
  const std::string whole = std::to_string(run.imageBytes);
  EXPECT_EQ(!statuses.empty() &&
                statuses.back().rfind("STATUS=board: " + whole + "/" + whole + " bytes (100%)", 0) == 0,
            delivered);
}

const BoardRun kRuns[] = {
    {"Clean", {}},
    {"MangledReports", {"--drop-reports", "3,40", "--duplicate-reports", "5,30", "--corrupt-frame", "50"}},
    {"LostAcknowledgement", {"--drop-ack-seq", "7"}},
    {"ResumeFromTheMiddle", {"--start", "30000"}},
    {"BoardFallsSilent", {"--mute-after", "100"}, kNoProgress + "2 s", /*within=*/6s, /*stallSeconds=*/"2"},
    {"BoardAsksForTheSameBytesForEver", {"--stuck-after", "50"}, kNoProgress + "12 s", /*within=*/16s},
    {"BoardRefusesTheAnnouncedImage", {"--max-image-bytes", "1000"}, kGivenUp},
    {"BoardForgetsTheUpdateMidTransfer", {"--error-after", "50"}, kGivenUp},
    {"BoardNeverAnswers", {}, kRefusal, /*within=*/13s, /*stallSeconds=*/"300", /*boardPresent=*/false},
    {"BoardCompletesAfterTwentyChunks",
     {"--complete-after", "20"},
     "[ERROR] -- The board reported completion after 1280 of 65000 bytes; not applying"},
    {"BoardAnswersASecondLate",
     {"--answer-delay-ms", "1000", "--answer-jitter-ms", "500"},
     kClosing,
     /*within=*/15s,
     /*stallSeconds=*/"300",
     /*boardPresent=*/true,
     /*imageBytes=*/200},
    {"BoardRepeatsItsPreviousReport", {"--stale-after", "2"}},
    {"LossyLink",
     {"--drop-ack-every", "3", "--drop-report-every", "4", "--corrupt-frame", "9,30"},
     kClosing,
     /*within=*/15s,
     /*stallSeconds=*/"300",
     /*boardPresent=*/true,
     /*imageBytes=*/3000},
    {"BoardRestartsAndReportsNoMore",
     {"--forget-after", "50"},
     kNoProgress,
     /*within=*/16s,
     /*stallSeconds=*/"0"},
    {"CleanInSummary",
     {},
     kClosing,
     15s,
     "300",
     true,
     65000,
     "summary",
     {"Decision: board version 3, package version 9 [", "; update needed\n", kAllSent, kDone}},
    // Garbage and a corrupt report: their bytes counted, not dumped; the red line of the report kept.
    {"NoisyLinkInSummary",
     {"--garbage-before", "5", "--corrupt-frame", "50"},
     kClosing,
     15s,
     "300",
     true,
     65000,
     "summary",
     {"Dropped ", kDropped, "[ERROR] -- Failed to Unpack ReceivedFirmwareBlock [", kAllSent, kDone}},
    {"RefusedInSummary",
     {"--max-image-bytes", "1000"},
     kGivenUp,
     15s,
     "300",
     true,
     65000,
     "summary",
     {"Exit status 255: the update failed"}},
};
INSTANTIATE_TEST_SUITE_P(Runs, AConcurrentBoardUpdate, testing::ValuesIn(kRuns), RowName<BoardRun>);

}  // namespace
