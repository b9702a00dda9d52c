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
#include "common/record.hpp"
#include "helpers/camera/vyr_camera.hpp"
#include "helpers/tallyvane/tallyvane.hpp"
#include "lc/downlink_frame.hpp"
#include "sm/update_machine.hpp"

using Updater::Log::Colour;

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
    Updater::Record::Start(target, argv[2]);
    Updater::Helpers::UpdateHelper* helper = new Updater::Helpers::VyrCamera(argv[2]);
    {
      Updater::SM::UpdateMachine machine;
      machine.SetHelper(helper);
      machine.start();
      delete helper;  // before the machine goes
    }
  } else if (target == "tallyvane") {
    // The designed console names no target for the board; a summary does.
    Updater::Console::Milestone("Target: the counter-link board (tallyvane), frames from [" +
                                lc::DataDevicePath() + "]");
    Updater::Record::Start(target, "");
    const bool concurrent = Updater::Helpers::Tallyvane::ConcurrentFromEnvironment();
    auto* helper = new Updater::Helpers::Tallyvane(lc::DataDevicePath(), Updater::SystemClock(), concurrent);
    {
      Updater::SM::UpdateMachine machine;
      machine.SetHelper(helper);
      // The mode decides when the board's frames are read: the designed one
      // only after the machine has run (until the process is ended), the
      // concurrent one on a thread of its own from before the update on.
      helper->BeginRun();
      machine.start();
      helper->EndRun();
      helper->Close();
      delete helper;
    }
  } else {
    std::cerr << "Invalid target [" << target << "] given, quitting " << argv[0] << std::endl;
  }

  Updater::Console::Milestone(
      "Exit status 0: the run is over; the lines above say whether an image was delivered");
  Updater::Log::Debug(Colour::Yellow, "Exiting firmware-updater ...");
  if (auto* recorder = Updater::Record::Active()) recorder->Exit(0);
  return 0;
}
