// `firmware-updater tallyvane` as a real process, on the real clock. The board's frames are read only after the
// machine has run, so the check for update information always waits out its ten seconds. Its data device is a
// FIFO of ours (QUORVEX_TALLYVANE_DATA), never the host's.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <optional>

#include "notify_socket.hpp"
#include "subprocess.hpp"
#include "temp_dir.hpp"
#include "vyrcam/packets.hpp"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(TallyvaneCommandLine, GivesUpOnTheBoardAfterTenSecondsThenKeepsReadingTheDevice) {
  Updater::Testing::TempDir dir;
  const std::string data = dir / "data";
  ASSERT_EQ(mkfifo(data.c_str(), 0600), 0);
  Updater::Testing::NotifySocket notify(dir / "notify");
  Updater::Testing::ProcessOptions options;
  options.env = {{"QUORVEX_TALLYVANE_DATA", data}, {"QUORVEX_TALLYVANE_DOWNLINK", dir / "no-downlink"},
                 {"QUORVEX_FIRMWARE_DIR", dir.path()}, {"QUORVEX_TALLYVANE_VERSION_FILE", dir / "no-version"},
                 {"NOTIFY_SOCKET", dir / "notify"}};
  options.timeout = 40s;
  const std::string refusal =
      "\033[0;31mfw-updater Debug: [ERROR] -- Error asking tallyvane for update info status, not updating\033[0m\n";
  const auto started = Clock::now();
  std::optional<Clock::time_point> refusedAt, doneAt, readyAt;
  bool spoke = false;
  options.stopWhen = [&](const std::string& out, const std::string&) {
    if (!refusedAt && out.find(refusal) != std::string::npos) refusedAt = Clock::now();
    if (!doneAt && out.find("Entered: UpdateDone\n") != std::string::npos) doneAt = Clock::now();
    for (const auto& message : notify.Take()) if (message == "READY=1") readyAt = Clock::now();
    // Once the loop has the FIFO open (until then ENXIO), the board speaks.
    if (const int fd = doneAt && !spoke ? open(data.c_str(), O_WRONLY | O_NONBLOCK) : -1; fd >= 0) {
      std::uint8_t frame[18] = {0xAA, 0xA9};
      VYRCam::UpdateInfo(7, 3, 64, 2).Pack(frame + 2);
      spoke = write(fd, frame, sizeof frame) == sizeof frame, close(fd);
    }
    // Time to show that it does not end on its own.
    return doneAt && Clock::now() - *doneAt > 1500ms && out.find("\tflash Sector: [2]") != std::string::npos;
  };
  const auto run = Updater::Testing::RunProcess(Updater::Testing::UpdaterBinary(), {"tallyvane"}, options);
  ASSERT_TRUE(refusedAt.has_value()) << run.out;
  EXPECT_GE(*refusedAt - started, 10200ms);
  EXPECT_LT(*refusedAt - started, 13s);
  EXPECT_TRUE(readyAt && doneAt && *readyAt >= *doneAt) << "ready once the receive loop runs, after the machine";
  EXPECT_TRUE(run.timedOut && run.termSignal == SIGTERM) << "still running, reading the device, until ended";
  EXPECT_EQ(run.out.rfind("Entered: UpdateInit\n ** Sending message pkt # [0]\n" + refusal +
                              "          Update not needed, exiting...\nExited: UpdateInit\nEntered: UpdateDone\n", 0),
            0u) << run.out;
  EXPECT_EQ(run.out.find("Exiting firmware-updater"), std::string::npos);
}
