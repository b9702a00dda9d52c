#include "helpers/camera/camera_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "common/file_trust.hpp"
#include "common/log.hpp"

namespace Updater::Helpers {

namespace {

constexpr const char* kDefaultLockDir = "/run/firmware-updater";
constexpr const char* kPrefix = "firmware-updater-camera-";
constexpr const char* kSuffix = ".lock";
constexpr auto kLockRetryPause = std::chrono::milliseconds(100);
constexpr auto kHalfSecond = std::chrono::milliseconds(500);

// FNV-1a, 64 bits: the same value for the same index in every build, unlike std::hash.
std::uint64_t Fnv1a64(const std::string& text) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash;
}

int Fail(int fd) {
  if (fd >= 0) close(fd);
  return -1;
}

}  // namespace

std::string CameraLockName(const std::string& cameraIndex) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  for (const unsigned char c : cameraIndex) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_') {
      escaped += static_cast<char>(c);
    } else {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 0xF];
    }
  }
  const std::size_t fixed = std::strlen(kPrefix) + std::strlen(kSuffix);
  if (fixed + escaped.size() <= NAME_MAX) return kPrefix + escaped + kSuffix;

  std::string hash(16, '0');
  for (std::uint64_t h = Fnv1a64(cameraIndex), i = 16; i-- > 0; h >>= 4) hash[i] = kHex[h & 0xF];
  std::size_t keep = NAME_MAX - fixed - 1 - hash.size();
  // No %XX cut in two: the name stays readable.
  const std::size_t escape = escaped.rfind('%', keep - 1);
  if (escape != std::string::npos && escape + 3 > keep) keep = escape;
  return kPrefix + escaped.substr(0, keep) + "+" + hash + kSuffix;
}

std::string CameraLockDirectory() {
  const char* dir = std::getenv("QUORVEX_LOCK_DIR");
  return (dir != nullptr && *dir != '\0') ? dir : kDefaultLockDir;
}

int TakeCameraLock(const std::string& cameraIndex, Clock& clock,
                   std::optional<Clock::steady_point> deadline) {
  const std::string dir = CameraLockDirectory();
  const std::string path = dir + "/" + CameraLockName(cameraIndex);
  if (mkdir(dir.c_str(), 0755) == 0) chmod(dir.c_str(), 0755);  // whatever the umask
  if (const auto why = Trust::DistrustDirectory(dir)) {
    Log::Error("Lock directory [", dir, "] is ", *why, "; not updating");
    return -1;
  }
  // Non-blocking, so that a FIFO in its place cannot hang the open; no link
  // followed out of the directory.
  const int fd =
      open(path.c_str(), O_RDONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0600);
  if (fd < 0) {
    Log::Error("Cannot open the lock file [", path, "]: ", std::strerror(errno), "; not updating");
    return -1;
  }
  struct stat st {};
  auto why = Trust::DistrustRegularFile(fd, st);
  if (!why && (st.st_mode & 077) != 0 && fchmod(fd, 0600) != 0) why = Trust::NotUsable();
  if (why) {
    Log::Error("Lock file [", path, "] is ", *why, "; not updating");
    return Fail(fd);
  }

  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
  std::cerr << "Waiting for another update of camera [" << cameraIndex << "] to finish" << std::endl;
  const auto start = clock.Monotonic();
  for (;;) {
    int locked;
    if (!deadline) {
      while ((locked = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
      }
    } else {
      const auto now = clock.Monotonic();
      if (now >= *deadline) {
        // Rounded: the deadline was set a moment before the wait began, so
        // the wait itself falls a hair short of the limit it ran out.
        const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - start + kHalfSecond);
        Log::Error("Another update of camera [", cameraIndex, "] has held the lock for ",
                   std::to_string(waited.count()), " s; not updating");
        return Fail(fd);
      }
      clock.Sleep(std::min<std::chrono::nanoseconds>(kLockRetryPause, *deadline - now));
      locked = flock(fd, LOCK_EX | LOCK_NB);
      if (locked != 0 && (errno == EWOULDBLOCK || errno == EINTR)) continue;
    }
    if (locked == 0) return fd;
    Log::Error("Cannot lock [", path, "]: ", std::strerror(errno), "; not updating");
    return Fail(fd);
  }
}

}  // namespace Updater::Helpers
