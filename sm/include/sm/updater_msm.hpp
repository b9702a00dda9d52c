// The update state machine, built with Boost.MSM.
//
// Two machines: the top machine `updaterMSM_` decides whether to update at
// all, and its state `Updating` is the sub-machine `UpdatingSub_` that runs
// the block loop. Every event after start() is posted by a state entry, so
// the whole update runs inside start(), ordered by each machine's own event
// queue.
//
// MSM numbers states by their first appearance in the transition table,
// sources (top to bottom) before targets. The rows below are ordered so that
// the numbers printed in "no transition" lines are stable:
//   top: UpdateInit 0, Updating 1, UpdateError 2, UpdateDone 3
//   sub: DeterminingFirstBlock 0, WaitingForAck 1, SendingBlock 2,
//        UpdateDoneExit 3, ErrorExit 4
// Reordering the rows changes those numbers.
#pragma once

#include <boost/mpl/vector.hpp>
#include <boost/msm/back/state_machine.hpp>
#include <boost/msm/front/functor_row.hpp>
#include <boost/msm/front/state_machine_def.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <typeinfo>

#include "common/console.hpp"
#include "common/record.hpp"
#include "sm/update_helper.hpp"

namespace Updater::SM {

namespace msm = boost::msm;
namespace mpl = boost::mpl;
using msm::front::none;
using msm::front::Row;

// ---- events ----------------------------------------------------------------

struct update_needed {};
struct no_update {};
struct update_error {};
struct last_block_ack {};
struct have_next_block {
  std::int32_t block;
};
struct block_sent {
  std::uint32_t block;
};

// ---- shared pieces ---------------------------------------------------------

// One trace line: "Entered: X", "Exited: X", "Action: X".
// One write, so that a line printed meanwhile by another thread cannot land
// inside it.
// Summary mode prints none, and builds none.
inline void Trace(const char* what, const char* name) {
  if (!Console::Detail()) return;
  const std::string line = std::string(what) + ": " + name + '\n';
  std::cout.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

// The error exit: the process ends here, with status 255, as a recording of
// the run names it.
[[noreturn]] inline void ErrorEnd() {
  if (auto* recorder = Record::Active()) recorder->Exit(255);
  Console::Milestone("Result: the update failed part way; the next run starts it again");
  Console::Milestone("Exit status 255: the update failed (no closing line follows)");
  std::exit(-1);
}

// MSM's own hook asserts, which NDEBUG compiles away; an exception inside a
// transition must stop the updater in every build, exactly as a failed
// assertion does.
[[noreturn]] void AssertionFailed(const char* function);

// Base of both front-ends: the borrowed helper, and the hooks both share.
template <class Derived>
struct MachineBase : msm::front::state_machine_def<Derived> {
  Helpers::UpdateHelper* helper = nullptr;

  template <class FSM, class Event>
  void exception_caught(Event const&, FSM&, std::exception&) {
    AssertionFailed(__PRETTY_FUNCTION__);
  }
};

// A plain state whose entry and exit only trace.
template <class Derived>
struct TracedState : msm::front::state<> {
  template <class Event, class FSM>
  void on_entry(Event const&, FSM&) {
    Trace("Entered", Derived::kName);
  }
  template <class Event, class FSM>
  void on_exit(Event const&, FSM&) {
    Trace("Exited", Derived::kName);
  }
};

// ---- the sub-machine: the block loop ---------------------------------------

struct UpdatingSub_ : MachineBase<UpdatingSub_> {
  template <class Event, class FSM>
  void on_entry(Event const&, FSM&) {
    Trace("Entered", "Updating");
    // Whether an image is at hand is the helper's to report; the loop goes
    // on regardless and the first read of the image settles it.
    helper->HaveUpdateFile();
  }
  template <class Event, class FSM>
  void on_exit(Event const&, FSM&) {
    Trace("Exited", "Updating");
  }

  struct DeterminingFirstBlock : TracedState<DeterminingFirstBlock> {
    static constexpr const char* kName = "DeterminingFirstBlock";
    template <class Event, class FSM>
    void on_entry(Event const&, FSM& fsm) {
      Trace("Entered", kName);
      const int first = fsm.helper->GetFirstUpdateBlock();
      if (Console::Detail()) {
        std::cout << "                First:" << static_cast<unsigned>(first) << std::endl;
        std::cout << "Ready with block #" << first << std::endl;
      }
      fsm.process_event(have_next_block{first});
    }
  };

  struct SendingBlock : TracedState<SendingBlock> {
    static constexpr const char* kName = "SendingBlock";
    template <class FSM>
    void on_entry(have_next_block const& e, FSM& fsm) {
      if (Console::Detail()) std::cout << "Entered: SendingBlock: " << e.block << std::endl;
      if (fsm.helper->SendFirmwareBlock(e.block))
        fsm.process_event(block_sent{static_cast<std::uint32_t>(e.block)});
      else
        fsm.process_event(update_error{});
    }
    template <class Event, class FSM>
    void on_entry(Event const&, FSM&) {
      Trace("Entered", "SendingBlock(no get_block)");
    }
  };

  struct WaitingForAck : TracedState<WaitingForAck> {
    static constexpr const char* kName = "WaitingForAck";
    template <class FSM>
    void on_entry(block_sent const& e, FSM& fsm) {
      if (Console::Detail()) std::cout << "Entered: WaitingForAck: " << e.block << std::endl;
      const int status = fsm.helper->WaitForAck(e.block);
      if (status == Helpers::kResend) {
        if (Console::Detail()) std::cout << "Ready with block #" << e.block << std::endl;
        fsm.process_event(have_next_block{static_cast<std::int32_t>(e.block)});
      } else if (status == Helpers::kLastBlockAcked) {
        fsm.process_event(last_block_ack{});
      } else if (status == Helpers::kAcked) {
        const int next = fsm.helper->GetNextFirmwareBlock();
        if (next >= 0) {
          if (Console::Detail()) std::cout << "Ready with block #" << next << std::endl;
          fsm.process_event(have_next_block{next});
        } else {
          std::cout << "Didn't get an ACK... exiting?" << std::endl;
          fsm.process_event(update_error{});
        }
      }
      // Any other status: the target has said something the loop does not
      // know; post nothing and let the run end here.
    }
    template <class Event, class FSM>
    void on_entry(Event const&, FSM&) {
      Trace("Entered", "WaitingForAck(no get_block)");
    }
  };

  struct UpdateDoneExit : msm::front::exit_pseudo_state<last_block_ack> {
    template <class Event, class FSM>
    void on_entry(Event const&, FSM&) {
      Trace("Entered", "Updating_UpdateDone");
    }
    template <class Event, class FSM>
    void on_exit(Event const&, FSM&) {
      Trace("Exited", "Updating_UpdateDone");
    }
  };

  // A failed update ends the process here; the top machine never sees it.
  struct ErrorExit : msm::front::exit_pseudo_state<update_error> {
    template <class Event, class FSM>
    void on_entry(Event const&, FSM&) {
      Trace("Entered", "Updating_ErrorExit");
      ErrorEnd();
    }
    template <class Event, class FSM>
    void on_exit(Event const&, FSM&) {
      Trace("Exited", "Updating_ErrorExit");
      ErrorEnd();
    }
  };

  struct send_block {
    template <class Event, class FSM, class Source, class Target>
    void operator()(Event const&, FSM&, Source&, Target&) {
      Trace("Action", "send_block");
    }
  };

  using initial_state = DeterminingFirstBlock;

  // clang-format off
  struct transition_table : mpl::vector<
    //  Source                 Event            Target          Action      Guard
    Row<DeterminingFirstBlock, have_next_block, SendingBlock,   send_block, none>,
    Row<WaitingForAck,         last_block_ack,  UpdateDoneExit, none,       none>,
    Row<SendingBlock,          update_error,    ErrorExit,      none,       none>,
    Row<SendingBlock,          block_sent,      WaitingForAck,  none,       none>,
    Row<WaitingForAck,         have_next_block, SendingBlock,   send_block, none>,
    Row<WaitingForAck,         update_error,    ErrorExit,      none,       none>,
    Row<DeterminingFirstBlock, update_error,    ErrorExit,      none,       none>
  > {};
  // clang-format on

  template <class FSM, class Event>
  void no_transition(Event const& e, FSM&, int state) {
    std::cout << "UpdaterSub_:: no transition from state " << state << " on event " << typeid(e).name()
              << std::endl;
  }
};

using Updating = msm::back::state_machine<UpdatingSub_>;

// ---- the top machine -------------------------------------------------------

struct updaterMSM_ : MachineBase<updaterMSM_> {
  struct UpdateInit : TracedState<UpdateInit> {
    static constexpr const char* kName = "UpdateInit";
    template <class Event, class FSM>
    void on_entry(Event const&, FSM& fsm) {
      Trace("Entered", kName);
      if (fsm.helper->CheckForUpdate()) {
        std::cout << "          Update needed, initiating..." << std::endl;
        fsm.process_event(update_needed{});
      } else {
        std::cout << "          Update not needed, exiting..." << std::endl;
        fsm.process_event(no_update{});
      }
    }
  };
  struct UpdateError : TracedState<UpdateError> {
    static constexpr const char* kName = "UpdateError";
  };
  struct UpdateDone : TracedState<UpdateDone> {
    static constexpr const char* kName = "UpdateDone";
  };

  struct done_updating {
    template <class Event, class FSM, class Source, class Target>
    void operator()(Event const&, FSM&, Source&, Target&) {
      Trace("Action", "done_updating");
      Console::Milestone("Result: the target acknowledged the whole image; update done");
    }
  };

  using initial_state = UpdateInit;
  using DoneExit = Updating::exit_pt<UpdatingSub_::UpdateDoneExit>;
  using FailExit = Updating::exit_pt<UpdatingSub_::ErrorExit>;

  // clang-format off
  struct transition_table : mpl::vector<
    //  Source      Event           Target       Action         Guard
    Row<UpdateInit, update_error,   UpdateError, none,          none>,
    Row<UpdateInit, no_update,      UpdateDone,  none,          none>,
    Row<UpdateInit, update_needed,  Updating,    none,          none>,
    Row<DoneExit,   last_block_ack, UpdateDone,  done_updating, none>,
    Row<FailExit,   update_error,   UpdateError, none,          none>
  > {};
  // clang-format on

  template <class FSM, class Event>
  void no_transition(Event const& e, FSM&, int state) {
    std::cout << "updaterMSM:: no transition from state " << state << " on event " << typeid(e).name()
              << std::endl;
  }
};

using updaterMSM = msm::back::state_machine<updaterMSM_>;

// Lends `helper` to both front-ends.
inline void LendHelper(updaterMSM& machine, Helpers::UpdateHelper* helper) {
  machine.helper = helper;
  machine.get_state<Updating&>().helper = helper;
}

}  // namespace Updater::SM
