// What the counter-link board does with the host's packets.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "options.hpp"
#include "vyrcam/packets.hpp"

namespace tallyvane_sim {

class Board {
 public:
  // Hands a packed packet to the uplink, `delay` from now.
  using Send = std::function<void(std::vector<std::uint8_t> packet, std::chrono::milliseconds delay,
                                  std::string what)>;
  using Say = std::function<void(const std::string&)>;

  Board(const Options& options, Send send, Say say);

  // One downlink frame's payload on `channel`.
  void OnFrame(int channel, const std::vector<std::uint8_t>& payload);

  bool ApplyRequested() const { return applyRequested_; }
  // Ends the run: for a transfer without a verdict yet, writes what is held
  // and prints its verdict. True when the last verdict was ok.
  bool Finish();
  // Writes `version` to --version-file, when one was given.
  void WriteVersionFile(int version);

 private:
  struct Transfer {
    bool active = false;
    std::uint16_t version = 0;
    std::uint16_t hash = 0;
    std::vector<std::uint8_t> image;
    std::vector<bool> held;
    std::size_t heldCount = 0;
    std::uint64_t overrun = 0;  // bytes offered outside the announced length
    bool verdictGiven = false;
  };

  void Emit(const VYRCam::Packet& packet, std::chrono::milliseconds delay, const std::string& what);
  void Acknowledge(unsigned sequence);
  void Report(int lastReceived, std::uint32_t next);
  void OnUpdateAvailable(const VYRCam::UpdateAvailable& packet);
  void OnFirmwareBlock(const VYRCam::FirmwareBlock& packet);
  // --error-after and --forget-after: true when the chunk just stored is
  // answered by neither a report nor a completion.
  bool Interrupted();
  void OnApplyUpdate();
  // First byte not held at or after `from`, wrapping to 0; -1 when all are.
  long long FirstMissing(std::uint64_t from) const;
  void Complete(int lastReceived);
  // Checks the image, writes it to --out and prints the verdict line.
  void GiveVerdict(bool complete);

  const Options& options_;
  Send send_;
  Say say_;
  Transfer transfer_;
  bool lastVerdictOk_ = false;
  bool anyVerdict_ = false;
  bool applyRequested_ = false;
  bool errorInjected_ = false;
  bool forgotten_ = false;
  bool completedEarly_ = false;
  std::optional<std::pair<int, std::uint32_t>> previousReport_;  // last, next
  bool muted_ = false;
  unsigned acks_ = 0;
  unsigned reports_ = 0;
  unsigned chunks_ = 0;
  std::multiset<unsigned> dropAckSeq_;
};

// (256 - sum of the bytes) mod 65536, the sum taken mod 65536.
std::uint16_t ByteSumChecksum(const std::vector<std::uint8_t>& bytes);

}  // namespace tallyvane_sim
