// The one seam between the update state machine and a target.
//
// The machine never touches a device, file or bus; every step of an update
// is one of these calls, made on the main thread, one at a time. Failures
// come back as results (0, false, a negative block), never as exceptions.
#pragma once

#include "sm/ack_status.hpp"

namespace Updater::Helpers {

class UpdateHelper {
 public:
  virtual ~UpdateHelper() = default;

  // Non-zero: an update is needed and the target has been told about it.
  virtual int CheckForUpdate() = 0;
  // Whether an image is at hand. The machine ignores the answer on purpose.
  virtual bool HaveUpdateFile() = 0;
  // Byte position the target wants first.
  virtual int GetFirstUpdateBlock() = 0;
  // Non-zero when the chunk at `block` went out.
  virtual int SendFirmwareBlock(int block) = 0;
  // An AckStatus: kAcked, kResend or kLastBlockAcked; anything else stops
  // the update where it stands.
  virtual int WaitForAck(unsigned block) = 0;
  // Next byte position the target wants; negative when there is none.
  virtual int GetNextFirmwareBlock() = 0;

 protected:
  UpdateHelper() = default;
  UpdateHelper(const UpdateHelper&) = default;
  UpdateHelper& operator=(const UpdateHelper&) = default;
};

}  // namespace Updater::Helpers
