// The update state machine driven through a scripted helper. The helper
// writes one marker line per call into the same stream as the machine's
// trace, so each test sees the exact interleaving of trace and calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

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
using Updater::Testing::Stdout;

class ScriptedHelper : public Updater::Helpers::UpdateHelper {
 public:
  int check = 1, first = 0;
  bool haveFile = true;
  std::deque<int> sends, acks, nexts;  // when empty: 1, 3 and -1
  std::string calls;                   // every call, one per line

  int CheckForUpdate() override { return Record("CheckForUpdate()", check); }
  bool HaveUpdateFile() override { return Record("HaveUpdateFile()", haveFile); }
  int GetFirstUpdateBlock() override { return Record("GetFirstUpdateBlock()", first); }
  int SendFirmwareBlock(int b) override { return Record("SendFirmwareBlock(" + std::to_string(b) + ")", Pop(sends, 1)); }
  int WaitForAck(unsigned b) override { return Record("WaitForAck(" + std::to_string(b) + ")", Pop(acks, 3)); }
  int GetNextFirmwareBlock() override { return Record("GetNextFirmwareBlock()", Pop(nexts, -1)); }

 private:
  static int Pop(std::deque<int>& q, int fallback) {
    const int v = q.empty() ? fallback : q.front();
    if (!q.empty()) q.pop_front();
    return v;
  }
  template <class T>
  T Record(const std::string& call, T result) {
    calls += call + "\n";
    std::cout << "> " << call << std::endl;
    return result;
  }
};

// Runs a whole update through the facade, as the program does.
void RunMachine(ScriptedHelper& helper) {
  UpdateMachine machine;
  machine.SetHelper(&helper);
  machine.start();
}
std::string RunUpdate(ScriptedHelper& helper) { return Stdout([&] { RunMachine(helper); }); }

const std::string kDoneTail =
    "Exited: WaitingForAck\nEntered: Updating_UpdateDone\nExited: Updating_UpdateDone\nExited: Updating\n"
    "Action: done_updating\nEntered: UpdateDone\n";

// Odd answers the machine takes as they come, in one two-block run.
TEST(UpdateMachine, TwoBlockRunTraceLineByLine) {
  ScriptedHelper h;
  h.check = -7;         // any non-zero answer means an update
  h.haveFile = false;   // ignored on purpose: the helper reports it
  h.first = -1;         // no error; shown unsigned, then signed
  h.acks = {0, 3};
  h.nexts = {0};        // position 0 is a block like any other
  EXPECT_EQ(RunUpdate(h),
            "Entered: UpdateInit\n> CheckForUpdate()\n          Update needed, initiating...\nExited: UpdateInit\n"
            "Entered: Updating\n> HaveUpdateFile()\nEntered: DeterminingFirstBlock\n> GetFirstUpdateBlock()\n"
            "                First:4294967295\nReady with block #-1\nExited: DeterminingFirstBlock\n"
            "Action: send_block\nEntered: SendingBlock: -1\n> SendFirmwareBlock(-1)\nExited: SendingBlock\n"
            "Entered: WaitingForAck: 4294967295\n> WaitForAck(4294967295)\n> GetNextFirmwareBlock()\n"
            "Ready with block #0\nExited: WaitingForAck\nAction: send_block\nEntered: SendingBlock: 0\n"
            "> SendFirmwareBlock(0)\nExited: SendingBlock\nEntered: WaitingForAck: 0\n> WaitForAck(0)\n" + kDoneTail);
}

// What the helper's answers make the machine do, call by call.
TEST(UpdateMachine, AnswersAndTheCallsThatFollow) {
  ScriptedHelper none, again;
  none.check = 0;
  EXPECT_EQ(RunUpdate(none), "Entered: UpdateInit\n> CheckForUpdate()\n          Update not needed, exiting...\n"
                             "Exited: UpdateInit\nEntered: UpdateDone\n");
  // Status 1 three times: the same block four times, each announced.
  again.first = 9, again.acks = {1, 1, 1};
  EXPECT_THAT(RunUpdate(again), EndsWith("> WaitForAck(9)\nReady with block #9\nExited: WaitingForAck\n"
                                         "Action: send_block\nEntered: SendingBlock: 9\n> SendFirmwareBlock(9)\n"
                                         "Exited: SendingBlock\nEntered: WaitingForAck: 9\n> WaitForAck(9)\n" +
                                         kDoneTail));
  const std::string begin = "CheckForUpdate()\nHaveUpdateFile()\nGetFirstUpdateBlock()\n";
  const std::string block9 = "SendFirmwareBlock(9)\nWaitForAck(9)\n";
  EXPECT_EQ(again.calls, begin + block9 + block9 + block9 + block9);
  // Any other status: the machine rests where it is, silently.
  for (int status : {2, 4, -1, 0x7fffffff}) {
    ScriptedHelper h;
    h.acks = {status};
    EXPECT_THAT(RunUpdate(h), EndsWith("Entered: WaitingForAck: 0\n> WaitForAck(0)\n")) << status;
    EXPECT_EQ(h.calls, begin + "SendFirmwareBlock(0)\nWaitForAck(0)\n") << status;
  }
}

// Events with no row are reported with the state's number and changed nothing:
// by the sub-machine when it refuses them, by the top machine otherwise.
TEST(UpdateMachine, RefusedEvents) {
  {  // resting in WaitingForAck: sub-machine state 1, top state 1
    ScriptedHelper h;
    h.acks = {2};
    updaterMSM machine;
    LendHelper(machine, &h);
    Stdout([&] { machine.start(); });
    auto& sub = machine.get_state<Updating&>();
    // Exactly these lines: no marker, so nothing more was asked of the helper.
    EXPECT_EQ(Stdout([&] { sub.process_event(block_sent{3}), machine.process_event(update_needed{}); }),
              "UpdaterSub_:: no transition from state 1 on event N7Updater2SM10block_sentE\n"
              "updaterMSM:: no transition from state 1 on event N7Updater2SM13update_neededE\n");
    EXPECT_EQ(sub.current_state()[0], 1);
    EXPECT_EQ(machine.current_state()[0], 1);
  }
  {  // finished: UpdateDone (3) refuses everything, the sub-machine stays in its exit point
    ScriptedHelper h;
    updaterMSM machine;
    LendHelper(machine, &h);
    Stdout([&] { machine.start(); });
    EXPECT_EQ(Stdout([&] { machine.process_event(no_update{}), machine.process_event(last_block_ack{}); }),
              "updaterMSM:: no transition from state 3 on event N7Updater2SM9no_updateE\n"
              "updaterMSM:: no transition from state 3 on event N7Updater2SM14last_block_ackE\n");
    EXPECT_EQ(machine.get_state<Updating&>().current_state()[0], 3);
  }
  // No run posts update_error from UpdateInit; the row is there all the same.
  updaterMSM machine;
  EXPECT_EQ(Stdout([&] { machine.process_event(update_error{}), machine.process_event(update_needed{}); }),
            "Exited: UpdateInit\nEntered: UpdateError\n"
            "updaterMSM:: no transition from state 2 on event N7Updater2SM13update_neededE\n");
}

// Death-test body: stdout goes to stderr so the matcher sees the trace.
void RunToDeath(ScriptedHelper& helper) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  RunMachine(helper);
}

TEST(UpdateMachineDeathTest, ErrorExitsAndExceptions) {
  ScriptedHelper failedSend, noNext;
  failedSend.sends = {0};
  EXPECT_EXIT(RunToDeath(failedSend), testing::ExitedWithCode(255),
              "Entered: SendingBlock: 0\n> SendFirmwareBlock\\(0\\)\nExited: SendingBlock\nEntered: Updating_ErrorExit\n$");
  noNext.acks = {0};
  EXPECT_EXIT(RunToDeath(noNext), testing::ExitedWithCode(255),
              "> GetNextFirmwareBlock\\(\\)\nDidn't get an ACK... exiting\\?\nExited: WaitingForAck\nEntered: Updating_ErrorExit\n$");
  struct ThrowsInLoop : ScriptedHelper {
    int WaitForAck(unsigned) override { throw std::runtime_error("camd went away"); }
  } inLoop;
  EXPECT_DEATH(RunToDeath(inLoop), "Assertion `false' failed");

  // The check runs in the initial entry, outside any event's processing, so even
  // a standard exception leaves start() as is; inside a transition only
  // non-standard ones get through.
  struct ThrowsAtCheck : ScriptedHelper {
    int CheckForUpdate() override { throw std::runtime_error("boom"); }
  } atCheck;
  struct ThrowsInt : ScriptedHelper { int WaitForAck(unsigned) override { throw -1; } } intInLoop;
  Stdout([&] {
    EXPECT_THROW(RunMachine(atCheck), std::runtime_error);
    EXPECT_THROW(RunMachine(intInLoop), int);
  });
}

}  // namespace
