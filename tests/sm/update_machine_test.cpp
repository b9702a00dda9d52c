// The update state machine driven through a scripted helper. The helper
// writes one marker line per call into the same stream as the machine's
// trace, so each test sees the exact interleaving of trace and calls.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sm/update_machine.hpp"
#include "sm/updater_msm.hpp"

namespace {

using namespace Updater::SM;

class ScriptedHelper : public Updater::Helpers::UpdateHelper {
 public:
  int check = 1;
  bool haveFile = true;
  int first = 0;
  std::deque<int> sendResults;     // default 1 when empty
  std::deque<int> ackResults;      // default 3 when empty
  std::deque<int> nextResults;     // default -1 when empty
  std::vector<std::string> calls;  // every call, in order

  int CheckForUpdate() override { return Record("CheckForUpdate()", check); }
  bool HaveUpdateFile() override { return Record("HaveUpdateFile()", haveFile); }
  int GetFirstUpdateBlock() override { return Record("GetFirstUpdateBlock()", first); }
  int SendFirmwareBlock(int block) override {
    return Record("SendFirmwareBlock(" + std::to_string(block) + ")", Pop(sendResults, 1));
  }
  int WaitForAck(unsigned block) override {
    return Record("WaitForAck(" + std::to_string(block) + ")", Pop(ackResults, 3));
  }
  int GetNextFirmwareBlock() override { return Record("GetNextFirmwareBlock()", Pop(nextResults, -1)); }

 private:
  static int Pop(std::deque<int>& q, int fallback) {
    if (q.empty()) return fallback;
    const int v = q.front();
    q.pop_front();
    return v;
  }
  template <class T>
  T Record(const std::string& call, T result) {
    calls.push_back(call);
    std::cout << "> " << call << std::endl;
    return result;
  }
};

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Runs a whole update through the facade, as the program does.
std::vector<std::string> RunUpdate(ScriptedHelper& helper) {
  testing::internal::CaptureStdout();
  UpdateMachine machine;
  machine.SetHelper(&helper);
  machine.start();
  return Lines(testing::internal::GetCapturedStdout());
}

// Death-test body: stdout goes to stderr so the matcher sees the trace.
void RunToDeath(ScriptedHelper& helper) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  UpdateMachine machine;
  machine.SetHelper(&helper);
  machine.start();
}

using Trace = std::vector<std::string>;

// ---- UpdateInit ------------------------------------------------------------

TEST(UpdateInit, NoUpdateEndsInUpdateDoneAndCallsNothingElse) {
  ScriptedHelper h;
  h.check = 0;
  EXPECT_EQ(RunUpdate(h), (Trace{
                        "Entered: UpdateInit",
                        "> CheckForUpdate()",
                        "          Update not needed, exiting...",
                        "Exited: UpdateInit",
                        "Entered: UpdateDone",
                    }));
  EXPECT_EQ(h.calls, (std::vector<std::string>{"CheckForUpdate()"}));
}

// ---- Updating: the whole block loop ----------------------------------------

TEST(Updating, TwoBlockRunTraceLineByLine) {
  ScriptedHelper h;
  h.check = -7;  // any non-zero answer means an update
  h.first = 5;
  h.ackResults = {0, 3};
  h.nextResults = {6};
  EXPECT_EQ(RunUpdate(h), (Trace{
                        "Entered: UpdateInit",
                        "> CheckForUpdate()",
                        "          Update needed, initiating...",
                        "Exited: UpdateInit",
                        "Entered: Updating",
                        "> HaveUpdateFile()",
                        "Entered: DeterminingFirstBlock",
                        "> GetFirstUpdateBlock()",
                        "                First:5",
                        "Ready with block #5",
                        "Exited: DeterminingFirstBlock",
                        "Action: send_block",
                        "Entered: SendingBlock: 5",
                        "> SendFirmwareBlock(5)",
                        "Exited: SendingBlock",
                        "Entered: WaitingForAck: 5",
                        "> WaitForAck(5)",
                        "> GetNextFirmwareBlock()",
                        "Ready with block #6",
                        "Exited: WaitingForAck",
                        "Action: send_block",
                        "Entered: SendingBlock: 6",
                        "> SendFirmwareBlock(6)",
                        "Exited: SendingBlock",
                        "Entered: WaitingForAck: 6",
                        "> WaitForAck(6)",
                        "Exited: WaitingForAck",
                        "Entered: Updating_UpdateDone",
                        "Exited: Updating_UpdateDone",
                        "Exited: Updating",
                        "Action: done_updating",
                        "Entered: UpdateDone",
                    }));
}

TEST(Updating, HaveUpdateFileFalseIsIgnored) {
  ScriptedHelper h;
  h.haveFile = false;
  RunUpdate(h);
  EXPECT_EQ(h.calls, (std::vector<std::string>{"CheckForUpdate()", "HaveUpdateFile()",
                                               "GetFirstUpdateBlock()", "SendFirmwareBlock(0)",
                                               "WaitForAck(0)"}));
}

TEST(Updating, NegativeFirstBlockIsPrintedUnsignedThenSigned) {
  ScriptedHelper h;
  h.first = -1;
  h.sendResults = {1};
  const auto out = RunUpdate(h);
  EXPECT_NE(std::find(out.begin(), out.end(), "                First:4294967295"), out.end());
  EXPECT_NE(std::find(out.begin(), out.end(), "Ready with block #-1"), out.end());
  EXPECT_NE(std::find(out.begin(), out.end(), "Entered: SendingBlock: -1"), out.end());
  EXPECT_NE(std::find(out.begin(), out.end(), "Entered: WaitingForAck: 4294967295"), out.end());
}

// ---- WaitingForAck: what each status does ----------------------------------

TEST(WaitingForAck, StatusOneResendsTheSameBlock) {
  ScriptedHelper h;
  h.first = 9;
  h.ackResults = {1, 1, 1, 3};
  const auto out = RunUpdate(h);
  EXPECT_EQ(std::count(h.calls.begin(), h.calls.end(), "SendFirmwareBlock(9)"), 4);
  EXPECT_EQ(std::count(h.calls.begin(), h.calls.end(), "GetNextFirmwareBlock()"), 0);
  EXPECT_EQ(std::count(out.begin(), out.end(), "Ready with block #9"), 4);  // first + 3 resends
  EXPECT_EQ(out.back(), "Entered: UpdateDone");
}

TEST(WaitingForAck, UnknownStatusRestsSilently) {
  for (int status : {2, 4, -1, 0x7fffffff}) {
    ScriptedHelper h;
    h.ackResults = {status};
    const auto out = RunUpdate(h);
    EXPECT_EQ(out.back(), "> WaitForAck(0)") << status;
    EXPECT_EQ(h.calls.back(), "WaitForAck(0)") << status;
  }
}

TEST(WaitingForAck, RefusesEventsWithoutRowAndStays) {
  // A machine resting in WaitingForAck: sub-machine state 1, top state 1.
  ScriptedHelper h;
  h.ackResults = {2};
  updaterMSM machine;
  LendHelper(machine, &h);
  testing::internal::CaptureStdout();
  machine.start();
  testing::internal::GetCapturedStdout();

  auto& sub = machine.get_state<Updating&>();
  testing::internal::CaptureStdout();
  sub.process_event(block_sent{3});
  machine.process_event(update_needed{});
  EXPECT_EQ(Lines(testing::internal::GetCapturedStdout()),
            (Trace{
                "UpdaterSub_:: no transition from state 1 on event N7Updater2SM10block_sentE",
                "updaterMSM:: no transition from state 1 on event N7Updater2SM13update_neededE",
            }));
  EXPECT_EQ(sub.current_state()[0], 1);
  EXPECT_EQ(machine.current_state()[0], 1);
  EXPECT_EQ(h.calls.size(), 5u);  // nothing more was asked of the helper
}

TEST(WaitingForAck, UnhandledQueuedPostIsReportedBySubMachine) {
  // An event that a state entry posts while the sub-machine is busy is
  // queued; when it finds no row it is the sub-machine that says so.
  struct PostsStray : ScriptedHelper {
    Updating* sub = nullptr;
    int SendFirmwareBlock(int block) override {
      sub->process_event(no_update{});  // queued: the sub-machine is busy
      return ScriptedHelper::SendFirmwareBlock(block);
    }
  } h;
  updaterMSM machine;
  LendHelper(machine, &h);
  h.sub = &machine.get_state<Updating&>();
  testing::internal::CaptureStdout();
  machine.start();
  const auto out = Lines(testing::internal::GetCapturedStdout());
  // no_update is queued before block_sent, so it meets SendingBlock (2).
  EXPECT_NE(std::find(out.begin(), out.end(),
                      "UpdaterSub_:: no transition from state 2 on event N7Updater2SM9no_updateE"),
            out.end());
  EXPECT_EQ(out.back(), "Entered: UpdateDone");
}

// ---- the finished machines -------------------------------------------------

TEST(UpdateDone, RefusesEverythingAndLeavesTheSubMachineInItsExitPoint) {
  ScriptedHelper h;
  updaterMSM machine;
  LendHelper(machine, &h);
  testing::internal::CaptureStdout();
  machine.start();
  machine.process_event(no_update{});
  machine.process_event(last_block_ack{});
  const auto out = Lines(testing::internal::GetCapturedStdout());
  EXPECT_EQ(out[out.size() - 2], "updaterMSM:: no transition from state 3 on event N7Updater2SM9no_updateE");
  EXPECT_EQ(out.back(), "updaterMSM:: no transition from state 3 on event N7Updater2SM14last_block_ackE");
  EXPECT_EQ(machine.get_state<Updating&>().current_state()[0], 3);
}

TEST(UpdateError, ReachedOnlyFromUpdateInitAndThenRefusesEverything) {
  // No run posts update_error from UpdateInit; the row is there all the same.
  updaterMSM machine;
  testing::internal::CaptureStdout();
  machine.process_event(update_error{});
  machine.process_event(update_needed{});
  EXPECT_EQ(Lines(testing::internal::GetCapturedStdout()),
            (Trace{
                "Exited: UpdateInit",
                "Entered: UpdateError",
                "updaterMSM:: no transition from state 2 on event N7Updater2SM13update_neededE",
            }));
}

// ---- error exits -----------------------------------------------------------

using ErrorExitDeathTest = testing::Test;

TEST_F(ErrorExitDeathTest, FailedSendOfFirstBlockExitsWith255) {
  ScriptedHelper h;
  h.sendResults = {0};
  EXPECT_EXIT(RunToDeath(h), testing::ExitedWithCode(255),
              "Entered: SendingBlock: 0\n> SendFirmwareBlock\\(0\\)\nExited: SendingBlock\n"
              "Entered: Updating_ErrorExit\n$");
}

TEST_F(ErrorExitDeathTest, NoNextBlockExitsWith255) {
  ScriptedHelper h;
  h.ackResults = {0};
  h.nextResults = {-1};
  EXPECT_EXIT(RunToDeath(h), testing::ExitedWithCode(255),
              "> GetNextFirmwareBlock\\(\\)\nDidn't get an ACK... exiting\\?\n"
              "Exited: WaitingForAck\nEntered: Updating_ErrorExit\n$");
}

TEST_F(ErrorExitDeathTest, StdExceptionInsideATransitionAborts) {
  struct Throwing : ScriptedHelper {
    int WaitForAck(unsigned) override { throw std::runtime_error("camd went away"); }
  } h;
  EXPECT_DEATH(RunToDeath(h), "Assertion `false' failed");
}

TEST(Exceptions, EscapeWhereTheMachineHasNoHook) {
  // The check runs in the initial entry, outside any event's processing, so
  // even a standard exception leaves start() as is; inside a transition only
  // non-standard ones get through.
  struct ThrowsAtCheck : ScriptedHelper {
    int CheckForUpdate() override { throw std::runtime_error("boom"); }
  } atCheck;
  struct ThrowsInLoop : ScriptedHelper {
    int WaitForAck(unsigned) override { throw -1; }
  } inLoop;
  UpdateMachine first, second;
  first.SetHelper(&atCheck);
  second.SetHelper(&inLoop);
  testing::internal::CaptureStdout();
  EXPECT_THROW(first.start(), std::runtime_error);
  EXPECT_THROW(second.start(), int);
  testing::internal::GetCapturedStdout();
}

}  // namespace
