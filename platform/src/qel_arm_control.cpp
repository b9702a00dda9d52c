#include "lc/qel_arm_control.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "common/log.hpp"
#include "firmware_dir.hpp"
#include "lc/downlink_frame.hpp"

namespace lc {

namespace {

constexpr const char* kDefaultDataPath = "/dev/arm-tallyvane-data";
constexpr const char* kDefaultDownlinkPath = "/dev/arm-tallyvane-ctl";
constexpr const char* kDefaultVersionFile = "/run/tallyvane/firmware-version";
// Long enough for a busy reader to drain a pipe, short enough that the update
// thread and the receive thread never stall on each other for long.
constexpr int kWriteTimeoutMs = 250;

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return (value != nullptr && *value != '\0') ? std::string(value) : std::string(fallback);
}

// The downlink descriptor is shared by every caller in the process.
struct Downlink {
  std::mutex mutex;
  int fd = -1;
  std::string path;  // what `fd` was opened on

  void Close() {
    if (fd >= 0) close(fd);
    fd = -1;
    path.clear();
  }
};

// Never destroyed: a receive thread that sends while the process exits must
// not find it torn down.
Downlink& TheDownlink() {
  static Downlink& link = *new Downlink;
  return link;
}

// A write into a pipe whose reader has gone raises SIGPIPE, which would end
// the whole updater. Keep it blocked for this thread during the write and
// swallow one that the write itself caused.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipeSet_, &oldMask_);
  }
  ~SigpipeGuard() {
    if (raised_ && !wasPending_) {
      const timespec zero{0, 0};
      while (sigtimedwait(&pipeSet_, nullptr, &zero) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
  }
  void Raised() { raised_ = true; }

 private:
  sigset_t pipeSet_{};
  sigset_t oldMask_{};
  bool wasPending_ = false;
  bool raised_ = false;
};

// Whether what `fd` was opened on is of the kind `wanted` names; a red error
// naming `subject` and `path` when it is not.
bool IsKind(int fd, bool (*wanted)(mode_t), const char* subject, const std::string& path, const char* what) {
  struct stat st {};
  if (fstat(fd, &st) == 0 && wanted(st.st_mode)) return true;
  Updater::Log::Error(subject, " [", path, "] is not ", what);
  return false;
}

bool DeviceOrFifo(mode_t mode) { return S_ISCHR(mode) || S_ISFIFO(mode); }
bool RegularFile(mode_t mode) { return S_ISREG(mode); }

}  // namespace

std::size_t WriteWithin(int fd, const std::uint8_t* data, std::size_t size, std::chrono::milliseconds limit) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + limit;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) break;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) break;
    pollfd pfd{fd, POLLOUT, 0};
    const int ready = poll(&pfd, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0 && (pfd.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) break;
  }
  return done;
}

std::vector<std::uint8_t> EncodeDownlinkFrame(int channel, const std::uint8_t* bytes, std::size_t count) {
  if (channel < 0 || channel > 0xFF || count == 0 || count > kMaxDownlinkPayload || bytes == nullptr) {
    return {};
  }
  std::vector<std::uint8_t> frame;
  frame.reserve(kDownlinkHeaderBytes + count);
  frame.push_back(kSync0);
  frame.push_back(kSync1);
  frame.push_back(static_cast<std::uint8_t>(channel));
  frame.push_back(static_cast<std::uint8_t>(count & 0xFF));
  frame.push_back(static_cast<std::uint8_t>(count >> 8));
  frame.insert(frame.end(), bytes, bytes + count);
  return frame;
}

std::string DataDevicePath() { return EnvOr("QUORVEX_TALLYVANE_DATA", kDefaultDataPath); }

std::string DownlinkDevicePath() { return EnvOr("QUORVEX_TALLYVANE_DOWNLINK", kDefaultDownlinkPath); }

std::string FirmwareVersionFilePath() {
  return EnvOr("QUORVEX_TALLYVANE_VERSION_FILE", kDefaultVersionFile);
}

int QelArmControl::Send_Dl_Us_Raw(int channel, const std::uint8_t* bytes, std::size_t count) {
  const std::vector<std::uint8_t> frame = EncodeDownlinkFrame(channel, bytes, count);
  if (frame.empty()) return 0;

  Downlink& link = TheDownlink();
  std::lock_guard<std::mutex> lock(link.mutex);
  const std::string path = DownlinkDevicePath();
  if (link.fd >= 0 && link.path != path) link.Close();
  if (link.fd < 0) {
    // Non-blocking: a FIFO without a reader fails with ENXIO at once instead
    // of waiting for one.
    link.fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (link.fd < 0) return 0;
    link.path = path;
    // A plain file there would swallow every frame and never answer.
    if (!IsKind(link.fd, DeviceOrFifo, "The board downlink", path, "a character device or FIFO")) {
      link.Close();
      return 0;
    }
  }

  SigpipeGuard guard;
  if (WriteWithin(link.fd, frame.data(), frame.size(), std::chrono::milliseconds(kWriteTimeoutMs)) !=
      frame.size()) {
    if (errno == EPIPE) guard.Raised();
    // The reader may have gone, or a frame may be half written: start afresh
    // on the next call rather than appending to a broken stream.
    link.Close();
    return 0;
  }
  return 1;
}

int QelArmControl::TallyvaneFirmwareVer() {
  const std::string path = FirmwareVersionFilePath();
  // Non-blocking so that a FIFO or a stuck device in its place cannot hang us.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (!IsKind(fd, RegularFile, "The board version file", path, "a regular file")) {
    close(fd);
    return -1;
  }
  char text[64];
  std::size_t used = 0;
  while (used < sizeof text) {
    const ssize_t n = read(fd, text + used, sizeof text - used);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    used += static_cast<std::size_t>(n);
  }
  close(fd);
  if (used == sizeof text) return -1;  // no version is that long

  // One decimal number, blanks and line ends around it allowed.
  std::size_t i = 0;
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (i < used && blank(text[i])) ++i;
  long long value = 0;
  std::size_t digits = 0;
  for (; i < used && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
    value = value * 10 + (text[i] - '0');
    if (value > INT_MAX) return -1;
  }
  while (i < used && blank(text[i])) ++i;
  if (digits == 0 || i != used) return -1;
  return static_cast<int>(value);
}

std::pair<int, std::string> QelArmControl::FilesystemFirmwarePackage(int which) {
  // The board has one flashable image; other selectors are reserved.
  if (which != 0) return {-1, ""};
  return fwu::platform::NewestPackage(fwu::platform::FirmwareDirectory(), "tallyvane-");
}

}  // namespace lc
