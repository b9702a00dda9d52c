// The update state machine driven through a scripted helper. The helper
// writes one marker line per call into the same stream as the machine's
// trace, so each test sees the exact interleaving of trace and calls.
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>

#include "sm/update_machine.hpp"
#include "sm/updater_msm.hpp"
#include "text.hpp"

namespace {

using namespace Updater::SM;
using ::testing::EndsWith;
using Updater::Testing::CountOf;
using Updater::Testing::Stdout;

struct ScriptedHelper : Updater::Helpers::UpdateHelper {
  int check = 1, first = 0;
  bool haveFile = true;
  std::deque<int> sends, acks, nexts;  // when empty: 1, 3 and -1

  int CheckForUpdate() override { return Record("CheckForUpdate()", check); }
  bool HaveUpdateFile() override { return Record("HaveUpdateFile()", haveFile); }
  int GetFirstUpdateBlock() override { return Record("GetFirstUpdateBlock()", first); }
  int SendFirmwareBlock(int b) override { return Record("SendFirmwareBlock(" + std::to_string(b) + ")", Pop(sends, 1)); }
  int WaitForAck(unsigned b) override { return Record("WaitForAck(" + std::to_string(b) + ")", Pop(acks, 3)); }
  int GetNextFirmwareBlock() override { return Record("GetNextFirmwareBlock()", Pop(nexts, -1)); }

  static int Pop(std::deque<int>& q, int fallback) {
    const int v = q.empty() ? fallback : q.front();
    if (!q.empty()) q.pop_front();
    return v;
  }
  template <class T> T Record(const std::string& call, T result) {
    std::cout << "> " << call << std::endl;
    return result;
  }
};

// Runs a whole update through the facade, as the program does. A death test's
// matcher sees only stderr, so there the trace goes to stderr as well.
void RunMachine(ScriptedHelper& helper, bool traceToStderr = false) {
  if (traceToStderr) dup2(STDERR_FILENO, STDOUT_FILENO);
  UpdateMachine machine;
  machine.SetHelper(&helper);
  machine.start();
}
std::string RunUpdate(ScriptedHelper& helper) { return Stdout([&] { RunMachine(helper); }); }

const std::string kDoneTail = "Exited: WaitingForAck\nEntered: Updating_UpdateDone\nExited: Updating_UpdateDone\n"
                              "Exited: Updating\nAction: done_updating\nEntered: UpdateDone\n";

// What the helper's answers make the machine do, call by call.
TEST(UpdateMachine, AnswersAndTheCallsThatFollow) {
  // Odd answers the machine takes as they come, in one two-block run, line by line.
  ScriptedHelper odd, none, again;
  odd.check = -7;         // any non-zero answer means an update
  odd.haveFile = false;   // ignored on purpose: the helper reports it
  odd.first = -1;         // no error; shown unsigned, then signed
  odd.acks = {0, 3}, odd.nexts = {0};  // the next block at position 0, a block like any other
  EXPECT_EQ(RunUpdate(odd),
            "Entered: UpdateInit\n> CheckForUpdate()\n          Update needed, initiating...\nExited: UpdateInit\n"
            "Entered: Updating\n> HaveUpdateFile()\nEntered: DeterminingFirstBlock\n> GetFirstUpdateBlock()\n"
            "                First:4294967295\nReady with block #-1\nExited: DeterminingFirstBlock\n"
            "Action: send_block\nEntered: SendingBlock: -1\n> SendFirmwareBlock(-1)\nExited: SendingBlock\n"
            "Entered: WaitingForAck: 4294967295\n> WaitForAck(4294967295)\n> GetNextFirmwareBlock()\n"
            "Ready with block #0\nExited: WaitingForAck\nAction: send_block\nEntered: SendingBlock: 0\n"
            "> SendFirmwareBlock(0)\nExited: SendingBlock\nEntered: WaitingForAck: 0\n> WaitForAck(0)\n" + kDoneTail);
  none.check = 0;
  EXPECT_EQ(RunUpdate(none), "Entered: UpdateInit\n> CheckForUpdate()\n          Update not needed, exiting...\n"
                             "Exited: UpdateInit\nEntered: UpdateDone\n");
  // Status 1 three times: the same block four times, each announced.
  again.first = 9, again.acks = {1, 1, 1};
  const std::string trace = RunUpdate(again), resend = "> WaitForAck(9)\nReady with block #9\nExited: WaitingForAck\n"
      "Action: send_block\nEntered: SendingBlock: 9\n> SendFirmwareBlock(9)\nExited: SendingBlock\nEntered: WaitingForAck: 9\n";
  EXPECT_EQ(CountOf(trace, resend), 3u);
  EXPECT_THAT(trace, EndsWith(resend + "> WaitForAck(9)\n" + kDoneTail));
  // Any other status: the machine rests where it is, silently.
  for (int status : {2, 4, -1, 0x7fffffff}) {
    ScriptedHelper h;
    h.acks = {status};
    EXPECT_THAT(RunUpdate(h), EndsWith("Entered: WaitingForAck: 0\n> WaitForAck(0)\n")) << status;  // every call leaves a marker
  }
}

// Events with no row are reported with the state's number and changed nothing:
// by the sub-machine when it refuses them, by the top machine otherwise.
TEST(UpdateMachine, RefusedEvents) {
  // start: whether the machine runs first, the helper answering `ack`; sub, top: the states afterwards
  const struct { bool start; int ack; std::function<void(updaterMSM&)> post; std::string out; int sub, top; } rows[] = {
      // Resting in WaitingForAck.
      {true, 2, [](updaterMSM& m) { m.get_state<Updating&>().process_event(block_sent{3}), m.process_event(update_needed{}); },
       "UpdaterSub_:: no transition from state 1 on event N7Updater2SM10block_sentE\n"
       "updaterMSM:: no transition from state 1 on event N7Updater2SM13update_neededE\n", 1, 1},
      // Finished: UpdateDone refuses everything, the sub-machine stays in its exit point.
      {true, 3, [](updaterMSM& m) { m.process_event(no_update{}), m.process_event(last_block_ack{}); },
       "updaterMSM:: no transition from state 3 on event N7Updater2SM9no_updateE\n"
       "updaterMSM:: no transition from state 3 on event N7Updater2SM14last_block_ackE\n", 3, 3},
      // No run posts update_error from UpdateInit; the row is there all the same.
      {false, 3, [](updaterMSM& m) { m.process_event(update_error{}), m.process_event(update_needed{}); },
       "Exited: UpdateInit\nEntered: UpdateError\n"
       "updaterMSM:: no transition from state 2 on event N7Updater2SM13update_neededE\n", 0, 2},
  };
  for (const auto& row : rows) {
    ScriptedHelper h;
    h.acks = {row.ack};
    updaterMSM machine;
    LendHelper(machine, &h);
    if (row.start) Stdout([&] { machine.start(); });
    // Exactly these lines: no marker, so nothing more was asked of the helper.
    EXPECT_EQ(Stdout([&] { row.post(machine); }), row.out);
    EXPECT_EQ(std::make_pair(machine.get_state<Updating&>().current_state()[0], machine.current_state()[0]),
              std::make_pair(row.sub, row.top)) << row.out;
  }
}

TEST(UpdateMachineDeathTest, ErrorExitsAndExceptions) {
  ScriptedHelper failedSend, noNext;
  failedSend.sends = {0}, noNext.acks = {0};
  EXPECT_EXIT(RunMachine(failedSend, true), testing::ExitedWithCode(255),
              "Entered: SendingBlock: 0\n> SendFirmwareBlock\\(0\\)\nExited: SendingBlock\nEntered: Updating_ErrorExit\n$");
  EXPECT_EXIT(RunMachine(noNext, true), testing::ExitedWithCode(255),
              "> GetNextFirmwareBlock\\(\\)\nDidn't get an ACK... exiting\\?\nExited: WaitingForAck\nEntered: Updating_ErrorExit\n$");
  struct ThrowsInLoop : ScriptedHelper { int WaitForAck(unsigned) override { throw std::runtime_error("gone"); } } inLoop;
  EXPECT_EXIT(RunMachine(inLoop, true), testing::KilledBySignal(SIGABRT), "Assertion `false' failed");

  // The check runs in the initial entry, outside any event's processing, so even
  // a standard exception leaves start() as is; inside a transition only
  // non-standard ones get through.
  struct ThrowsAtCheck : ScriptedHelper { int CheckForUpdate() override { throw std::runtime_error("boom"); } } atCheck;
  struct ThrowsInt : ScriptedHelper { int WaitForAck(unsigned) override { throw -1; } } intInLoop;
  Stdout([&] { EXPECT_THROW(RunMachine(atCheck), std::runtime_error); });
  Stdout([&] { EXPECT_THROW(RunMachine(intInLoop), int); });
}

}  // namespace
