// firmware-updater: updates the firmware of one target per run.
//
//   firmware-updater camera <index>   the camera, through camd on D-Bus
//   firmware-updater tallyvane        the counter-link board
#include <iostream>
#include <string>

#include "common/log.hpp"
#include "sm/update_machine.hpp"

using Updater::Log::Colour;

int main(int argc, char** argv) {
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
    // CAMERA-HELPER: create the camera helper here; then, as for every target:
    //   Updater::SM::UpdateMachine machine; machine.SetHelper(helper); machine.start();
    //   delete helper;   (before the machine goes)
    std::cerr << "camera support is not built into this firmware-updater" << std::endl;
    return 3;
  } else if (target == "tallyvane") {
    // TALLYVANE-HELPER: create the counter-link helper, run the update, then its receive loop.
    std::cerr << "tallyvane support is not built into this firmware-updater" << std::endl;
    return 3;
  } else {
    std::cerr << "Invalid target [" << target << "] given, quitting " << argv[0] << std::endl;
  }

  Updater::Log::Debug(Colour::Yellow, "Exiting firmware-updater ...");
  return 0;
}
