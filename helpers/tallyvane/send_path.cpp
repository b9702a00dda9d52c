#include "helpers/tallyvane/send_path.hpp"

#include <algorithm>
#include <iostream>

#include "common/board_record.hpp"
#include "common/console.hpp"
#include "common/log.hpp"
#include "common/record.hpp"
#include "helpers/tallyvane/kept_texts.hpp"
#include "lc/qel_arm_control.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

using Updater::Log::Colour;

SendPath::SendPath(Clock& clock) : clock_(clock) {}

void SendPath::SendNextOnAcknowledgement(std::function<void()> onAcknowledged) {
  sendNextOnAck_ = true;
  onAcknowledged_ = std::move(onAcknowledged);
}

bool SendPath::Transmit(const std::vector<std::uint8_t>& bytes) const {
  // Written before the bytes leave, so that no answer can precede it in the recording.
  if (auto* recorder = Record::Active()) recorder->Exchange(Record::BoardSent(bytes.data(), bytes.size()));
  return lc::QelArmControl::Send_Dl_Us_Raw(kDownlinkChannel, bytes.data(), bytes.size()) != 0;
}

bool SendPath::SendPacket(VYRCam::Packet& packet) {
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(packet.Length()));
  packet.SequenceNumber(nextSequence.fetch_add(1));
  packet.Pack(bytes.data());
  if (Console::Detail()) std::cout << " ** Sending message pkt # [" << packet.SequenceNumber() << "]" << '\n';
  const auto sequence = static_cast<std::uint8_t>(packet.SequenceNumber());

  if (!packet.NeedsAck()) return Transmit(bytes);

  // At most one packet awaiting its acknowledgement is on the wire; the
  // others wait their turn in the queue.
  std::lock_guard<std::mutex> lock(queueMutex);
  bool sent = false;
  if (pendingPackets.empty()) sent = Transmit(bytes);
  pendingPackets.push_back(PendingPacket{std::move(bytes), clock_.Now(), sequence});
  return sent;
}

bool SendPath::RemovePending(std::uint8_t sequence) {
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    if (pendingPackets.empty()) return true;
    const auto found = std::find_if(pendingPackets.begin(), pendingPackets.end(),
                                    [sequence](const PendingPacket& p) { return p.sequence == sequence; });
    if (found == pendingPackets.end()) return false;
    const bool wasOnWire = found == pendingPackets.begin();
    pendingPackets.erase(found);
    if (sendNextOnAck_ && wasOnWire && !pendingPackets.empty()) {
      pendingPackets.front().sentAt = clock_.Now();
      Transmit(pendingPackets.front().bytes);
    }
  }
  if (onAcknowledged_) onAcknowledged_();
  return true;
}

void SendPath::ClearPending() {
  if (Console::Detail()) Log::Debug(Colour::Cyan, Kept::kClearingQueue);
  DropPending();
}

void SendPath::DropPending() {
  std::lock_guard<std::mutex> lock(queueMutex);
  pendingPackets.clear();
}

bool SendPath::ResendExpired() {
  ResendOlderThan(std::chrono::milliseconds(ackTimeoutMs));
  return true;
}

bool SendPath::ResendOlderThan(std::chrono::nanoseconds age) {
  std::lock_guard<std::mutex> lock(queueMutex);
  if (pendingPackets.empty()) return false;
  PendingPacket& oldest = pendingPackets.front();
  const auto now = clock_.Now();
  if (now - oldest.sentAt <= age) return false;
  std::cerr << Kept::kExpiredAck << static_cast<unsigned>(oldest.sequence) << "], resending." << '\n';
  oldest.sentAt = now;
  Transmit(oldest.bytes);
  return true;
}

std::size_t SendPath::PendingCount() const {
  std::lock_guard<std::mutex> lock(queueMutex);
  return pendingPackets.size();
}

std::vector<std::uint8_t> SendPath::PendingSequences() const {
  std::lock_guard<std::mutex> lock(queueMutex);
  std::vector<std::uint8_t> sequences;
  for (const auto& p : pendingPackets) sequences.push_back(p.sequence);
  return sequences;
}

bool SendPath::NonePendingBefore(int sequence) const {
  std::lock_guard<std::mutex> lock(queueMutex);
  return pendingPackets.empty() || pendingPackets.front().sequence == sequence;
}

}  // namespace Updater::Helpers
