// The recorder and its line format, in-process, on real files.
#include "common/record.hpp"

#include <gmock/gmock.h>

#include <thread>

#include "common/board_record.hpp"
#include "common/recording_reader.hpp"
#include "temp_dir.hpp"
#include "text.hpp"

namespace Updater::Testing {
namespace {

using ::testing::HasSubstr;

TEST(AJsonLine, KeepsEveryTextThroughWritingAndParsing) {
  const std::string text = "a \"quoted\" \\path\\\n\ttab \x01 \x1f caf\xc3\xa9";
  Json::Object line;
  line.Add("text", text).Add("key \"x\"", std::int64_t{-9000000000}).Add("flag", true);
  const std::string written = line.Text();
  EXPECT_EQ(written.find_first_of("\n\t\x01\x1f"), std::string::npos) << written;
  const auto parsed = Json::Parse(written);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->String("text"), text);
  EXPECT_EQ(parsed->Number("key \"x\""), -9000000000);
  EXPECT_EQ(parsed->Flag("flag"), true);
  EXPECT_EQ(Json::Parse(R"({"u":"\u00e9\ud83d\ude00\/"})")->String("u"), "\xc3\xa9\xf0\x9f\x98\x80/");
}

struct BadLine {
  std::string name, text;
};
void PrintTo(const BadLine& row, std::ostream* os) { *os << row.name; }
class AJsonLineParser : public ::testing::TestWithParam<BadLine> {};

TEST_P(AJsonLineParser, RefusesWhatNoRecordingHolds) { EXPECT_FALSE(Json::Parse(GetParam().text)); }
INSTANTIATE_TEST_SUITE_P(Lines, AJsonLineParser,
                         ::testing::Values(BadLine{"Nested", R"({"a":{"b":1}})"},
                                           BadLine{"Float", R"({"a":1.5})"}, BadLine{"Null", R"({"a":null})"},
                                           BadLine{"TrailingText", R"({"a":1} x)"},
                                           BadLine{"Unterminated", R"({"a":"b})"},
                                           BadLine{"RawLineEnd", "{\"a\":\"b\nc\"}"},
                                           BadLine{"LoneLowSurrogate", R"({"a":"\udc00"})"}),
                         RowName<BadLine>);

// The packets of the wire format's own examples.
TEST(ABoardLine, GivesAChunkAsItsPositionLengthAndCrcOnly) {
  const std::uint8_t block[] = {0x0B, 0x12, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xDE, 0xAD, 0x96, 0xB5};
  const auto line = Record::BoardSent(block, sizeof block);
  EXPECT_EQ(line.Text(), R"({"dir":"tx","type":18,"seq":255,"position":-2,"bytes":2,"crc32":"f605253b"})");
  EXPECT_EQ(Record::SentText(line), "type 18 seq 255 position -2, 2 bytes crc32 f605253b");
}

TEST(ABoardLine, GivesAnyOtherPacketWhole) {
  const std::uint8_t request[] = {0x05, 0x10, 0x07, 0x54, 0xF8};
  const auto line = Record::BoardSent(request, sizeof request);
  EXPECT_EQ(line.Text(), R"({"dir":"tx","type":16,"seq":7,"hex":"05100754f8"})");
  EXPECT_EQ(Record::SentText(line), "type 16 seq 7 05100754f8");
  EXPECT_EQ(Record::BoardReceived(request, 2).Text(), R"({"dir":"rx","hex":"0510"})");
}

struct ARecorder : ::testing::Test {
  Json::Object Header() const { return Json::Object().Add("target", "camera"); }
  Json::Object Call(int n) const { return Json::Object().Add("call", "WaitForAck").Add("n", n); }
  const TempDir dir_;
  const std::string path_ = dir_ / "session.jsonl";
  std::ostringstream warnings_;
};

TEST_F(ARecorder, WritesTheHeaderFirstOnceThePackageIsNamed) {
  Record::Recorder recorder(path_, Header(), warnings_);
  recorder.Exchange(Call(1));
  EXPECT_EQ(ReadFile(path_), "");
  recorder.Package("camera-region0-3.bin", 3000, 39988);
  recorder.Exchange(Call(2));
  recorder.Exit(255);
  const auto lines = Lines(ReadFile(path_));
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], R"({"target":"camera","package":"camera-region0-3.bin","size":3000,"checksum":39988})");
  EXPECT_THAT(lines[1], ::testing::StartsWith(R"({"call":"WaitForAck","n":1,"ms":)"));
  EXPECT_THAT(lines[2], ::testing::StartsWith(R"({"call":"WaitForAck","n":2,"ms":)"));
  EXPECT_EQ(lines[3], R"({"exit":255})");
  EXPECT_EQ(warnings_.str(), "");
}

TEST_F(ARecorder, EndedWithoutAPackageStillLeavesWhatItHeld) {
  {
    Record::Recorder recorder(path_, Header(), warnings_);
    recorder.Exchange(Call(1));
  }
  const auto lines = Lines(ReadFile(path_));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], R"({"target":"camera"})");
  EXPECT_THAT(lines[1], HasSubstr(R"("n":1)"));
}

// The designed board mode reads the board after the update until it is ended.
TEST_F(ARecorder, TakesNoPackageOnceTheHeaderIsWrittenAndHoldsNothingAfterIt) {
  Record::Recorder recorder(path_, Header(), warnings_);
  recorder.Exchange(Call(1));
  recorder.WriteHeader();
  recorder.Exchange(Call(2));
  recorder.Package("p", 1, 2);
  const auto lines = Lines(ReadFile(path_));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], R"({"target":"camera"})");
  EXPECT_THAT(lines[2], HasSubstr(R"("n":2)"));
}

// Each thread's lines stay whole and none is lost.
TEST_F(ARecorder, TakesExchangesFromTwoThreads) {
  Record::Recorder recorder(path_, Header(), warnings_);
  recorder.Package("p", 1, 2);
  const auto record = [&recorder, this] {
    for (int n = 0; n < 300; ++n) recorder.Exchange(Call(n));
  };
  std::thread other(record);
  record();
  other.join();
  const auto lines = Lines(ReadFile(path_));
  ASSERT_EQ(lines.size(), 601u);
  for (const auto& line : lines) EXPECT_TRUE(Json::Parse(line)) << line;
}

struct Unwritable {
  std::string name, path, reason;
};
void PrintTo(const Unwritable& row, std::ostream* os) { *os << row.name; }
class AnUnwritableRecording : public ARecorder, public ::testing::WithParamInterface<Unwritable> {};

// One warning, then silence: the update it records goes on regardless.
TEST_P(AnUnwritableRecording, CostsOneWarningLine) {
  const std::string path = GetParam().path.empty() ? dir_ / "missing/session.jsonl" : GetParam().path;
  Record::Recorder recorder(path, Header(), warnings_);
  recorder.Package("p", 1, 2);
  recorder.Exchange(Call(1));
  recorder.Exit(0);
  EXPECT_EQ(warnings_.str(), "Not recording to [" + path + "]: " + GetParam().reason + "\n");
}
INSTANTIATE_TEST_SUITE_P(Files, AnUnwritableRecording,
                         ::testing::Values(Unwritable{"DiskFull", "/dev/full", "No space left on device"},
                                           Unwritable{"BadPath", "", "No such file or directory"}),
                         RowName<Unwritable>);

// The simulators' side: what a replay reads, and where it says it left the recording.
struct ARecordingRead : ::testing::Test {
  std::string Read(const std::string& contents) {
    const Record::Recording recording(
        dir_.Write("session.jsonl", contents),
        [this](int number, const Json::Object&) { numbers_.push_back(number); });
    return recording.MismatchAtEnd("x");
  }
  const TempDir dir_;
  std::vector<int> numbers_;
};

TEST_F(ARecordingRead, NumbersLinesAsTheFileDoesPastAnEmptyOne) {
  Read("{\"recording\":1}\n\n{\"call\":\"A\"}\n");
  EXPECT_EQ(numbers_, (std::vector<int>{1, 3}));
}

TEST_F(ARecordingRead, NamesTheEndAtTheExitStatusLine) {
  EXPECT_EQ(Read("{\"call\":\"A\"}\n{\"exit\":0}\n\n"),
            "REPLAY mismatch at line 2: expected the end of the recording, got x");
}

TEST_F(ARecordingRead, NamesTheEndOfARecordingCutShortAfterItsLastLine) {
  EXPECT_EQ(Read("{\"call\":\"A\"}\n{\"call\":\"B\"}\n"),
            "REPLAY mismatch at line 3: expected the end of the recording, got x");
}

TEST_F(ARecordingRead, RefusesALineThatIsNotOneJsonObjectNamingIt) {
  try {
    Read("{\"call\":\"A\"}\n{\"call\":\n");
    FAIL() << "read a broken recording";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), dir_ / "session.jsonl" + ":2: not a recorded line");
  }
}

TEST_F(ARecordingRead, NamesTheLineThatItsReaderRefuses) {
  const auto path = dir_.Write("session.jsonl", "{\"call\":\"A\"}\n{\"dir\":\"up\"}\n");
  try {
    Record::Recording(path, [](int number, const Json::Object&) {
      if (number == 2) throw std::invalid_argument("not a recorded frame");
    });
    FAIL() << "kept a refused line";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), path + ":2: not a recorded frame");
  }
}

}  // namespace
}  // namespace Updater::Testing
