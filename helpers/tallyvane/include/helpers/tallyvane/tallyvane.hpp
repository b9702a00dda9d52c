// Update helper for the counter-link board: the machine's one entry into the
// board, made of four parts.
//
//   ReceiveLoop    (receive_loop.hpp)   the data device, cut into frames;
//   BoardReports   (board_reports.hpp)  what those frames told us;
//   SendPath       (send_path.hpp)      numbering, pending queue, resend;
//   UpdateMode     (update_mode.hpp)    the six operations, as one of
//     DesignedUpdate    (designed_update.hpp)     or
//     ConcurrentSession (concurrent_session.hpp), chosen once, here.
//
// Positions are byte offsets in the firmware image; -1 means "none".
// Thread words (receive thread, update thread, any thread) as in
// receive_loop.hpp.
#pragma once

#include <memory>
#include <string>

#include "common/clock.hpp"
#include "helpers/tallyvane/board_reports.hpp"
#include "helpers/tallyvane/receive_loop.hpp"
#include "helpers/tallyvane/send_path.hpp"
#include "helpers/tallyvane/update_mode.hpp"
#include "lc/downlink_frame.hpp"
#include "sm/update_helper.hpp"

namespace Updater::Helpers {

class Tallyvane : public UpdateHelper {
 public:
  static constexpr int kDownlinkChannel = SendPath::kDownlinkChannel;
  static constexpr int kMaxPacketSize = UpdateMode::kMaxPacketSize;

  // The data device defaults to the platform's ($QUORVEX_TALLYVANE_DATA or
  // /dev/arm-tallyvane-data), looked up once, here. Nothing is opened or
  // sent until the run begins.
  explicit Tallyvane(std::string devicePath = lc::DataDevicePath(),
                     Updater::Clock& clock = Updater::SystemClock(), bool concurrent = false);
  // Whether $QUORVEX_TALLYVANE_READER asks for the concurrent mode. Any
  // other non-empty value gets a warning on standard error, and the designed
  // mode runs. Context: any thread.
  static bool ConcurrentFromEnvironment();
  // Stops a receive thread of the helper's own; the device stays as the loop
  // left it and nothing is sent. Context: update thread.
  ~Tallyvane() override;
  Tallyvane(const Tallyvane&) = delete;
  Tallyvane& operator=(const Tallyvane&) = delete;

  // ---- UpdateHelper: context update thread ------------------------------
  int CheckForUpdate() override;
  bool HaveUpdateFile() override;
  int GetFirstUpdateBlock() override;
  int SendFirmwareBlock(int position) override;
  int WaitForAck(unsigned block) override;
  int GetNextFirmwareBlock() override;

  // Before the machine starts (the concurrent mode starts reading the board
  // here), and once it has returned (the designed mode reads the board from
  // here on, for as long as the process lives). Context: update thread.
  void BeginRun() { mode_->BeginRun(); }
  void EndRun() { mode_->EndRun(); }
  // Called once the receive loop has ended. Nothing to do on this board,
  // but the program's entry keeps the call so that it has a place to grow.
  // Context: update thread.
  void Close();

  // The receive loop, on the caller's thread, and its end.
  // Context: RunReader the receive thread; StopReader any thread.
  int RunReader() { return link_.RunReader(); }
  void StopReader() { link_.StopReader(); }

  // The parts, for tests and tools that play the board. Context: as each
  // part's own functions say.
  ReceiveLoop& Link() { return link_; }
  SendPath& Sender() { return send_; }
  BoardReports& Board() { return board_; }
  UpdateMode& Mode() { return *mode_; }

 private:
  SendPath send_;
  BoardReports board_;
  ReceiveLoop link_;
  // Last: it stops its receive thread before the parts go.
  std::unique_ptr<UpdateMode> mode_;
};

}  // namespace Updater::Helpers
