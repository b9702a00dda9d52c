// One run per camera at a time: an exclusive flock() on a file per camera
// index, in a directory only root or the updater's own user can write, so
// that no other local user can take a camera's lock first.
#pragma once

#include <optional>
#include <string>

#include "common/clock.hpp"

namespace Updater::Helpers {

// "firmware-updater-camera-<index>.lock", the index's bytes other than
// letters, digits, '-' and '_' written as %XX, so that two indexes never
// share a lock and none reaches outside the lock directory. A name that
// would exceed NAME_MAX keeps the escaped index's first bytes and ends in
// "+" and the 64-bit FNV-1a hash of the whole index in hex: '+' is never
// part of an escaped index, so such a name cannot be a shorter index's.
std::string CameraLockName(const std::string& cameraIndex);

// $QUORVEX_LOCK_DIR when set and not empty, else /run/firmware-updater.
std::string CameraLockDirectory();

// Takes the lock of `cameraIndex`, making its directory (mode 0755) if
// absent. While another run holds it, tries again every 100 ms up to
// `deadline` (without one, waits as long as it takes). Returns the
// descriptor that holds the lock, or -1 after a red error: a directory
// another user could have written, a lock file that is no regular file, or
// a wait that reached the deadline. Whoever can open a lock file can lock
// it, so one that others could open or another user owns is replaced by a
// fresh 0600 file renamed over it, and the lock is taken anew when another
// run replaced the file while this one waited.
int TakeCameraLock(const std::string& cameraIndex, Clock& clock, std::optional<Clock::steady_point> deadline);

}  // namespace Updater::Helpers
