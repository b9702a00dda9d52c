#include "helpers/tallyvane/receive_loop.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "common/board_record.hpp"
#include "common/console.hpp"
#include "common/log.hpp"
#include "common/notify.hpp"
#include "common/record.hpp"
#include "lc/downlink_frame.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

namespace {

constexpr int kPollTimeoutMs = 1000;
// Silence on the link is normal between updates; one reminder every five
// seconds is enough to show the loop is alive.
constexpr std::chrono::nanoseconds kOuchInterval{5'000'999'999};
// A data path that fails again right after it was opened (a driver that
// answers every read with an error, /dev/null, an empty file, a directory)
// is tried again after a pause that doubles up to the poll time-out, not as
// fast as the processor allows.
constexpr auto kFirstRetryPause = std::chrono::milliseconds(10);
constexpr auto kLongestRetryPause = std::chrono::milliseconds(kPollTimeoutMs);

const char* const kGulp = "GULP; ignoring this frame's data";

std::chrono::milliseconds NextRetryPause(std::chrono::milliseconds pause) {
  return pause.count() == 0 ? kFirstRetryPause : std::min(2 * pause, kLongestRetryPause);
}

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

ReceiveLoop::ReceiveLoop(std::string devicePath, Clock& clock, FrameHandler& handler)
    : devicePath_(std::move(devicePath)),
      clock_(clock),
      handler_(handler),
      stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      drops_("the board's data device", clock, std::cerr) {}

ReceiveLoop::~ReceiveLoop() {
  if (stopFd_ >= 0) close(stopFd_);
}

// ---- the read loop -----------------------------------------------------------

int ReceiveLoop::RunReader() {
  lastOuch_ = clock_.Now();
  readerRunning = true;
  Notify("READY=1");  // the service manager: the board is being read from now on
  for (;;) {
    if (deviceFd < 0) OpenDevice();
    Turn turn = Turn::kPollAgain;
    while (turn == Turn::kPollAgain) turn = PollOnce();
    if (turn == Turn::kEnded || !readerRunning) drops_.Flush();
    if (turn == Turn::kEnded) return closeResult_;
    if (!readerRunning) return CloseDevice();
  }
}

void ReceiveLoop::StopReader() {
  readerRunning = false;
  // The eventfd stays readable: a loop that has not reached its poll yet
  // stops there too.
  const std::uint64_t one = 1;
  if (stopFd_ >= 0 && write(stopFd_, &one, sizeof one) < 0) {
    // Only an overflow of the counter can fail, and then it is readable anyway.
  }
}

void ReceiveLoop::OpenDevice() {
  deviceFd = open(devicePath_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat st {};
  fifo_ = regular_ = false;
  if (deviceFd >= 0 && fstat(deviceFd, &st) == 0) {
    fifo_ = S_ISFIFO(st.st_mode);
    regular_ = S_ISREG(st.st_mode);
    if (regular_ && st.st_dev == mark_.device && st.st_ino == mark_.inode && mark_.offset > 0)
      lseek(deviceFd, mark_.offset, SEEK_SET);
    if (regular_) mark_ = FileMark{st.st_dev, st.st_ino, mark_.offset};
  }
}

int ReceiveLoop::CloseDevice() {
  const int result = close(deviceFd);
  deviceFd = -1;
  return result;
}

// A FIFO's end-of-file means its writer left, and the reopened FIFO waits
// in poll() for the next one, so it is reopened at once however often
// that happens: no failure. Anything else that fails twice in a row waits.
void ReceiveLoop::Failed(bool endOfFile) {
  if (endOfFile && fifo_) return;
  if (++failures_ < 2) return;
  pause_ = NextRetryPause(pause_);
  clock_.Sleep(pause_);
}

ReceiveLoop::Turn ReceiveLoop::PollOnce() {
  pollfd fds[2] = {{deviceFd, POLLIN, 0}, {stopFd_, POLLIN, 0}};
  const int ready = poll(fds, 2, kPollTimeoutMs);
  if (fds[1].revents != 0) {
    readerRunning = false;  // a stop asked for before the loop began
    return Turn::kNextTurn;
  }
  if (ready < 1) {
    ReportSilence();
    return Turn::kNextTurn;
  }
  return HandleRead(read(deviceFd, readBuffer_, sizeof readBuffer_));
}

void ReceiveLoop::ReportSilence() {
  if (!Console::Detail()) {
    drops_.Add(0);  // a count left over from the last noise waits no longer than its gap
    return;
  }
  const auto now = clock_.Now();
  if (now - lastOuch_ <= kOuchInterval) return;
  lastOuch_ = now;
  (void)std::puts("Tallyvane polling ouch...");  // console only, as above
  (void)std::fflush(stdout);
}

ReceiveLoop::Turn ReceiveLoop::HandleRead(ssize_t count) {
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
    if (!nothingYet) Failed(false);
    return Turn::kNextTurn;
  }
  if (count == 0) {
    // The writer went away: carry on with a fresh descriptor, the old one
    // closed first, so that a link that keeps flapping cannot use up the
    // process's descriptors.
    Log::Error("Read 0 bytes");
    closeResult_ = CloseDevice();
    if (!readerRunning) return Turn::kEnded;
    Failed(true);
    OpenDevice();
    return Turn::kPollAgain;
  }
  failures_ = 0;
  pause_ = std::chrono::milliseconds(0);
  if (regular_) mark_.offset = lseek(deviceFd, 0, SEEK_CUR);
  Receive(readBuffer_, static_cast<std::size_t>(count));
  return Turn::kNextTurn;
}

// ---- the frame parser --------------------------------------------------------

void ReceiveLoop::Receive(const std::uint8_t* data, std::size_t count) {
  if (auto* recorder = Record::Active()) recorder->Exchange(Record::BoardReceived(data, count));
  rxBuffer.clear();
  rxBuffer.insert(rxBuffer.end(), data, data + count);
  ProcessReceived();
}

void ReceiveLoop::ProcessReceived() {
  const std::size_t size = rxBuffer.size();
  if (size < 3) return;
  if (!SyncAt(rxBuffer, 0)) {
    if (Console::Detail()) {
      std::cout << kGulp << '\n';
    } else {
      drops_.Add(size);
    }
    return;
  }

  std::size_t at = 0;  // where the current frame's sync bytes are
  std::string cells;
  while (size - at >= 3) {
    int length = 0;
    if (Dispatch(at, length) != 0) {
      if (cells.empty() && Console::Detail()) cells = HexCells(rxBuffer.data(), size);
      at = Resynchronise(at, cells);
      continue;
    }
    at += std::min(size - at, 2 + static_cast<std::size_t>(length));
    if (size - at < 3) break;
    if (!SyncAt(rxBuffer, at)) {
      if (Console::Detail()) {
        std::cout << kGulp << '\n';
      } else {
        drops_.Add(size - at);
      }
      break;
    }
  }
  rxBuffer.erase(rxBuffer.begin(), rxBuffer.begin() + static_cast<std::ptrdiff_t>(std::min(at, size)));
}

// A packet without sync bytes in front is not a frame, however well it would
// unpack. Every byte given up is shown, so a noisy link is easy to spot.
std::size_t ReceiveLoop::Resynchronise(std::size_t at, const std::string& cells) {
  const std::size_t size = rxBuffer.size();
  const std::size_t from = at;
  const bool shown = Console::Detail();
  do {
    if (shown) {
      WriteDump(cells.data() + 3 * at, 3 * (size - at));
      std::cout << "CHOKE" << '\n';
    }
    ++at;
  } while (at < size && !SyncAt(rxBuffer, at));
  if (!shown) drops_.Add(at - from);
  return at;
}

int ReceiveLoop::Dispatch(std::size_t at, int& length) {
  const std::size_t size = rxBuffer.size();
  // Three bytes can hold the sync and a length but no type; nothing can
  // unpack from that, so it is treated like a type we do not know.
  const int type = size - at > 3 ? rxBuffer[at + 3] : -1;
  const char* packet = reinterpret_cast<const char*>(rxBuffer.data() + at + 2);
  const std::size_t available = size - at - 2;
  FrameHandler& h = handler_;
  int result = -1;
  switch (type) {
    case VYRCam::kDatalinkPacketAck:
      result = UnpackAndHandle<VYRCam::DatalinkPacketAck>(packet, available, length,
                                                          [&](const auto& ack) { h.OnDatalinkAck(ack); });
      if (result != 0) syslog(LOG_ERR, "Failed to Unpack DataLink Packet ACK [%d]", result);
      break;
    case VYRCam::kUpdateInfo:
      result = UnpackAndHandle<VYRCam::UpdateInfo>(packet, available, length, [&](const auto& info) {
        h.OnUpdateInfo(info.PartialVersion(), info.DownloadedBlocks(), info.BlockSize(), info.FlashRegion());
      });
      if (result != 0) Log::Error("Failed to Unpack UpdateInfo [", result, "]");
      break;
    case VYRCam::kReceivedFirmwareBlock:
      result = UnpackAndHandle<VYRCam::ReceivedFirmwareBlock>(
          packet, available, length,
          [&](const auto& report) { h.OnBlockReport(report.LastReceived(), report.Next()); });
      if (result != 0) Log::Error("Failed to Unpack ReceivedFirmwareBlock [", result, "]");
      break;
    case VYRCam::kUpdateComplete:
      result = UnpackAndHandle<VYRCam::UpdateComplete>(packet, available, length,
                                                       [&](const auto&) { h.OnUpdateComplete(); });
      if (result != 0) Log::Error("Failed to Unpack UpdateComplete [", result, "]");
      break;
    case VYRCam::kUpdateError:
      result = UnpackAndHandle<VYRCam::UpdateError>(packet, available, length,
                                                    [&](const auto&) { h.OnUpdateError(); });
      if (result != 0) syslog(LOG_ERR, "Failed to Unpack UpdateError [%d]", result);
      break;
    default:
      break;
  }
  return result;
}

}  // namespace Updater::Helpers
