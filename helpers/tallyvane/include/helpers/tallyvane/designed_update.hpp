// The board's update as it was designed, quirks and all: every wait sleeps
// and re-reads what the receive path stored, and the receive path only runs
// once the machine has returned, so every check waits out its ten seconds.
// lastSentBlock counts the blocks sent, which the wait compares with the
// byte positions the board reports. Every operation: context update thread.
#pragma once

#include "helpers/tallyvane/update_mode.hpp"

namespace Updater::Helpers {

class ReceiveLoop;

class DesignedUpdate : public UpdateMode {
 public:
  // Context (every public function): update thread.
  DesignedUpdate(SendPath& send, BoardReports& board, ReceiveLoop& link, Clock& clock);

  int CheckForUpdate() override;
  // No limit: only the receive loop stores the board's position.
  int GetFirstUpdateBlock() override;
  int SendFirmwareBlock(int position) override;
  int WaitForAck() override;
  void BeginRun() override {}
  // The board's frames are read only from here on; the loop ends only if
  // its running flag is cleared.
  void EndRun() override;

 protected:
  bool SendCounted(VYRCam::FirmwareBlock& block, int position, std::size_t bytes) override;

 private:
  // Whether a block report came within about five seconds.
  bool WaitForBlockReport();
  // One attempt: kAcked when the board acknowledged what was sent, else
  // kResend after twelve pauses.
  int AwaitBlockAck();

  ReceiveLoop& link_;
  // Firmware blocks sent successfully by this helper.
  int sentBlockCounter = 0;
};

}  // namespace Updater::Helpers
