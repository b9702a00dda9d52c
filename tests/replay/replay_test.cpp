// The table of recorded sessions (sessions.txt): each recording replayed into
// the real firmware-updater, a camera's by camd-sim --replay on a private bus,
// a board's by tallyvane-sim --replay on FIFOs of the test's own.
#include <gmock/gmock.h>

#include <fstream>

#include "camd_fixture.hpp"
#include "common/board_record.hpp"
#include "common/json_line.hpp"

namespace Updater::Testing {
namespace {

using ::testing::HasSubstr;
const std::string kDir = FWU_REPLAY_DIR;

struct Session {
  std::string name;
  bool image = false;    // the recording delivered the image
  bool fast = false;     // replayed without the recorded delays
  int mismatchLine = 0;  // where the recording and the updater part
};
void PrintTo(const Session& s, std::ostream* os) { *os << s.name; }

std::vector<Session> Sessions() {
  std::vector<Session> rows;
  std::ifstream in(kDir + "/sessions.txt");
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    Session row;
    if (!(words >> row.name) || row.name[0] == '#') continue;
    for (std::string word; words >> word;) {
      if (word == "image") row.image = true;
      if (word == "fast") row.fast = true;
      if (word.rfind("mismatch=", 0) == 0) row.mismatchLine = std::stoi(word.substr(9));
    }
    rows.push_back(row);
  }
  return rows;
}

// Every line of the recording, by its number from 1 (0 is left empty).
std::vector<Json::Object> Recording(const std::string& path) {
  std::vector<Json::Object> lines(1);
  for (const auto& text : Lines(ReadFile(path))) lines.push_back(Json::Parse(text).value_or(Json::Object()));
  return lines;
}

class ARecordedSession : public CamdBusTest, public ::testing::WithParamInterface<Session> {};

TEST_P(ARecordedSession, ReplaysToTheRecordedEnd) {
  const Session& row = GetParam();
  const std::string path = kDir + "/sessions/" + row.name + ".jsonl";
  const auto lines = Recording(path);
  ASSERT_GT(lines.size(), 2u) << path;
  const Json::Object& header = lines[1];
  const std::string package = header.String("package").value_or("");
  fw_.Write(package, ReadFile(kDir + "/images/" + package));
  if (const auto stall = header.String("stall_seconds")) setenv("QUORVEX_STALL_SECONDS", stall->c_str(), 1);
  std::int64_t span = 0;  // from the first answer to the last
  for (const auto& line : lines) span += line.Number("ms").value_or(0);
  const bool board = header.String("target") == "tallyvane";
  std::vector<std::string> replay = {"--replay=" + path};
  if (row.fast) replay.push_back("--replay-fast");
  ProcessOptions options;
  std::vector<std::string> args = {"camera", header.String("index").value_or("")};
  if (board) {
    args = {"tallyvane"};
    replay.insert(replay.end(), {"--uplink", fw_ / "uplink", "--downlink", fw_ / "downlink", "--version-file",
                                 fw_ / "version"});
    sim_ = std::make_unique<ChildProcess>(TALLYVANE_SIM_BIN, replay, fw_.path(), "READY");
    options.env = {{"QUORVEX_TALLYVANE_DATA", fw_ / "uplink"},
                   {"QUORVEX_TALLYVANE_DOWNLINK", fw_ / "downlink"},
                   {"QUORVEX_TALLYVANE_VERSION_FILE", fw_ / "version"},
                   {"QUORVEX_TALLYVANE_READER", header.String("reader").value_or("")}};
  } else {
    StartSim(replay);
  }

  const auto r = RunProcess(UpdaterBinary(), args, options);
  const std::string said = sim_->Out();
  if (row.mismatchLine > 0) {
    const auto at = static_cast<std::size_t>(row.mismatchLine);
    const std::string expected =
        at >= lines.size() ? "the end of the recording"
        : board            ? Record::SentText(lines[at])
                : lines[at].String("call").value_or("") + "(" + lines[at].String("args").value_or("") + ")";
    EXPECT_THAT(said, HasSubstr("REPLAY mismatch at line " + std::to_string(at) + ": expected " + expected +
                                ", got "));
    EXPECT_GE(r.exitStatus, 0);  // ended by itself
    return;
  }
  EXPECT_EQ(r.exitStatus, lines.back().Number("exit").value_or(-1)) << r.out << r.err;
  EXPECT_THAT(said, HasSubstr("REPLAY complete: "));
  for (const auto& line : lines) {  // the recorded errors, as camd sent them
    if (const auto message = line.String("message")) {
      EXPECT_THAT(r.out + r.err, HasSubstr(*message));
    }
  }
  EXPECT_THAT(said, Not(HasSubstr("REPLAY mismatch")));
  // The recorded delays are replayed: the run takes as long as it did.
  if (!row.fast) {
    EXPECT_GE(r.elapsed, std::chrono::milliseconds(span * 9 / 10));
  }
  char verdict[80];
  (void)std::snprintf(
      verdict, sizeof verdict,
      board ? "VERDICT ok bytes=%ld checksum=%04lx" : "VERDICT ok camera=0 bytes=%ld crc=%04lx",
      static_cast<long>(header.Number("size").value_or(-1)),
      static_cast<long>(header.Number("checksum").value_or(-1)));
  EXPECT_EQ(CountOf(said, verdict), row.image ? 1u : 0u) << said;
}
INSTANTIATE_TEST_SUITE_P(Sessions, ARecordedSession, ::testing::ValuesIn(Sessions()), RowName<Session>);

using ARecordedUpdate = CamdBusTest;

// The same update twice, the second with a recording that cannot be written.
TEST_F(ARecordedUpdate, ThatCannotBeWrittenCostsOneWarningLineAndNothingElse) {
  const std::string image = RandomBytes(1000, 27);
  AddPackage(3, image);
  StartSim({});
  const auto plain = RunProcess(UpdaterBinary(), {"camera", "0"});
  StartSim({});
  ProcessOptions options;
  options.env = {{"QUORVEX_RECORD", "/dev/full"}};
  const auto recorded = RunProcess(UpdaterBinary(), {"camera", "0"}, options);
  EXPECT_EQ(recorded.exitStatus, 0);
  EXPECT_EQ(recorded.out, plain.out);
  std::string err = recorded.err;
  const std::string warning = "Not recording to [/dev/full]: No space left on device\n";
  ASSERT_NE(err.find(warning), std::string::npos) << err;
  EXPECT_EQ(err.erase(err.find(warning), warning.size()), plain.err);
  EXPECT_EQ(ReadFile(OutPath()), image);
}

}  // namespace
}  // namespace Updater::Testing
