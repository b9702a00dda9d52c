// The command line of the real program, byte for byte on both streams.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "subprocess.hpp"

namespace {

using Updater::Testing::ProcessOptions;
using Updater::Testing::RunProcess;

const std::string kYellow = "\033[0;33m";
const std::string kReset = "\033[0m";
const std::string kClosing = kYellow + "fw-updater Debug: Exiting firmware-updater ..." + kReset + "\n";
const std::string kCamera = kYellow + "fw-updater Debug: Update target selected as camera" + kReset + "\n";

// argv[0] is set to something that is not a path, to tell it apart from a target.
auto RunUpdater(const std::vector<std::string>& args) {
  ProcessOptions options;
  options.argv0 = "fw-up-argv0";
  options.timeout = std::chrono::seconds(20);
  return RunProcess(Updater::Testing::UpdaterBinary(), args, options);
}

TEST(CommandLine, NoTargetNamesTheProgramAndFailsWith1) {
  const auto r = RunUpdater({});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Missing target for [fw-up-argv0]\n");
}

TEST(CommandLine, CameraWithoutIndexFailsWith2AndNoClosingLine) {
  const auto r = RunUpdater({"camera"});
  EXPECT_EQ(r.exitStatus, 2);
  EXPECT_EQ(r.out, kCamera);
  EXPECT_EQ(r.err, "Missing camera idx [fw-up-argv0]\n");
}

TEST(CommandLine, TargetWordsAreCaseSensitiveAndExact) {
  for (const char* word : {"Camera", "TALLYVANE", "camera0", "tallyvane ", ""}) {
    const auto r = RunUpdater({word, "0", "extra"});
    EXPECT_EQ(r.exitStatus, 0) << word;
    EXPECT_EQ(r.out, kClosing) << word;
    EXPECT_EQ(r.err, "Invalid target [" + std::string(word) + "] given, quitting fw-up-argv0\n") << word;
  }
}

}  // namespace
