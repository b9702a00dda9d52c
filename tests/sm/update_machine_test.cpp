// The update state machine driven through a scripted helper. The helper writes one marker line per call into
// the same stream as the machine's trace, so each test sees the exact interleaving of trace and calls.
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <deque>
#include <stdexcept>
#include <string>

#include "sm/updater_msm.hpp"
#include "text.hpp"

namespace {

using namespace Updater::SM;
using ::testing::Contains;
using ::testing::ElementsAreArray;
using Updater::Testing::Capture;
using Updater::Testing::CountOf;
using Updater::Testing::Lines;

// Each call leaves a marker line ("> send 5") in the trace.
struct ScriptedHelper : Updater::Helpers::UpdateHelper {
  int check = 1, first = 5, sent = 1, next = -1;
  std::deque<int> acks;  // when empty: 3
  bool waitThrows = false;

  int CheckForUpdate() override { return Record("> check", check); }
  bool HaveUpdateFile() override { return Record("> have file", 1) != 0; }
  int GetFirstUpdateBlock() override { return Record("> first", first); }
  int SendFirmwareBlock(int b) override { return Record("> send " + std::to_string(b), sent); }
  int WaitForAck(unsigned b) override {
    if (waitThrows) throw std::runtime_error("gone");
    const int status = acks.empty() ? 3 : acks.front();
    if (!acks.empty()) acks.pop_front();
    return Record("> wait " + std::to_string(b), status);
  }
  int GetNextFirmwareBlock() override { return Record("> next", next); }

  static int Record(const std::string& marker, int result) {
    std::cout << marker << std::endl;
    return result;
  }
};

struct AnUpdateMachine : ::testing::Test {
  void Start() {
    LendHelper(machine, &helper);
    machine.start();
  }
  std::vector<std::string> Run() {
    return Lines(Capture([&] { Start(); }).out);
  }
  // A death test's matcher sees only stderr, so there the trace goes to stderr as well.
  void RunTracingToStderr() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    Start();
  }
  ScriptedHelper helper;
  updaterMSM machine;
};
using AnUpdateMachineDeathTest = AnUpdateMachine;

TEST_F(AnUpdateMachine, TracesAnUpdateOfOneBlock) {
  const char* expected = R"(Entered: UpdateInit
> check
          Update needed, initiating...
Exited: UpdateInit
Entered: Updating
> have file
Entered: DeterminingFirstBlock
> first
                First:5
Ready with block #5
Exited: DeterminingFirstBlock
Action: send_block
Entered: SendingBlock: 5
> send 5
Exited: SendingBlock
Entered: WaitingForAck: 5
> wait 5
Exited: WaitingForAck
Entered: Updating_UpdateDone
Exited: Updating_UpdateDone
Exited: Updating
Action: done_updating
Entered: UpdateDone)";
  EXPECT_THAT(Run(), ElementsAreArray(Lines(expected)));
}

TEST_F(AnUpdateMachine, SendsTheSameBlockAgainAfterStatusOne) {
  helper.acks = {1, 3};
  EXPECT_EQ(CountOf(Capture([&] { Start(); }).out, "> send 5\n"), 2u);
}

TEST_F(AnUpdateMachine, TakesAnyNonZeroCheckResultAsAnUpdate) {
  helper.check = -7;
  EXPECT_THAT(Run(), Contains("          Update needed, initiating..."));
}

// Block 0 is a block like any other.
TEST_F(AnUpdateMachine, SendsTheBlockNamedNextAfterAnAck) {
  helper.acks = {0, 3};
  helper.next = 0;
  EXPECT_THAT(Run(), Contains("> send 0"));
}

class AnUpdateMachineGivenAnUnknownStatus : public AnUpdateMachine,
                                            public ::testing::WithParamInterface<int> {};

TEST_P(AnUpdateMachineGivenAnUnknownStatus, RestsSilentlyWhereItIs) {
  helper.acks = {GetParam()};
  EXPECT_EQ(Run().back(), "> wait 5");
}

INSTANTIATE_TEST_SUITE_P(Statuses, AnUpdateMachineGivenAnUnknownStatus, ::testing::Values(2, 4, -1),
                         [](const auto& info) {
                           return info.param < 0 ? "Negative" : "Status" + std::to_string(info.param);
                         });

// No run posts update_error from UpdateInit; the row is there all the same.
TEST_F(AnUpdateMachine, EntersUpdateErrorOnAnUpdateErrorBeforeItsStart) {
  EXPECT_EQ(Capture([&] { machine.process_event(update_error{}); }).out,
            "Exited: UpdateInit\nEntered: UpdateError\n");
}

TEST_F(AnUpdateMachineDeathTest, ExitsWith255AfterAFailedSend) {
  helper.sent = 0;
  EXPECT_EXIT(RunTracingToStderr(), testing::ExitedWithCode(255),
              "> send 5\nExited: SendingBlock\nEntered: Updating_ErrorExit\n$");
}

TEST_F(AnUpdateMachineDeathTest, ExitsWith255WhenNoNextBlockIsNamed) {
  helper.acks = {0};
  EXPECT_EXIT(
      RunTracingToStderr(), testing::ExitedWithCode(255),
      "> next\nDidn't get an ACK... exiting\\?\nExited: WaitingForAck\nEntered: Updating_ErrorExit\n$");
}

TEST_F(AnUpdateMachineDeathTest, AbortsOnAStandardExceptionInsideATransition) {
  helper.waitThrows = true;
  EXPECT_EXIT(RunTracingToStderr(), testing::KilledBySignal(SIGABRT), "Assertion `false' failed");
}

}  // namespace
