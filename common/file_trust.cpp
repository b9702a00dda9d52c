#include "common/file_trust.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Updater::Trust {

std::string NotUsable() { return std::string("not usable: ") + std::strerror(errno); }

std::optional<std::string> Distrust(const struct stat& st) {
  if (st.st_uid != 0 && st.st_uid != geteuid()) return "owned by user " + std::to_string(st.st_uid);
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return std::string("writable by group or others");
  return std::nullopt;
}

std::optional<std::string> OpenTrustedDirectory(const std::string& path, int& fd) {
  // O_PATH: nothing is read, and whatever sits there opens without side effects.
  fd = open(path.c_str(), O_PATH | O_CLOEXEC);
  struct stat st {};
  std::optional<std::string> why;
  if (fd < 0 || fstat(fd, &st) != 0) {
    why = NotUsable();
  } else if (!S_ISDIR(st.st_mode)) {
    why = "not a directory";
  } else {
    why = Distrust(st);
  }
  if (why && fd >= 0) {
    close(fd);
    fd = -1;
  }
  return why;
}

std::optional<std::string> DistrustDirectory(const std::string& path) {
  int fd = -1;
  auto why = OpenTrustedDirectory(path, fd);
  if (fd >= 0) close(fd);
  return why;
}

std::optional<std::string> DistrustRegularFile(int fd, struct stat& st) {
  if (fstat(fd, &st) != 0) return NotUsable();
  if (!S_ISREG(st.st_mode)) return std::string("not a regular file");
  return Distrust(st);
}

std::string DirectoryOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace Updater::Trust
