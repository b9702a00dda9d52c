// What both targets share: the stall limit as the environment sets it, the service manager's status
// lines, the console's progress line and dropped-byte count, and the image's chunks.
#include <gmock/gmock.h>

#include <sstream>

#include "common/console.hpp"
#include "common/image_file.hpp"
#include "common/notify.hpp"
#include "common/stall_limit.hpp"
#include "fake_clock.hpp"
#include "notify_socket.hpp"
#include "temp_dir.hpp"
#include "text.hpp"

namespace Updater::Testing {
namespace {

using namespace std::chrono_literals;

// Neither text is a number of seconds, so neither may pass for 0, which turns the limit off.
struct StallText {
  std::string name, text;
};
void PrintTo(const StallText& row, std::ostream* os) { *os << row.name; }
const StallText kMalformedLimits[] = {{"Letters", "abc"}, {"SecondsWithAUnit", "30s"}};
class AMalformedStallLimit : public ::testing::TestWithParam<StallText> {};

TEST_P(AMalformedStallLimit, GivesTheDefaultLimitWithAWarningOnStderr) {
  setenv("QUORVEX_STALL_SECONDS", GetParam().text.c_str(), 1);
  std::optional<std::chrono::seconds> limit;
  EXPECT_EQ(Capture([&] { limit = StallLimitFromEnvironment(); }).err,
            "QUORVEX_STALL_SECONDS=[" + GetParam().text + "] is not a number of seconds; using 300\n");
  unsetenv("QUORVEX_STALL_SECONDS");
  EXPECT_EQ(limit, 300s);
}
INSTANTIATE_TEST_SUITE_P(Texts, AMalformedStallLimit, ::testing::ValuesIn(kMalformedLimits),
                         RowName<StallText>);

// Unset or empty, it is the default.
TEST(AStallLimit, UnsetIsTheDefault) {
  unsetenv("QUORVEX_STALL_SECONDS");
  EXPECT_EQ(StallLimitFromEnvironment(), 300s);
}

TEST(AStallLimit, EmptyIsTheDefault) {
  setenv("QUORVEX_STALL_SECONDS", "", 1);
  EXPECT_EQ(StallLimitFromEnvironment(), 300s);
  unsetenv("QUORVEX_STALL_SECONDS");
}

// Within a second only the line that completes the transfer goes out, and only once.
TEST(AProgressNotifier, TellsTheServiceManagerAtMostALineASecondBesidesTheLast) {
  const TempDir dir;
  NotifySocket notify(dir / "notify");
  setenv("NOTIFY_SOCKET", notify.path.c_str(), 1);
  FakeClock clock;
  ProgressNotifier progress("camera 7", clock);
  progress.Report(10, 200);
  clock.Advance(999ms);
  progress.Report(20, 200);
  clock.Advance(1ms);
  progress.Report(30, 200);
  progress.Report(200, 200);
  progress.Report(200, 200);
  unsetenv("NOTIFY_SOCKET");
  EXPECT_THAT(notify.Take(), ::testing::ElementsAre("STATUS=camera 7: 10/200 bytes (5%)",
                                                    "STATUS=camera 7: 30/200 bytes (15%)",
                                                    "STATUS=camera 7: 200/200 bytes (100%)"));
}

struct ProgressStep {
  int waitMs;  // on the clock before the report
  std::int64_t done;
};
struct ProgressRow {
  std::string name;
  bool terminal;
  std::string printed;
  std::vector<ProgressStep> steps;  // of a 1000-byte image
};
const ProgressRow kProgressRows[] = {
    {"ALineAtEachTenthElsewhere",
     false,
     "Progress of camera 7:  10% (100/1000 bytes)\nProgress of camera 7:  35% (350/1000 bytes)\n"
     "Progress of camera 7: 100% (1000/1000 bytes)\n",
     {{0, 99}, {0, 100}, {0, 350}, {0, 399}, {0, 1000}, {0, 1000}}},
    // Redrawn at most every 100 ms, but the last line always, and ended by a newline.
    {"TenTimesASecondOnATerminal",
     true,
     "\rProgress of camera 7:   0% (0/1000 bytes)\033[K"
     "\rProgress of camera 7:  20% (200/1000 bytes), 2.0 KiB/s, 0:00 left\033[K"
     "\rProgress of camera 7:  50% (500/1000 bytes), 0.5 KiB/s, 0:01 left\033[K"
     "\rProgress of camera 7: 100% (1000/1000 bytes), 1.0 KiB/s, 0:00 left\033[K\n",
     {{0, 0}, {99, 100}, {1, 200}, {900, 500}, {1, 1000}, {1, 1000}}},
};
void PrintTo(const ProgressRow& row, std::ostream* os) { *os << row.name; }
class AProgressLine : public ::testing::TestWithParam<ProgressRow> {};

TEST_P(AProgressLine, IsPrintedAsOftenAsItsConsoleTakes) {
  FakeClock clock;
  std::ostringstream out;
  Console::Progress progress("camera 7", clock, out, GetParam().terminal);
  for (const ProgressStep& step : GetParam().steps) {
    clock.Advance(std::chrono::milliseconds(step.waitMs));
    progress.Report(step.done, 1000);
  }
  EXPECT_EQ(out.str(), GetParam().printed);
}
INSTANTIATE_TEST_SUITE_P(Consoles, AProgressLine, ::testing::ValuesIn(kProgressRows), RowName<ProgressRow>);

// Counted all along; a line at the first drop, then at most one a second, and what is left at the end.
// The first count at once, then after 1 s, 2 s, 4 s ...: a noisy link costs a line per doubling of the run.
TEST(DroppedBytes, AreReportedAtOnceThenAtGapsThatDouble) {
  FakeClock clock;
  std::ostringstream out;
  Console::DropCounter drops("the link", clock, out);
  drops.Add(5);
  clock.Advance(999ms);
  drops.Add(7);
  clock.Advance(1ms);
  drops.Add(1);
  clock.Advance(1999ms);
  drops.Add(2);
  clock.Advance(1ms);
  drops.Add(1);
  drops.Add(4);
  clock.Advance(4s);
  drops.Add(0);  // shows what waited for its gap
  clock.Advance(10s);
  drops.Add(0);  // nothing new: no line
  drops.Add(3);
  drops.Add(6);
  drops.Flush();
  EXPECT_EQ(out.str(),
            "Dropped 5 bytes from the link (5 in all)\nDropped 8 bytes from the link (13 in all)\n"
            "Dropped 3 bytes from the link (16 in all)\nDropped 4 bytes from the link (20 in all)\n"
            "Dropped 3 bytes from the link (23 in all)\nDropped 6 bytes from the link (29 in all)\n");
}

// Reads are served from what was read before where they can be; every chunk still has the
// file's bytes at its position, wherever the chunk before it was.
TEST(AnImageFile, GivesEachChunkTheBytesAtItsPositionWhereverTheLastOneWas) {
  const TempDir dir;
  const std::string bytes = RandomBytes(10000, 7);
  Image::File image;
  ASSERT_EQ(image.Open(dir.Write("image.bin", bytes)), Image::Opened::Yes);
  struct Read {
    const char* name;
    int position, size;
  };
  const Read reads[] = {
      {"the first", 0, 64},
      {"within what was read", 64, 64},
      {"the same again", 64, 64},
      {"straddling the end of what was read", 4090, 64},
      {"behind what was read", 100, 64},
      {"far past it", 8000, 1000},
      {"running past the end of the file", 9990, 64},
      {"a whole buffer's worth", 0, 4096},
      {"more than a buffer's worth, starting within what was read", 10, 9000},
  };
  for (const Read& read : reads) {
    SCOPED_TRACE(read.name);
    std::optional<std::vector<std::uint8_t>> chunk;
    Capture(
        [&] { chunk = Image::ReadChunk(image, static_cast<int>(bytes.size()), read.position, read.size); });
    ASSERT_TRUE(chunk.has_value());
    EXPECT_EQ(std::string(chunk->begin(), chunk->end()), bytes.substr(read.position, read.size));
  }
}

}  // namespace
}  // namespace Updater::Testing
