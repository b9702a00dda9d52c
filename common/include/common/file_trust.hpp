// Who else could have written a file the updater acts on.
//
// The updater runs as root and flashes whatever package it finds, and it
// waits for whoever holds a camera's lock. A file or directory that another
// local user owns, or that group or others may write, lets that user choose
// the firmware or block the update, so such files are refused, the way
// OpenSSH's StrictModes refuses a key file.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace Updater::Trust {

// Why `st` is not trusted: "owned by user <uid>" when its owner is neither
// root nor this process's effective user, "writable by group or others";
// nullopt when it is trusted.
std::optional<std::string> Distrust(const struct stat& st);

// The same for the directory `path` names (a link followed), adding "not a
// directory" and NotUsable() for a failed open or fstat(). `fd` is left
// holding a descriptor (O_PATH) of it when it is trusted, -1 otherwise, so
// that files are then looked up in the very directory that was checked.
std::optional<std::string> OpenTrustedDirectory(const std::string& path, int& fd);

// OpenTrustedDirectory() for a check alone.
std::optional<std::string> DistrustDirectory(const std::string& path);

// The same for the open file `fd` (its status left in `st`), adding "not a
// regular file" and NotUsable() for a failed fstat().
std::optional<std::string> DistrustRegularFile(int fd, struct stat& st);

// "not usable: " and errno's text, the reason for a call that failed.
std::string NotUsable();

// The directory part of `path` ("." when it has none).
std::string DirectoryOf(const std::string& path);

}  // namespace Updater::Trust
