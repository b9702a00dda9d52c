// What both targets share: the stall limit as the environment sets it, and the service manager's status
// lines.
#include <gmock/gmock.h>

#include "common/notify.hpp"
#include "common/stall_limit.hpp"
#include "fake_clock.hpp"
#include "notify_socket.hpp"
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

}  // namespace
}  // namespace Updater::Testing
