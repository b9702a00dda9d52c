// The command line of the real program, byte for byte on both streams.
#include <gtest/gtest.h>

#include "subprocess.hpp"

namespace Updater::Testing {
namespace {

const std::string kYellow = "\033[0;33mfw-updater Debug: ", kReset = "\033[0m\n";

// argv[0] is not a path here, to tell it apart from a target word.
ProcessResult RunWithArgs(const std::vector<std::string>& args) {
  ProcessOptions options;
  options.argv0 = "fw-up-argv0";
  return RunProcess(UpdaterBinary(), args, options);
}

TEST(AProgramWithoutATarget, NamesItsOwnPathAndExitsWithOne) {
  const auto run = RunWithArgs({});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "Missing target for [fw-up-argv0]\n");
}

TEST(ACameraTargetWithoutAnIndex, ExitsWithTwoAndNoClosingLine) {
  const auto run = RunWithArgs({"camera"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_EQ(run.out, kYellow + "Update target selected as camera" + kReset);
  EXPECT_EQ(run.err, "Missing camera idx [fw-up-argv0]\n");
}

class AnInvalidTargetWord : public ::testing::TestWithParam<std::string> {};

// Arguments after the index are ignored, so an extra one must not change the outcome.
TEST_P(AnInvalidTargetWord, IsNamedOnStderrAndEndsWithTheClosingLine) {
  const auto run = RunWithArgs({GetParam(), "0", "extra"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, kYellow + "Exiting firmware-updater ..." + kReset);
  EXPECT_EQ(run.err, "Invalid target [" + GetParam() + "] given, quitting fw-up-argv0\n");
}

// Target words are compared exactly and case-sensitively; each word names its case.
INSTANTIATE_TEST_SUITE_P(Words, AnInvalidTargetWord, ::testing::Values("Camera", "camera0", "tallyvane0"),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace Updater::Testing
