#include "firmware_dir.hpp"

#include <dirent.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <memory>

namespace fwu::platform {

namespace {
constexpr const char* kDefaultFirmwareDir = "/lib/firmware/quorvex";
constexpr const char* kSuffix = ".bin";
}  // namespace

std::string FirmwareDirectory() {
  const char* dir = std::getenv("QUORVEX_FIRMWARE_DIR");
  return (dir != nullptr && *dir != '\0') ? std::string(dir) : std::string(kDefaultFirmwareDir);
}

int PackageVersionFromName(const std::string& name, const std::string& prefix) {
  const std::string suffix(kSuffix);
  if (name.size() <= prefix.size() + suffix.size()) return -1;
  if (name.compare(0, prefix.size(), prefix) != 0) return -1;
  if (name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) return -1;

  // Digits only: no sign, no blanks, so that "-1" or " 7" never pass as versions.
  long long value = 0;
  for (std::size_t i = prefix.size(); i < name.size() - suffix.size(); ++i) {
    const char c = name[i];
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
    if (value > INT_MAX) return -1;
  }
  return static_cast<int>(value);
}

std::pair<int, std::string> NewestPackage(const std::string& directory, const std::string& prefix) {
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(directory.c_str()), &closedir);
  if (!dir) return {-1, ""};

  int bestVersion = -1;
  std::string bestName;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name(entry->d_name);
    const int version = PackageVersionFromName(name, prefix);
    if (version < 0 || version < bestVersion) continue;
    // "007" and "7" name the same version; the choice between them must not
    // depend on the order readdir() happens to return.
    if (version == bestVersion && name >= bestName) continue;
    std::string path = directory;
    path.append("/").append(name);
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    bestVersion = version;
    bestName = name;
  }
  if (bestVersion < 0) return {-1, ""};
  return {bestVersion, directory + "/" + bestName};
}

}  // namespace fwu::platform
