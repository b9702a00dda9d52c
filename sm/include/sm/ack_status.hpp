// What a target's acknowledgement wait tells the update machine, by name.
//
// The values cross the helper interface as plain integers and are printed as
// numbers ("Tallyvane ACK status: 0", "camd ACK status: 3"), so they are
// fixed: renumbering one changes what the machine does and what users see.
#pragma once

namespace Updater::Helpers {

enum AckStatus : int {
  // The chunk was acknowledged; the machine asks for the next position.
  kAcked = 0,
  // The same chunk goes out again.
  kResend = 1,
  // The last chunk was acknowledged: the update is complete.
  kLastBlockAcked = 3,
  // The target gave the update up. The machine reads it as kAcked and then
  // finds no next position, which ends the run as a failure; a value of its
  // own would instead stop the machine silently, as a success.
  kGivenUp = kAcked,
};

}  // namespace Updater::Helpers
