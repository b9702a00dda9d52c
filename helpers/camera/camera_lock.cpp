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
#include <utility>

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

// Waits for the lock on `fd` that another run holds, trying again every
// 100 ms up to `deadline`. False after a red error.
bool WaitForLock(int fd, const std::string& cameraIndex, const std::string& path, Clock& clock,
                 Clock::steady_point start, std::optional<Clock::steady_point> deadline) {
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
        return false;
      }
      clock.Sleep(std::min<std::chrono::nanoseconds>(kLockRetryPause, *deadline - now));
      locked = flock(fd, LOCK_EX | LOCK_NB);
      if (locked != 0 && (errno == EWOULDBLOCK || errno == EINTR)) continue;
    }
    if (locked == 0) return true;
    Log::Error("Cannot lock [", path, "]: ", std::strerror(errno), "; not updating");
    return false;
  }
}

// A fresh owner-only file, made beside the lock file and renamed over it.
int ReplaceLockFile(const std::string& dir, const std::string& path) {
  std::string fresh = dir + "/.firmware-updater-lock-XXXXXX";
  const int fd = mkostemp(fresh.data(), O_CLOEXEC);
  if (fd >= 0 && rename(fresh.c_str(), path.c_str()) == 0) return fd;
  Log::Error("Cannot replace the lock file [", path, "]: ", std::strerror(errno), "; not updating");
  if (fd >= 0) unlink(fresh.c_str());
  return Fail(fd);
}

// The lock file, open. Non-blocking, so that a FIFO in its place cannot hang
// the open; no link followed out of the directory. One that others could
// open, or that another user owns, is not reused but replaced: whoever opened
// it before (an older release made it readable by all) may hold a lock on it
// still, and holds nothing on the file that replaces it.
int OpenLockFile(const std::string& dir, const std::string& path) {
  const int fd =
      open(path.c_str(), O_RDONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0600);
  if (fd < 0) {
    Log::Error("Cannot open the lock file [", path, "]: ", std::strerror(errno), "; not updating");
    return -1;
  }
  struct stat st {};
  const auto why = Trust::DistrustRegularFile(fd, st);
  if (!S_ISREG(st.st_mode)) {  // also when fstat() failed
    Log::Error("Lock file [", path, "] is ", *why, "; not updating");
    return Fail(fd);
  }
  if (!why && (st.st_mode & 077) == 0) return fd;
  close(fd);
  return ReplaceLockFile(dir, path);
}

// Whether `path` still names the file open as `fd`: a run that replaced it
// meanwhile holds the lock of the file there now.
bool StillAt(const std::string& path, int fd) {
  struct stat held {};
  struct stat named {};
  return fstat(fd, &held) == 0 && lstat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
         held.st_ino == named.st_ino;
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
  const auto start = clock.Monotonic();
  bool told = false;
  for (;;) {
    const int fd = OpenLockFile(dir, path);
    if (fd < 0) return -1;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (!std::exchange(told, true))
        std::cerr << "Waiting for another update of camera [" << cameraIndex << "] to finish" << std::endl;
      if (!WaitForLock(fd, cameraIndex, path, clock, start, deadline)) return Fail(fd);
    }
    if (StillAt(path, fd)) return fd;
    close(fd);
  }
}

}  // namespace Updater::Helpers
