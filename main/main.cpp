// firmware-updater: updates the firmware of one target per run.
//
//   firmware-updater camera <index>   the camera, through camd on D-Bus
//   firmware-updater tallyvane        the counter-link board
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "common/console.hpp"
#include "common/log.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "helpers/tallyvane/tallyvane.hpp"
#include "lc/downlink_frame.hpp"
#include "sm/update_machine.hpp"

using Updater::Log::Colour;

namespace {
// The board helper whose receive thread runs, for the error exit: it ends
// the process from inside the machine, and the thread must be stopped
// before the statics it uses are torn down.
Updater::Helpers::Tallyvane* gRunningReader = nullptr;

void StopRunningReader() {
  if (gRunningReader != nullptr) gRunningReader->StopReaderThread();
  gRunningReader = nullptr;
}
}  // namespace

int main(int argc, char** argv) {
  // A console that goes away (a closed pipe, `| head`) must never cut an
  // update short: output to it is lost, the update goes on.
  (void)std::signal(SIGPIPE, SIG_IGN);  // cannot fail for a valid signal
  // Read before anything is printed, so that a misspelt mode's warning comes first.
  (void)Updater::Console::CurrentMode();
  if (argc < 2) {
    // Naming the program path here, not a target, is what users have always seen.
    std::cerr << "Missing target for [" << argv[0] << "]" << std::endl;
    return 1;
  }
  const std::string target = argv[1];

  if (target == "camera") {
    Updater::Log::Debug(Colour::Yellow, "Update target selected as camera");
    if (argc == 2) {
      std::cerr << "Missing camera idx [" << argv[0] << "]" << std::endl;
      return 2;
    }
    Updater::Helpers::UpdateHelper* helper = new Updater::Helpers::VyrCamera(argv[2]);
    {
      Updater::SM::UpdateMachine machine;
      machine.SetHelper(helper);
      machine.start();
      delete helper;  // before the machine goes
    }
  } else if (target == "tallyvane") {
    const bool concurrent = Updater::Helpers::Tallyvane::ConcurrentFromEnvironment();
    auto* helper = new Updater::Helpers::Tallyvane(lc::DataDevicePath(), Updater::SystemClock(), concurrent);
    {
      Updater::SM::UpdateMachine machine;
      machine.SetHelper(helper);
      if (concurrent) {
        // The board's frames are read from before the update starts, on a
        // thread of their own, and the run ends with the update.
        helper->StartReaderThread();
        gRunningReader = helper;
        // Without room for the handler, an error exit would leave the reader
        // thread running under exit(): a run that cannot stop it cleanly
        // does not start.
        if (std::atexit(StopRunningReader) != 0) std::abort();
        machine.start();
        StopRunningReader();
      } else {
        machine.start();
        // The board's frames are read only from here on, after the machine
        // has run; the loop ends only if its running flag is cleared.
        helper->RunReader();
      }
      helper->Close();
      delete helper;
    }
  } else {
    std::cerr << "Invalid target [" << target << "] given, quitting " << argv[0] << std::endl;
  }

  Updater::Console::Milestone(
      "Exit status 0: the run is over; the lines above say whether an image was delivered");
  Updater::Log::Debug(Colour::Yellow, "Exiting firmware-updater ...");
  return 0;
}
