// `firmware-updater tallyvane` as a real process, on the real clock. The
// board's frames are read only after the machine has run, so the check for
// update information always waits out its ten seconds.
#include <signal.h>

#include <gtest/gtest.h>

#include <optional>

#include "link_fixture.hpp"
#include "subprocess.hpp"

namespace {

using namespace std::chrono_literals;
using Updater::Testing::ProcessOptions;
using Updater::Testing::RunProcess;
using Updater::Testing::TempDir;
using Clock = std::chrono::steady_clock;

TEST(TallyvaneCommandLine, GivesUpOnTheBoardAfterTenSecondsThenKeepsReadingTheDevice) {
  TempDir dir;
  ProcessOptions options;
  options.env = {{"QUORVEX_TALLYVANE_DOWNLINK", dir / "no-downlink"},
                 {"QUORVEX_FIRMWARE_DIR", dir.path().string()},
                 {"QUORVEX_TALLYVANE_VERSION_FILE", dir / "no-version"}};
  options.timeout = 40s;

  const std::string refusal =
      "\033[0;31mfw-updater Debug: [ERROR] -- Error asking tallyvane for update info status, not updating\033[0m\n";
  const auto started = Clock::now();
  std::optional<Clock::time_point> refusedAt, doneAt;
  options.stopWhen = [&](const std::string& out, const std::string&) {
    const auto now = Clock::now();
    if (!refusedAt && out.find(refusal) != std::string::npos) refusedAt = now;
    if (!doneAt && out.find("Entered: UpdateDone\n") != std::string::npos) doneAt = now;
    // Give it time to show that it does not end on its own.
    return doneAt && now - *doneAt > 1500ms;
  };

  const auto run = RunProcess(FWU_UPDATER_BIN, {"tallyvane"}, options);

  ASSERT_TRUE(refusedAt.has_value()) << run.out;
  const auto refusedAfter = *refusedAt - started;
  EXPECT_GE(refusedAfter, 10200ms);
  EXPECT_LT(refusedAfter, 13s);

  // Still running (reading the device) until we ended it.
  EXPECT_TRUE(run.timedOut);
  EXPECT_EQ(run.termSignal, SIGTERM);

  const std::string expected = "Entered: UpdateInit\n"
                               " ** Sending message pkt # [0]\n" +
                               refusal +
                               "          Update not needed, exiting...\n"
                               "Exited: UpdateInit\n"
                               "Entered: UpdateDone\n";
  EXPECT_EQ(run.out.rfind(expected, 0), 0u) << run.out;
  EXPECT_EQ(run.out.find("Exiting firmware-updater"), std::string::npos);
}

}  // namespace
