// Which bytes of the announced image the board has acknowledged, so that the
// update is complete only when every one of them is: a board that says it is
// done early, or a stray completion frame, must not get ApplyUpdate for an
// image it does not hold.
//
// Not thread-safe: the update thread alone owns it.
#pragma once

#include <cstdint>
#include <map>

namespace Updater::Helpers {

class AcknowledgedImage {
 public:
  // Update thread. An image of `size` bytes of which none is acknowledged.
  explicit AcknowledgedImage(std::int64_t size = 0) : size_(size < 0 ? 0 : size) {}

  // Update thread. The board acknowledged the `count` bytes from `from` on.
  // Bytes outside the image are no part of it and count for nothing; bytes
  // acknowledged before count once.
  void Add(std::int64_t from, std::int64_t count);
  // Update thread. The board's update information: it holds the first
  // `blocks` blocks of `blockSize` bytes of a partial download of version
  // `partialVersion` (0: of none). Those count as acknowledged when it is
  // the version announced. The counts are the update information's (32 and
  // 8 bits wide), whose product cannot overflow.
  void AddPartialDownload(std::uint16_t partialVersion, std::uint16_t announcedVersion, std::int64_t blocks,
                          int blockSize);

  // Update thread.
  std::int64_t Size() const { return size_; }
  std::int64_t Covered() const { return covered_; }
  bool Whole() const { return covered_ == size_; }
  // Update thread. The first byte not acknowledged; Size() when none is.
  std::int64_t FirstMissing() const;
  // Update thread. Whether the byte at `position` is acknowledged.
  bool Holds(std::int64_t position) const;

 private:
  std::int64_t size_;
  std::int64_t covered_ = 0;
  std::map<std::int64_t, std::int64_t> ranges_;  // start -> end (exclusive); apart, not even touching
};

}  // namespace Updater::Helpers
