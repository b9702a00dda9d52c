// The command line of the real program, byte for byte on both streams.
#include <gtest/gtest.h>

#include "subprocess.hpp"

namespace Updater::Testing {
namespace {

TEST(CommandLine, WrongUseNamesTheProgramWithItsOwnStatus) {
  const std::string yellow = "\033[0;33mfw-updater Debug: ", reset = "\033[0m\n";
  struct Row { std::vector<std::string> args; int status; std::string out, err; };
  std::vector<Row> rows = {{{}, 1, "", "Missing target for [fw-up-argv0]\n"},
                           // No closing line.
                           {{"camera"}, 2, yellow + "Update target selected as camera" + reset, "Missing camera idx [fw-up-argv0]\n"}};
  // Target words are case-sensitive and exact.
  for (const std::string word : {"Camera", "TALLYVANE", "camera0", "tallyvane ", ""})
    rows.push_back({{word, "0", "extra"}, 0, yellow + "Exiting firmware-updater ..." + reset,
                    "Invalid target [" + word + "] given, quitting fw-up-argv0\n"});
  ProcessOptions options;
  options.argv0 = "fw-up-argv0";  // not a path, to tell it apart from a target
  for (const auto& row : rows) {
    const auto r = RunProcess(UpdaterBinary(), row.args, options);
    EXPECT_EQ(std::make_tuple(r.exitStatus, r.out, r.err), std::make_tuple(row.status, row.out, row.err));
  }
}

}  // namespace
}  // namespace Updater::Testing
