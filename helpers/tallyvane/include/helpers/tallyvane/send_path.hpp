// Everything towards the board: numbering, packing, the queue of packets
// still awaiting the board's acknowledgement, and the resend of the oldest.
// Bytes leave through lc::QelArmControl::Send_Dl_Us_Raw on one channel.
// Thread words as in receive_loop.hpp.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "common/clock.hpp"

namespace VYRCam {
class Packet;
}  // namespace VYRCam

namespace Updater::Helpers {

class SendPath {
 public:
  // Channel code of every packet handed to Send_Dl_Us_Raw.
  static constexpr int kDownlinkChannel = 5;

  struct PendingPacket {
    std::vector<std::uint8_t> bytes;
    Clock::time_point sentAt;
    std::uint8_t sequence = 0;
  };

  // Context: update thread.
  explicit SendPath(Clock& clock);

  // Set once, before any other thread uses the path: the next packet in line
  // goes out as soon as the one on the wire is acknowledged (instead of
  // after its own time-out), and `onAcknowledged` runs after each
  // acknowledgement that emptied a place in the queue.
  // Context: update thread, before the receive thread starts.
  void SendNextOnAcknowledgement(std::function<void()> onAcknowledged);

  // Numbers, packs and sends `packet`. A packet that wants an acknowledgement
  // goes into the pending queue and leaves at once only when nothing else is
  // outstanding. True when Send_Dl_Us_Raw was called and succeeded.
  // Context: any thread (ApplyUpdate leaves from the receive thread).
  bool SendPacket(VYRCam::Packet& packet);
  // Drops the pending packet numbered `sequence`; false when the queue holds
  // others but not that one.
  // Context: any thread.
  bool RemovePending(std::uint8_t sequence);
  // Context: any thread.
  void ClearPending();
  // Empties the queue without a word (the board has forgotten the update).
  // Context: any thread.
  void DropPending();
  // Sends the oldest pending packet again once it has waited ackTimeoutMs.
  // Always true.
  // Context: any thread.
  bool ResendExpired();
  // Sends the oldest pending packet again once it has waited longer than
  // `age`; true when it did.
  // Context: any thread.
  bool ResendOlderThan(std::chrono::nanoseconds age);

  // Context: any thread.
  std::size_t PendingCount() const;
  std::vector<std::uint8_t> PendingSequences() const;
  // Whether the oldest pending packet is numbered `sequence`, or none is.
  bool NonePendingBefore(int sequence) const;
  std::uint64_t AckTimeoutMs() const { return ackTimeoutMs; }

 private:
  // Every byte towards the board leaves here, sends and resends alike.
  bool Transmit(const std::vector<std::uint8_t>& bytes) const;

  Clock& clock_;
  std::vector<PendingPacket> pendingPackets;
  std::atomic<std::uint8_t> nextSequence{0};
  const std::uint64_t ackTimeoutMs = 3000;
  mutable std::mutex queueMutex;
  bool sendNextOnAck_ = false;
  std::function<void()> onAcknowledged_;
};

}  // namespace Updater::Helpers
