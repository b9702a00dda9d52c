#include "helpers/tallyvane/tallyvane.hpp"

#include <fcntl.h>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "common/image_file.hpp"
#include "common/log.hpp"
#include "common/notify.hpp"
#include "lc/downlink_frame.hpp"
#include "lc/qel_arm_control.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

using namespace std::chrono_literals;
using Updater::Log::Colour;

namespace {

constexpr int kPollTimeoutMs = 1000;
// Silence on the link is normal between updates; one reminder every five
// seconds is enough to show the loop is alive.
constexpr std::chrono::nanoseconds kOuchInterval{5'000'999'999};
constexpr std::chrono::nanoseconds kBlockReportTimeout{5'000'999'999};
constexpr auto kBlockReportPoll = 30ms;
constexpr auto kAckRetryPause = 250ms;
constexpr int kAckRounds = 12;
constexpr int kAckAttempts = 3;
constexpr auto kUpdateInfoPoll = 100ms;
constexpr int kUpdateInfoRounds = 102;
constexpr auto kFirstBlockPoll = 30ms;

const char* const kGulp = "GULP; ignoring this frame's data";

bool SyncAt(const std::vector<std::uint8_t>& buffer, std::size_t at) {
  return at + 1 < buffer.size() && buffer[at] == lc::kSync0 && buffer[at + 1] == lc::kSync1;
}

// The hex dump's cells, "XX " per byte. Made once per read: a resync run
// shows the same bytes again and again, one fewer each time.
std::string HexCells(const std::uint8_t* data, std::size_t count) {
  static const char digits[] = "0123456789ABCDEF";
  std::string cells(3 * count, ' ');
  for (std::size_t i = 0; i < count; ++i) {
    cells[3 * i] = digits[data[i] >> 4];
    cells[3 * i + 1] = digits[data[i] & 0x0F];
  }
  return cells;
}

void WriteDump(const char* cells, std::size_t length) {
  std::puts("*** Received:");
  std::fwrite(cells, 1, length, stdout);
  std::putchar('\n');
}

}  // namespace

std::atomic<Clock::time_point> Tallyvane::lastProgressPrint{std::chrono::system_clock::now()};
std::atomic<int> Tallyvane::sentBlockCounter{0};

Tallyvane::Tallyvane(std::string devicePath, Updater::Clock& clock)
    : devicePath(std::move(devicePath)), clock(clock) {}

Tallyvane::~Tallyvane() = default;

void Tallyvane::Close() {}

// ---- receive path ----------------------------------------------------------

int Tallyvane::RunReader() {
  auto lastOuch = clock.Now();
  readerRunning = true;
  Notify("READY=1");  // the service manager: the board is being read from now on

  for (;;) {
    if (deviceFd < 0) deviceFd = open(devicePath.c_str(), O_RDONLY | O_NONBLOCK);

    bool polling = true;
    while (polling) {
      polling = false;
      pollfd pfd{deviceFd, POLLIN, 0};
      if (poll(&pfd, 1, kPollTimeoutMs) < 1) {
        const auto now = clock.Now();
        if (now - lastOuch > kOuchInterval) {
          lastOuch = now;
          std::puts("Tallyvane polling ouch...");
          std::fflush(stdout);
        }
        break;
      }

      const ssize_t count = read(deviceFd, readBuffer, sizeof readBuffer);
      if (count < 0) {
        const char* reason = std::strerror(errno);
        std::cerr << "read() EOD: ";
        if (reason != nullptr) {
          std::cerr << reason << '\n';
        } else {
          std::cerr.setstate(std::ios::badbit);
        }
      } else if (count == 0) {
        // The writer went away: carry on with a fresh descriptor, the old
        // one closed first, so that a link that keeps flapping cannot use
        // up the process's descriptors.
        Log::Error("Read 0 bytes");
        const int result = close(deviceFd);
        deviceFd = -1;
        if (!readerRunning) return result;
        deviceFd = open(devicePath.c_str(), O_RDONLY | O_NONBLOCK);
        polling = true;
      } else {
        Receive(readBuffer, static_cast<std::size_t>(count));
      }
    }

    if (!readerRunning) {
      const int result = close(deviceFd);
      deviceFd = -1;
      return result;
    }
  }
}

void Tallyvane::Receive(const std::uint8_t* data, std::size_t count) {
  rxBuffer.clear();
  rxBuffer.insert(rxBuffer.end(), data, data + count);
  ProcessReceived();
}

namespace {
// Unpacks the frame's packet as P and, when it unpacks, hands it to `handle`
// and sets `length` to what the frame occupies after the sync bytes.
// Returns Unpack's code.
template <class P, class Handle>
int UnpackAndHandle(const char* packet, std::size_t available, int& length, Handle&& handle) {
  P unpacked;
  const int result = unpacked.Unpack(packet, available);
  if (result == 0) {
    length = unpacked.Length();
    handle(unpacked);
  }
  return result;
}
}  // namespace

void Tallyvane::ProcessReceived() {
  const std::size_t size = rxBuffer.size();
  if (size < 3) return;
  if (!SyncAt(rxBuffer, 0)) {
    std::cout << kGulp << '\n';
    return;
  }

  std::size_t at = 0;  // where the current frame's sync bytes are
  std::string cells;
  while (size - at >= 3) {
    // Three bytes can hold the sync and a length but no type; nothing can
    // unpack from that, so it is treated like a type we do not know.
    const int type = size - at > 3 ? rxBuffer[at + 3] : -1;
    const char* packet = reinterpret_cast<const char*>(rxBuffer.data() + at + 2);
    const std::size_t available = size - at - 2;
    int result = -1;
    int length = 0;

    switch (type) {
      case VYRCam::kDatalinkPacketAck:
        result = UnpackAndHandle<VYRCam::DatalinkPacketAck>(packet, available, length,
                                                            [&](const auto& ack) { OnDatalinkAck(ack); });
        if (result != 0) syslog(LOG_ERR, "Failed to Unpack DataLink Packet ACK [%d]", result);
        break;
      case VYRCam::kUpdateInfo:
        result = UnpackAndHandle<VYRCam::UpdateInfo>(packet, available, length, [&](const auto& info) {
          OnUpdateInfo(info.PartialVersion(), info.DownloadedBlocks(), info.BlockSize(), info.FlashRegion());
        });
        if (result != 0) Log::Error("Failed to Unpack UpdateInfo [", result, "]");
        break;
      case VYRCam::kReceivedFirmwareBlock:
        result = UnpackAndHandle<VYRCam::ReceivedFirmwareBlock>(
            packet, available, length, [&](const auto& report) { OnBlockReport(report.LastReceived(), report.Next()); });
        if (result != 0) Log::Error("Failed to Unpack ReceivedFirmwareBlock [", result, "]");
        break;
      case VYRCam::kUpdateComplete:
        result = UnpackAndHandle<VYRCam::UpdateComplete>(packet, available, length,
                                                         [&](const auto&) { OnUpdateComplete(); });
        if (result != 0) Log::Error("Failed to Unpack UpdateComplete [", result, "]");
        break;
      case VYRCam::kUpdateError:
        result = UnpackAndHandle<VYRCam::UpdateError>(packet, available, length,
                                                      [&](const auto&) { OnUpdateError(); });
        if (result != 0) syslog(LOG_ERR, "Failed to Unpack UpdateError [%d]", result);
        break;
      default:
        break;
    }

    if (result != 0) {
      // Resynchronise on the next sync bytes, one byte at a time. A packet
      // without sync bytes in front is not a frame, however well it would
      // unpack. Every byte given up is shown, so a noisy link is easy to spot.
      if (cells.empty()) cells = HexCells(rxBuffer.data(), size);
      do {
        WriteDump(cells.data() + 3 * at, 3 * (size - at));
        std::cout << "CHOKE" << '\n';
        ++at;
      } while (at < size && !SyncAt(rxBuffer, at));
      continue;
    }

    at += std::min(size - at, 2 + static_cast<std::size_t>(length));
    if (size - at < 3) break;
    if (!SyncAt(rxBuffer, at)) {
      std::cout << kGulp << '\n';
      break;
    }
  }
  rxBuffer.erase(rxBuffer.begin(), rxBuffer.begin() + static_cast<std::ptrdiff_t>(std::min(at, size)));
}

void Tallyvane::DumpReceived(const std::uint8_t* data, int count) {
  const std::string cells = HexCells(data, static_cast<std::size_t>(std::max(count, 0)));
  WriteDump(cells.data(), cells.size());
}

void Tallyvane::OnDatalinkAck(const VYRCam::DatalinkPacketAck& ack) {
  if (!ack.AckIsOk()) return;
  RemovePending(ack.AckedSequenceNumber());
}

void Tallyvane::OnUpdateInfo(std::uint16_t partialVersion, std::uint32_t downloaded, std::uint8_t blockSize,
                             int flashRegion) {
  (void)blockSize;  // the board's block size does not steer our chunk size
  downloadedBlocks = static_cast<std::int32_t>(downloaded);
  partialDlVer = partialVersion;
  flashSector = flashRegion;
  // Last, so that whoever sees the flag also sees the values.
  haveUpdateInfo = 1;
  Log::Debug(Colour::Green, "Processed ACK for setUpdateInfo\n", "\tpartialDlVer: [", partialDlVer.load(),
             "]\n", "\t# DL blocks: [", downloadedBlocks.load(), "]\n", "\tflash Sector: [",
             flashSector.load(), "]");
}

void Tallyvane::PrintProgress(int lastReceivedPos) const {
  std::cout << "Processing ACK for firmware block, last byte: [" << lastReceivedPos << "], "
            << "next byte: [" << nextBlock.load() << "]" << '\n';
}

void Tallyvane::OnBlockReport(int lastReceivedPos, std::uint32_t next) {
  const int nextPos = static_cast<int>(next);
  nextBlock = nextPos;
  if (lastReceivedPos == -1) firstBlock = nextPos;
  lastReceived = lastReceivedPos;
  lastAckedBlock = lastReceivedPos;
  blockReportReceived = 1;

  // The end of the image is always worth a line; otherwise the console
  // would scroll one line per chunk.
  if (nextPos == -1) {
    PrintProgress(lastReceivedPos);
    return;
  }
  const auto now = clock.Now();
  const auto sinceLast =
      std::chrono::duration_cast<std::chrono::milliseconds>(now - lastProgressPrint.load()).count();
  if (sinceLast <= progressPrintIntervalMs) return;
  lastProgressPrint = now;
  if (lastReceivedPos != -1) PrintProgress(lastReceivedPos);
}

void Tallyvane::OnUpdateComplete() {
  if (updateCompleted) return;
  blockReportReceived = 1;
  updateCompleted = 1;
  // The board is done: whatever it last reported, what we sent counts as acknowledged.
  std::cout << "Last acked block: [" << lastAckedBlock.load() << "], last sent block: ["
            << lastSentBlock.load() << ", setting them equal." << '\n';
  nextBlock = -1;
  const int sent = lastSentBlock;
  if (sent == -1) firstBlock = -1;
  lastReceived = sent;
  lastAckedBlock = sent;
  blockReportReceived = 1;
  PrintProgress(sent);

  VYRCam::ApplyUpdate apply;
  SendPacket(apply);
  Log::Debug(Colour::Green, "Tell UI, or whoever, that the update has completed!");
}

void Tallyvane::OnUpdateError() {
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    pendingPackets.clear();
  }
  ResetUpdateState();
}

void Tallyvane::ResetUpdateState() {
  updateCompleted = 0;
  partialDlVer = 0;
  downloadedBlocks = 0;
  haveUpdateInfo = 0;
  firstBlock = 0;
  lastReceived = -1;
  nextBlock = -1;
  blockReportReceived = 0;
  lastSentBlock = -1;
  lastAckedBlock = -1;
}

// ---- send path -------------------------------------------------------------

bool Tallyvane::Transmit(const std::vector<std::uint8_t>& bytes) const {
  return lc::QelArmControl::Send_Dl_Us_Raw(kDownlinkChannel, bytes.data(), bytes.size()) != 0;
}

bool Tallyvane::SendPacket(VYRCam::Packet& packet) {
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(packet.Length()));
  packet.SequenceNumber(nextSequence.fetch_add(1));
  packet.Pack(bytes.data());
  std::cout << " ** Sending message pkt # [" << packet.SequenceNumber() << "]" << '\n';
  const auto sequence = static_cast<std::uint8_t>(packet.SequenceNumber());

  if (!packet.NeedsAck()) return Transmit(bytes);

  // At most one packet awaiting its acknowledgement is on the wire; the
  // others wait their turn in the queue.
  std::lock_guard<std::mutex> lock(queueMutex);
  bool sent = false;
  if (pendingPackets.empty()) sent = Transmit(bytes);
  pendingPackets.push_back(PendingPacket{std::move(bytes), clock.Now(), sequence});
  return sent;
}

bool Tallyvane::RemovePending(std::uint8_t sequence) {
  std::lock_guard<std::mutex> lock(queueMutex);
  if (pendingPackets.empty()) return true;
  const auto found = std::find_if(pendingPackets.begin(), pendingPackets.end(),
                                  [sequence](const PendingPacket& p) { return p.sequence == sequence; });
  if (found == pendingPackets.end()) return false;
  pendingPackets.erase(found);
  return true;
}

void Tallyvane::ClearPending() {
  Log::Debug(Colour::Cyan, "Clearing Vexalume packet queue");
  std::lock_guard<std::mutex> lock(queueMutex);
  pendingPackets.clear();
}

bool Tallyvane::ResendExpired() {
  std::lock_guard<std::mutex> lock(queueMutex);
  if (pendingPackets.empty()) return true;
  PendingPacket& oldest = pendingPackets.front();
  const auto now = clock.Now();
  if (now - oldest.sentAt > std::chrono::milliseconds(ackTimeoutMs)) {
    std::cerr << "VYR cam expired ACK [#" << static_cast<unsigned>(oldest.sequence) << "], resending."
              << '\n';
    oldest.sentAt = now;
    Transmit(oldest.bytes);
  }
  return true;
}

bool Tallyvane::SendBlock(int position, const std::vector<std::uint8_t>& data) {
  VYRCam::FirmwareBlock block(position, data);
  std::cout << "** Sending bytes from [" << block.BlockNum() << "] to ["
            << block.BlockNum() + data.size() - 1 << "]" << '\n';
  blockReportReceived = 0;
  std::cout << "** Sending bytes from [blockNum()] to [" << data.size() - 1 << "]" << '\n';

  const bool sent = SendPacket(block);
  if (sent) {
    // A count of blocks, compared later with the board's byte positions;
    // AwaitBlockAck() copes with the two drifting apart.
    const int counter = ++sentBlockCounter;
    std::cout << "Setting last sent byte to [" << counter << "]" << '\n';
    lastSentBlock = counter;
  }
  return sent;
}

int Tallyvane::WaitForBlockReport() {
  const auto start = clock.Now();
  for (;;) {
    const std::uint8_t seen = blockReportReceived;
    clock.Sleep(kBlockReportPoll);
    if (seen) return 1;
    if (clock.Now() - start > kBlockReportTimeout) return 0;
  }
}

int Tallyvane::AwaitBlockAck() {
  WaitForBlockReport();
  for (int round = 0; round < kAckRounds; ++round) {
    const int acked = lastAckedBlock;
    const int sent = lastSentBlock;
    if (acked == sent) return 0;
    if (acked > sent) {
      std::cout << "************************************* Debug: Possible missed ACK?" << '\n';
      lastSentBlock = acked;
    }
    std::cout << "Last Acked: [" << lastAckedBlock.load() << "], last sent: [" << lastSentBlock.load() << "]"
              << '\n';
    clock.Sleep(kAckRetryPause);
  }
  std::cout << "Returning without firmware black ACK!" << '\n';
  return 1;
}

int Tallyvane::WaitForAck(unsigned /*block*/) {
  std::cout << "[Talyvane] waiting for ACK!" << '\n';
  int status = 1;
  for (int attempt = 0; attempt < kAckAttempts; ++attempt) {
    status = AwaitBlockAck();
    if (status == 0) break;
  }
  std::cout << "Tallyvane ACK status: " << status << '\n';

  if (status == 0) {
    if (packetSize < kMaxPacketSize) {
      packetSize *= 2;
      std::cout << "Bumping packet size to [" << packetSize << "]" << '\n';
    }
    return 0;
  }
  // Start over small: whatever was queued belongs to the chunk being resent.
  ClearPending();
  packetSize = 1;
  std::cout << "********************* Dropping packet size to [" << 1 << "]" << '\n';
  std::cerr << "Caught ACK timeout! Still waiting..." << '\n';
  return 1;
}

// ---- update operations -----------------------------------------------------

std::uint16_t Tallyvane::ReportChecksum(std::size_t length, std::uint16_t sum) {
  Log::Debug(Colour::Green, "File length of [", length, "]");
  Log::Debug(Colour::Green, "[", "uint16_t Updater::Helpers::Tallyvane::tallyvane_checksum(const char*, size_t)",
             "::", 542, "]  ");
  return static_cast<std::uint16_t>(256 - sum);
}

namespace {
std::uint16_t AddBytes(std::uint16_t sum, const char* data, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) sum = static_cast<std::uint16_t>(sum + static_cast<unsigned char>(data[i]));
  return sum;
}
}  // namespace

std::uint16_t Tallyvane::tallyvane_checksum(const char* data, std::size_t length) {
  return ReportChecksum(length, AddBytes(0, data, length));
}

int Tallyvane::CheckForUpdate() {
  VYRCam::RequestUpdateInfo request;
  SendPacket(request);

  int round = 0;
  for (; round < kUpdateInfoRounds && !haveUpdateInfo; ++round) clock.Sleep(kUpdateInfoPoll);
  if (round == kUpdateInfoRounds) {
    Log::Error("Error asking tallyvane for update info status, not updating");
    return 0;
  }

  const auto package = lc::QelArmControl::FilesystemFirmwarePackage(0);
  packageVersion = package.first;
  firmwarePath = package.second;
  if (packageVersion <= lc::QelArmControl::TallyvaneFirmwareVer()) return 0;

  std::ifstream image(firmwarePath, std::ios::binary);
  if (!image.is_open()) return 0;
  const std::streamoff length = Image::Length(image);

  // Summed piece by piece: the same result as summing the whole image at
  // once, without holding it.
  std::uint16_t sum = 0;
  if (!Image::ReadInPieces(image, length, [&](const char* data, std::size_t n) { sum = AddBytes(sum, data, n); }))
    return 0;

  const std::uint16_t checksum = ReportChecksum(static_cast<std::size_t>(length), sum);
  // The checksum is shown in hex and the stream is left that way: every
  // later number on standard output is hex too.
  std::cout << std::hex;
  Log::Debug(Colour::Green, "Checksum: [", checksum, "]");
  std::cout << "This file [" << firmwarePath << "] contains [" << length << "] chunks of [" << packetSize << "]"
            << '\n';

  std::cout << "Sending version [" << packageVersion << "] with hash [" << checksum << "] in [" << length
            << "] chunks" << '\n';
  VYRCam::UpdateAvailable announce(static_cast<std::uint16_t>(packageVersion), checksum,
                                   static_cast<std::uint32_t>(length));
  SendPacket(announce);
  return 1;
}

bool Tallyvane::HaveUpdateFile() {
  if (!firmwarePath.empty()) return true;
  std::cout << "No update file; can't update!" << '\n';
  return false;
}

int Tallyvane::GetFirstUpdateBlock() {
  // No limit. Only the receive loop stores the board's position, so this
  // returns only while that loop runs on another thread.
  for (;;) {
    const int first = nextBlock;
    if (first != -1) return first;
    clock.Sleep(kFirstBlockPoll);
  }
}

int Tallyvane::SendFirmwareBlock(int position) {
  if (packetSize < 1) {
    std::cerr << "Invalid chunk size: [" << packetSize << "], "
              << "can't update tallyvane firmware." << '\n';
    return 0;
  }

  // Opened afresh per chunk: the image may be replaced between updates and
  // a long-lived handle would keep reading the old one.
  std::ifstream image(firmwarePath, std::ios::binary);
  if (!image.is_open()) return 0;
  const std::streamoff length = Image::Length(image);
  std::cout << "This block: [" << position << "], blockSize: [" << packetSize << "]" << '\n';

  const auto chunk = Image::ReadChunk(image, length, position, packetSize);
  if (!chunk) return 0;
  return SendBlock(position, *chunk) ? 1 : 0;
}

int Tallyvane::GetNextFirmwareBlock() { return nextBlock; }

// ---- inspection --------------------------------------------------------------

Tallyvane::LinkState Tallyvane::State() const {
  return LinkState{updateCompleted.load(), partialDlVer.load(), downloadedBlocks.load(), flashSector.load(),
                   haveUpdateInfo.load(),  firstBlock.load(),   lastReceived.load(),     nextBlock.load(),
                   blockReportReceived.load(), lastSentBlock.load(), lastAckedBlock.load()};
}

std::size_t Tallyvane::PendingCount() const {
  std::lock_guard<std::mutex> lock(queueMutex);
  return pendingPackets.size();
}

std::vector<std::uint8_t> Tallyvane::PendingSequences() const {
  std::lock_guard<std::mutex> lock(queueMutex);
  std::vector<std::uint8_t> sequences;
  for (const auto& p : pendingPackets) sequences.push_back(p.sequence);
  return sequences;
}

}  // namespace Updater::Helpers
