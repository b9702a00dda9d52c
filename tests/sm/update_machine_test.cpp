// The update state machine driven through a scripted helper. The helper
// writes one marker line per call into the same stream as the machine's
// trace, so each test sees the exact interleaving of trace and calls.
#include "sm/update_machine.hpp"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <stdexcept>
#include <string>

#include "sm/updater_msm.hpp"
#include "text.hpp"

namespace {

using namespace Updater::SM;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using Updater::Testing::Lines;
using Updater::Testing::Stdout;

// Each call leaves a marker line ("> send 5") in the trace.
struct ScriptedHelper : Updater::Helpers::UpdateHelper {
  int check = 1, first = 5;
  std::deque<int> sends, acks, nexts;  // when empty: 1, 3 and -1

  int CheckForUpdate() override { return Record("> check", check); }
  bool HaveUpdateFile() override { return Record("> have file", true); }
  int GetFirstUpdateBlock() override { return Record("> first", first); }
  int SendFirmwareBlock(int b) override { return Record("> send " + std::to_string(b), Pop(sends, 1)); }
  int WaitForAck(unsigned b) override { return Record("> wait " + std::to_string(b), Pop(acks, 3)); }
  int GetNextFirmwareBlock() override { return Record("> next", Pop(nexts, -1)); }

  static int Pop(std::deque<int>& q, int fallback) {
    if (q.empty()) return fallback;
    const int v = q.front();
    q.pop_front();
    return v;
  }
  template <class T>
  T Record(const std::string& marker, T result) {
    std::cout << marker << std::endl;
    return result;
  }
};

// The death tests run the whole update through the facade, as the program does.
void RunMachine(ScriptedHelper& helper) {
  UpdateMachine machine;
  machine.SetHelper(&helper);
  machine.start();
}

struct AnUpdateMachine : ::testing::Test {
  std::vector<std::string> Run() {
    LendHelper(machine, &helper);
    return Lines(Stdout([&] { machine.start(); }));
  }
  ScriptedHelper helper;
  updaterMSM machine;
};

TEST_F(AnUpdateMachine, EndsInUpdateDoneWhenNoUpdateIsNeeded) {
  helper.check = 0;
  EXPECT_THAT(Run(), ElementsAre("Entered: UpdateInit", "> check", "          Update not needed, exiting...",
                                 "Exited: UpdateInit", "Entered: UpdateDone"));
}

TEST_F(AnUpdateMachine, TracesAnUpdateWhoseOnlyBlockIsSentTwice) {
  helper.acks = {1, 3};
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
Ready with block #5
Exited: WaitingForAck
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

TEST_F(AnUpdateMachine, TakesAnyNonZeroCheckResultAsAnUpdate) {
  helper.check = -7;
  EXPECT_THAT(Run(), Contains("          Update needed, initiating..."));
}

// -1 is no error to the machine: it is sent like any other block.
TEST_F(AnUpdateMachine, ShowsANegativeFirstBlockUnsignedOnlyWhereItIsUnsigned) {
  helper.first = -1;
  EXPECT_THAT(Run(), ::testing::IsSupersetOf({"                First:4294967295", "Ready with block #-1",
                                              "Entered: SendingBlock: -1", "> send -1",
                                              "Entered: WaitingForAck: 4294967295", "> wait 4294967295"}));
}

// Block 0 is a block like any other.
TEST_F(AnUpdateMachine, SendsTheBlockNamedNextAfterAnAck) {
  helper.acks = {0, 3};
  helper.nexts = {0};
  EXPECT_THAT(Stdout([&] { RunMachine(helper); }),
              HasSubstr("> wait 5\n> next\nReady with block #0\nExited: WaitingForAck\nAction: send_block\n"
                        "Entered: SendingBlock: 0\n> send 0\n"));
}

struct UnknownStatus {
  std::string name;
  int status;
};
void PrintTo(const UnknownStatus& row, std::ostream* os) { *os << row.name; }

class AnUpdateMachineGivenAnUnknownStatus : public AnUpdateMachine,
                                            public ::testing::WithParamInterface<UnknownStatus> {};

TEST_P(AnUpdateMachineGivenAnUnknownStatus, RestsSilentlyWhereItIs) {
  helper.acks = {GetParam().status};
  EXPECT_EQ(Run().back(), "> wait 5");
}

const UnknownStatus kUnknownStatuses[] = {
    {"Two", 2},
    {"Four", 4},
    {"MinusOne", -1},
};
INSTANTIATE_TEST_SUITE_P(Statuses, AnUpdateMachineGivenAnUnknownStatus, ::testing::ValuesIn(kUnknownStatuses),
                         [](const auto& info) { return info.param.name; });

// Events without a row are reported with the state's number and change nothing. The
// helper's markers would show if anything more were asked of it.
TEST_F(AnUpdateMachine, ReportsABlockSentWhileWaitingForAnAck) {
  helper.acks = {2};
  Run();
  EXPECT_EQ(Stdout([&] { machine.get_state<Updating&>().process_event(block_sent{3}); }),
            "UpdaterSub_:: no transition from state 1 on event N7Updater2SM10block_sentE\n");
  EXPECT_EQ(machine.get_state<Updating&>().current_state()[0], 1);
}

TEST_F(AnUpdateMachine, ReportsALastBlockAckOnceDone) {
  Run();
  EXPECT_EQ(Stdout([&] { machine.process_event(last_block_ack{}); }),
            "updaterMSM:: no transition from state 3 on event N7Updater2SM14last_block_ackE\n");
  EXPECT_EQ(machine.current_state()[0], 3);
}

// No run posts update_error from UpdateInit; the row is there all the same.
TEST_F(AnUpdateMachine, EntersUpdateErrorOnAnUpdateErrorBeforeItsStart) {
  EXPECT_EQ(Stdout([&] { machine.process_event(update_error{}); }),
            "Exited: UpdateInit\nEntered: UpdateError\n");
  EXPECT_EQ(machine.current_state()[0], 2);
}

// A death test's matcher sees only stderr, so there the trace goes to stderr as well.
void RunMachineTracingToStderr(ScriptedHelper& helper) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  RunMachine(helper);
}

TEST(AnUpdateMachineDeathTest, ExitsWith255AfterAFailedSend) {
  ScriptedHelper helper;
  helper.sends = {0};
  EXPECT_EXIT(RunMachineTracingToStderr(helper), testing::ExitedWithCode(255),
              "> send 5\nExited: SendingBlock\nEntered: Updating_ErrorExit\n$");
}

TEST(AnUpdateMachineDeathTest, ExitsWith255WhenNoNextBlockIsNamed) {
  ScriptedHelper helper;
  helper.acks = {0};
  EXPECT_EXIT(RunMachineTracingToStderr(helper), testing::ExitedWithCode(255),
              "> next\nDidn't get an ACK... exiting\\?\nExited: WaitingForAck\n"
              "Entered: Updating_ErrorExit\n$");
}

struct ThrowsWhileWaiting : ScriptedHelper {
  int WaitForAck(unsigned) override { throw std::runtime_error("gone"); }
};

TEST(AnUpdateMachineDeathTest, AbortsOnAStandardExceptionInsideATransition) {
  ThrowsWhileWaiting helper;
  EXPECT_EXIT(RunMachineTracingToStderr(helper), testing::KilledBySignal(SIGABRT),
              "Assertion `false' failed");
}

}  // namespace
