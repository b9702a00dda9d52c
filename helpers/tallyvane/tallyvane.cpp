#include "helpers/tallyvane/tallyvane.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "common/image_file.hpp"
#include "common/log.hpp"
#include "common/notify.hpp"
#include "common/stall_limit.hpp"
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

// Console output: a console that fails loses the dump and nothing else.
void WriteDump(const char* cells, std::size_t length) {
  (void)std::puts("*** Received:");
  (void)std::fwrite(cells, 1, length, stdout);
  (void)std::putchar('\n');
}

}  // namespace

std::atomic<Clock::time_point> Tallyvane::lastProgressPrint{std::chrono::system_clock::now()};
std::atomic<int> Tallyvane::sentBlockCounter{0};

namespace {
// A unit's start time-out is stretched by this much past the stall limit
// with every progress line, so that only a transfer the limit would end runs into it.
constexpr auto kProgressMargin = std::chrono::seconds(30);
constexpr const char* kConcurrentMode = "concurrent";
}  // namespace

Tallyvane::Tallyvane(std::string devicePath, Updater::Clock& clock, bool concurrent)
    : devicePath(std::move(devicePath)),
      clock(clock),
      concurrent_(concurrent),
      stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      stall_(concurrent ? StallLimitFromEnvironment() : std::nullopt, clock),
      progress_("board", clock, stall_.Limit().value_or(kDefaultStallLimit) + kProgressMargin) {}

Tallyvane::~Tallyvane() {
  StopReaderThread();
  if (stopFd_ >= 0) close(stopFd_);
}

bool Tallyvane::ConcurrentFromEnvironment() {
  const char* mode = std::getenv("QUORVEX_TALLYVANE_READER");
  if (mode == nullptr || *mode == '\0') return false;
  if (std::strcmp(mode, kConcurrentMode) == 0) return true;
  std::cerr << "QUORVEX_TALLYVANE_READER=[" << mode << "] is not \"" << kConcurrentMode
            << "\"; the receive loop runs after the update" << std::endl;
  return false;
}

void Tallyvane::Close() {}

// ---- receive path ----------------------------------------------------------

namespace {
// A data path that fails again right after it was opened (a driver that
// answers every read with an error, /dev/null, an empty file, a directory)
// is tried again after a pause that doubles up to the poll time-out, not as
// fast as the processor allows.
constexpr auto kFirstRetryPause = std::chrono::milliseconds(10);
constexpr auto kLongestRetryPause = std::chrono::milliseconds(kPollTimeoutMs);

std::chrono::milliseconds NextRetryPause(std::chrono::milliseconds pause) {
  return pause.count() == 0 ? kFirstRetryPause : std::min(2 * pause, kLongestRetryPause);
}

// Where the bytes of a data path that is a plain file were used up, so that
// a reopen goes on from there and the same frames are never handled twice.
struct FileMark {
  dev_t device = 0;
  ino_t inode = 0;
  off_t offset = -1;
};
}  // namespace

int Tallyvane::RunReader() {
  auto lastOuch = clock.Now();
  readerRunning = true;
  Notify("READY=1");  // the service manager: the board is being read from now on

  FileMark mark;
  bool fifo = false;
  bool regular = false;
  // Failures (end-of-file or a read error) since bytes last arrived, and the
  // pause before the next try.
  int failures = 0;
  std::chrono::milliseconds pause{0};
  auto openDevice = [&] {
    deviceFd = open(devicePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st {};
    fifo = regular = false;
    if (deviceFd >= 0 && fstat(deviceFd, &st) == 0) {
      fifo = S_ISFIFO(st.st_mode);
      regular = S_ISREG(st.st_mode);
      if (regular && st.st_dev == mark.device && st.st_ino == mark.inode && mark.offset > 0)
        lseek(deviceFd, mark.offset, SEEK_SET);
      if (regular) mark = FileMark{st.st_dev, st.st_ino, mark.offset};
    }
  };
  // A FIFO's end-of-file means its writer left, and the reopened FIFO waits
  // in poll() for the next one, so it is reopened at once however often
  // that happens: no failure. Anything else that fails twice in a row waits.
  auto failed = [&](bool endOfFile) {
    if (endOfFile && fifo) return;
    if (++failures < 2) return;
    pause = NextRetryPause(pause);
    clock.Sleep(pause);
  };

  for (;;) {
    if (deviceFd < 0) openDevice();

    bool polling = true;
    while (polling) {
      polling = false;
      pollfd fds[2] = {{deviceFd, POLLIN, 0}, {stopFd_, POLLIN, 0}};
      const int ready = poll(fds, 2, kPollTimeoutMs);
      if (fds[1].revents != 0) {
        readerRunning = false;  // a stop asked for before the loop began
        break;
      }
      if (ready < 1) {
        const auto now = clock.Now();
        if (now - lastOuch > kOuchInterval) {
          lastOuch = now;
          (void)std::puts("Tallyvane polling ouch...");  // console only, as above
          (void)std::fflush(stdout);
        }
        break;
      }

      const ssize_t count = read(deviceFd, readBuffer, sizeof readBuffer);
      if (count < 0) {
        // A new writer of a FIFO can come between poll() and read(): then
        // there is nothing to read yet, which is no failure of the link.
        const bool nothingYet = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        const char* reason = std::strerror(errno);
        std::cerr << "read() EOD: ";
        if (reason != nullptr) {
          std::cerr << reason << '\n';
        } else {
          std::cerr.setstate(std::ios::badbit);
        }
        if (!nothingYet) failed(false);
      } else if (count == 0) {
        // The writer went away: carry on with a fresh descriptor, the old
        // one closed first, so that a link that keeps flapping cannot use
        // up the process's descriptors.
        Log::Error("Read 0 bytes");
        const int result = close(deviceFd);
        deviceFd = -1;
        if (!readerRunning) return result;
        failed(true);
        openDevice();
        polling = true;
      } else {
        failures = 0;
        pause = std::chrono::milliseconds(0);
        if (regular) mark.offset = lseek(deviceFd, 0, SEEK_CUR);
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

void Tallyvane::StopReader() {
  readerRunning = false;
  // The eventfd stays readable: a loop that has not reached its poll yet
  // stops there too.
  const std::uint64_t one = 1;
  if (stopFd_ >= 0 && write(stopFd_, &one, sizeof one) < 0) {
    // Only an overflow of the counter can fail, and then it is readable anyway.
  }
}

void Tallyvane::StartReaderThread() {
  if (readerThread_.joinable()) return;
  readerThread_ = std::thread([this] { RunReader(); });
}

void Tallyvane::StopReaderThread() {
  if (!readerThread_.joinable()) return;
  StopReader();
  readerThread_.join();
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
            packet, available, length,
            [&](const auto& report) { OnBlockReport(report.LastReceived(), report.Next()); });
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
  Wake();
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
  Wake();

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
  applySequence_ = static_cast<int>(apply.SequenceNumber() & 0xFF);
  Wake();
  Log::Debug(Colour::Green, "Tell UI, or whoever, that the update has completed!");
}

void Tallyvane::OnUpdateError() {
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    pendingPackets.clear();
  }
  ResetUpdateState();
  ++updateErrors_;
  Wake();
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
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    if (pendingPackets.empty()) return true;
    const auto found = std::find_if(pendingPackets.begin(), pendingPackets.end(),
                                    [sequence](const PendingPacket& p) { return p.sequence == sequence; });
    if (found == pendingPackets.end()) return false;
    const bool wasOnWire = found == pendingPackets.begin();
    pendingPackets.erase(found);
    // The next packet in line goes out as soon as the wire is free, instead
    // of waiting for its own time-out.
    if (concurrent_ && wasOnWire && !pendingPackets.empty()) {
      pendingPackets.front().sentAt = clock.Now();
      Transmit(pendingPackets.front().bytes);
    }
  }
  Wake();
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
  std::cout << "** Sending bytes from [" << block.BlockNum() << "] to [" << block.BlockNum() + data.size() - 1
            << "]" << '\n';
  blockReportReceived = 0;
  std::cout << "** Sending bytes from [blockNum()] to [" << data.size() - 1 << "]" << '\n';

  if (concurrent_) {
    // The board reports byte positions, so the last byte sent is what its
    // report is compared with. Set before the chunk leaves: the report may
    // come back before SendPacket() returns.
    const int lastByte = position + static_cast<int>(data.size()) - 1;
    std::cout << "Setting last sent byte to [" << lastByte << "]" << '\n';
    lastSentBlock = lastByte;
    return SendPacket(block);
  }
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
  if (concurrent_) return WaitForAckConcurrent();
  int status = 1;
  for (int attempt = 0; attempt < kAckAttempts; ++attempt) {
    status = AwaitBlockAck();
    if (status == 0) break;
  }
  return AfterAckWait(status);
}

int Tallyvane::AfterAckWait(int status) {
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
  Log::Debug(Colour::Green, "[",
             "uint16_t Updater::Helpers::Tallyvane::tallyvane_checksum(const char*, size_t)", "::", 542,
             "]  ");
  return static_cast<std::uint16_t>(256 - sum);
}

namespace {
std::uint16_t AddBytes(std::uint16_t sum, const char* data, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i)
    sum = static_cast<std::uint16_t>(sum + static_cast<unsigned char>(data[i]));
  return sum;
}
}  // namespace

std::uint16_t Tallyvane::tallyvane_checksum(const char* data, std::size_t length) {
  return ReportChecksum(length, AddBytes(0, data, length));
}

int Tallyvane::CheckForUpdate() {
  if (concurrent_) return CheckForUpdateConcurrent();
  VYRCam::RequestUpdateInfo request;
  SendPacket(request);

  int round = 0;
  for (; round < kUpdateInfoRounds && !haveUpdateInfo; ++round) clock.Sleep(kUpdateInfoPoll);
  if (round == kUpdateInfoRounds) {
    Log::Error("Error asking tallyvane for update info status, not updating");
    return 0;
  }

  Image::File image;
  if (!ReadPackage(image)) return 0;
  Announce();
  return 1;
}

bool Tallyvane::ReadPackage(Image::File& image) {
  const auto package = lc::QelArmControl::FilesystemFirmwarePackage(0);
  packageVersion = package.first;
  firmwarePath = package.second;
  if (packageVersion <= lc::QelArmControl::TallyvaneFirmwareVer()) return false;

  if (image.Open(firmwarePath) != Image::Opened::Yes) return false;
  const std::streamoff length = Image::Length(image);

  // Summed piece by piece: the same result as summing the whole image at
  // once, without holding it.
  std::uint16_t sum = 0;
  if (!Image::ReadInPieces(image, length,
                           [&](const char* data, std::size_t n) { sum = AddBytes(sum, data, n); }))
    return false;

  checksum_ = ReportChecksum(static_cast<std::size_t>(length), sum);
  imageSize_ = length;
  // The checksum is shown in hex and the stream is left that way: every
  // later number on standard output is hex too.
  std::cout << std::hex;
  Log::Debug(Colour::Green, "Checksum: [", checksum_, "]");
  std::cout << "This file [" << firmwarePath << "] contains [" << length << "] chunks of [" << packetSize
            << "]" << '\n';
  std::cout << "Sending version [" << packageVersion << "] with hash [" << checksum_ << "] in [" << length
            << "] chunks" << '\n';
  return true;
}

bool Tallyvane::HaveUpdateFile() {
  if (!firmwarePath.empty()) return true;
  std::cout << "No update file; can't update!" << '\n';
  return false;
}

int Tallyvane::GetFirstUpdateBlock() {
  if (concurrent_) return FirstPositionConcurrent();
  // No limit. Only the receive loop stores the board's position, so this
  // returns only while that loop runs on another thread.
  for (;;) {
    const int first = nextBlock;
    if (first != -1) return first;
    clock.Sleep(kFirstBlockPoll);
  }
}

int Tallyvane::SendFirmwareBlock(int position) {
  if (concurrent_) return SendFirmwareBlockConcurrent(position);
  if (packetSize < 1) {
    std::cerr << "Invalid chunk size: [" << packetSize << "], "
              << "can't update tallyvane firmware." << '\n';
    return 0;
  }

  // Opened afresh per chunk: the image may be replaced between updates and
  // a long-lived handle would keep reading the old one.
  Image::File image;
  if (image.Open(firmwarePath) != Image::Opened::Yes) return 0;
  const std::streamoff length = Image::Length(image);
  std::cout << "This block: [" << position << "], blockSize: [" << packetSize << "]" << '\n';

  const auto chunk = Image::ReadChunk(image, length, position, packetSize);
  if (!chunk) return 0;
  return SendBlock(position, *chunk) ? 1 : 0;
}

int Tallyvane::GetNextFirmwareBlock() { return nextBlock; }

// ---- the concurrent mode -----------------------------------------------------

void Tallyvane::Wake() {
  { const std::lock_guard<std::mutex> lock(wakeMutex_); }
  wake_.notify_all();
}

bool Tallyvane::AwaitLink(std::chrono::nanoseconds timeout, const std::function<bool()>& ready) {
  const auto end = clock.Monotonic() + timeout;
  std::unique_lock<std::mutex> lock(wakeMutex_);
  for (;;) {
    const auto now = clock.Monotonic();
    if (ready()) return true;
    if (now >= end) return false;
    const auto slice = std::min<std::chrono::nanoseconds>(end - now, std::chrono::milliseconds(ackTimeoutMs));
    if (clock.WaitFor(wake_, lock, slice, ready)) return true;
    lock.unlock();
    ResendExpired();  // a lost acknowledgement costs ackTimeoutMs, not the update
    lock.lock();
  }
}

bool Tallyvane::CompletedAndApplied() const {
  if (!updateCompleted || applySequence_ < 0) return false;
  std::lock_guard<std::mutex> lock(queueMutex);
  return pendingPackets.empty() || pendingPackets.front().sequence == applySequence_;
}

int Tallyvane::CheckForUpdateConcurrent() {
  // A lost answer is asked for again once a second, within the designed
  // time for the whole wait.
  bool informed = false;
  for (int round = 0; !informed && round < kUpdateInfoRounds * kUpdateInfoPoll / kReportTimeout; ++round) {
    if (PendingCount() == 0) {
      VYRCam::RequestUpdateInfo request;
      SendPacket(request);
    }
    informed = AwaitLink(kReportTimeout, [this] { return haveUpdateInfo != 0; });
  }
  if (!informed) {
    Log::Error("Error asking tallyvane for update info status, not updating");
    return 0;
  }

  // Every chunk is read through the descriptor kept here: an image renamed
  // over the file meanwhile cannot mix with the one whose checksum was announced.
  if (!ReadPackage(image_)) return 0;
  if (imageSize_ == 0) {
    // The board would complete at once, with nothing ever asked for.
    Log::Error("Firmware image [", firmwarePath, "] is empty; not updating");
    return 0;
  }
  errorsAtSend_ = updateErrors_;
  Announce();
  stall_.Progressed();  // the stall limit counts from the announcement
  return 1;
}

void Tallyvane::Announce() {
  VYRCam::UpdateAvailable announce(static_cast<std::uint16_t>(packageVersion), checksum_,
                                   static_cast<std::uint32_t>(imageSize_));
  SendPacket(announce);  // queued behind an unacknowledged packet, it leaves when the wire is free
}

int Tallyvane::FirstPositionConcurrent() {
  // The board answers the announcement with its first position. When that
  // answer is lost, the announcement goes out again.
  const auto refused = [this] { return updateErrors_ != errorsAtSend_; };
  while (!AwaitLink(std::min<std::chrono::nanoseconds>(kReportTimeout, stall_.TimeLeft()),
                    [&] { return nextBlock != -1 || refused(); })) {
    if (stall_.TimeLeft() <= std::chrono::nanoseconds::zero()) return -1;  // the send refuses it
    if (PendingCount() == 0) Announce();
  }
  if (refused()) {
    Log::Error("The board reported an update error; giving up the update");
    return -1;
  }
  firstPosition_ = nextBlock;
  return firstPosition_;
}

int Tallyvane::SendFirmwareBlockConcurrent(int position) {
  if (stall_.GivenUp(position)) return 0;
  if (position < 0 || packetSize < 1 || !image_.is_open()) return 0;
  // One packet awaiting its acknowledgement on the wire at a time: the
  // previous chunk's must be in (or it goes out again) before this one leaves.
  if (!AwaitLink(stall_.TimeLeft(), [this] { return PendingCount() == 0; })) {
    stall_.GivenUp(position);
    return 0;
  }
  std::cout << "This block: [" << position << "], blockSize: [" << packetSize << "]" << '\n';
  image_.clear();  // the last chunk read up to the end of the file
  auto chunk = Image::ReadChunk(image_, imageSize_, position, packetSize);
  if (!chunk) return 0;
  sentPosition_ = position;
  sentBytes_ = static_cast<int>(chunk->size());
  errorsAtSend_ = updateErrors_;
  return SendBlock(position, *chunk) ? 1 : 0;
}

bool Tallyvane::NoteProgress() {
  if (sentBytes_ <= 0 || imageSize_ <= 0) return false;
  // Measured from the board's first position, wrapping at the end, so that
  // a board that asks for the start of the image last still moves forward,
  // and one that asks for the same bytes again does not.
  const std::int64_t from = ((sentPosition_ - firstPosition_) % imageSize_ + imageSize_) % imageSize_;
  if (from + sentBytes_ <= traversed_) return false;
  traversed_ = from + sentBytes_;
  stall_.Progressed();
  return true;
}

int Tallyvane::WaitForAckConcurrent() {
  const auto errorReported = [this] { return updateErrors_ != errorsAtSend_; };
  // A report of the very bytes sent that names a next position; the one
  // naming none is followed by UpdateComplete, which is waited for.
  const auto reported = [this] { return lastAckedBlock == lastSentBlock && nextBlock != -1; };
  AwaitLink(std::min<std::chrono::nanoseconds>(kReportTimeout, stall_.TimeLeft()),
            [&] { return errorReported() || CompletedAndApplied() || reported(); });

  if (CompletedAndApplied()) {
    // The board's acknowledgement of ApplyUpdate says it has taken it; it
    // is waited for a while, but the update is complete either way.
    AwaitLink(std::chrono::milliseconds(ackTimeoutMs), [this] { return PendingCount() == 0; });
    NoteProgress();
    progress_.Report(imageSize_, imageSize_);
    std::cout << "Tallyvane ACK status: " << 3 << '\n';
    return 3;
  }
  if (errorReported()) {
    // The board has forgotten the update; no next position ends it.
    Log::Error("The board reported an update error; giving up the update");
    nextBlock = -1;
    std::cout << "Tallyvane ACK status: " << 0 << '\n';
    return 0;
  }
  if (reported()) {
    // A board that acknowledges without moving forward (an empty chunk, the
    // same bytes again) is answered ever more slowly, and after a few such
    // rounds the update is given up: it costs seconds, not the stall limit.
    if (!NoteProgress()) stall_.Idle();
    progress_.Report(std::min(imageSize_, firstPosition_ + traversed_), imageSize_);
    return AfterAckWait(0);
  }
  std::cout << "Last Acked: [" << lastAckedBlock.load() << "], last sent: [" << lastSentBlock.load() << "]"
            << '\n';
  std::cout << "Returning without firmware black ACK!" << '\n';
  return AfterAckWait(1);
}

// ---- inspection --------------------------------------------------------------

Tallyvane::LinkState Tallyvane::State() const {
  return LinkState{updateCompleted.load(), partialDlVer.load(),   downloadedBlocks.load(),
                   flashSector.load(),     haveUpdateInfo.load(), firstBlock.load(),
                   lastReceived.load(),    nextBlock.load(),      blockReportReceived.load(),
                   lastSentBlock.load(),   lastAckedBlock.load()};
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
