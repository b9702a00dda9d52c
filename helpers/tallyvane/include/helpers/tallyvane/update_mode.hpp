// How the board helper carries out the machine's six operations: one of two
// modes, chosen once when the helper is made. The designed mode
// (designed_update.hpp) waits by sleeping and reads the board only after the
// machine has run; the concurrent session (concurrent_session.hpp) reads it
// all along. What both share lives here: the package, its announcement, the
// block's console lines and the packet size. Thread words as in
// receive_loop.hpp; every operation here is for the update thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "common/console.hpp"
#include "common/image_file.hpp"

namespace VYRCam {
class FirmwareBlock;
}  // namespace VYRCam

namespace Updater::Helpers {

class BoardReports;
class SendPath;

class UpdateMode {
 public:
  static constexpr int kMaxPacketSize = 64;

  // Context (every public function): update thread.
  UpdateMode(SendPath& send, BoardReports& board, Clock& clock);
  virtual ~UpdateMode() = default;
  UpdateMode(const UpdateMode&) = delete;
  UpdateMode& operator=(const UpdateMode&) = delete;

  // ---- the machine's operations (UpdateHelper) -------------------------
  virtual int CheckForUpdate() = 0;
  bool HaveUpdateFile();
  virtual int GetFirstUpdateBlock() = 0;
  virtual int SendFirmwareBlock(int position) = 0;
  // An AckStatus.
  virtual int WaitForAck() = 0;
  virtual int GetNextFirmwareBlock();

  // Before the machine starts, and once it has returned.
  virtual void BeginRun() = 0;
  virtual void EndRun() = 0;

  // Wraps one chunk into a FirmwareBlock and sends it, saying so.
  bool SendBlock(int position, const std::vector<std::uint8_t>& data);
  int PacketSize() const { return packetSize; }

 protected:
  // Sends `block` (the chunk at `position`, `bytes` long) and records it in
  // lastSentBlock as the mode counts.
  virtual bool SendCounted(VYRCam::FirmwareBlock& block, int position, std::size_t bytes) = 0;
  // Looks up the board's package and, when it is newer than what the board
  // runs, opens it through `image`, sums it and prints what the check prints
  // before the announcement. False when there is nothing to announce, or
  // the package is refused (see Image::File::Open).
  bool ReadPackage(Image::File& image);
  // Announces the image that ReadPackage() summed.
  void Announce();
  // Prints the status and grows or drops the packet size by it.
  int AfterAckWait(int status);
  // `done` bytes of the announced image acknowledged: the summary's progress line.
  void ReportProgress(std::int64_t done) { progressLine_.Report(done, imageSize_); }

  SendPath& send_;
  BoardReports& board_;
  Clock& clock_;
  int packetSize = kMaxPacketSize;
  int packageVersion = -1;
  std::string firmwarePath;
  std::uint16_t checksum_ = 0;
  std::int64_t imageSize_ = 0;

 private:
  Console::Progress progressLine_;
};

}  // namespace Updater::Helpers
