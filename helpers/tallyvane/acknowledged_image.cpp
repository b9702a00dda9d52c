#include "helpers/tallyvane/acknowledged_image.hpp"

#include <algorithm>
#include <iterator>

namespace Updater::Helpers {

void AcknowledgedImage::Add(std::int64_t from, std::int64_t count) {
  if (count <= 0 || from >= size_ || from + count <= 0) return;
  std::int64_t start = std::max<std::int64_t>(from, 0);
  std::int64_t end = std::min(from + count, size_);

  // Every range that overlaps or touches [start, end) is merged into it.
  auto at = ranges_.upper_bound(start);
  if (at != ranges_.begin() && std::prev(at)->second >= start) --at;
  while (at != ranges_.end() && at->first <= end) {
    start = std::min(start, at->first);
    end = std::max(end, at->second);
    covered_ -= at->second - at->first;
    at = ranges_.erase(at);
  }
  ranges_.emplace(start, end);
  covered_ += end - start;
}

void AcknowledgedImage::AddPartialDownload(std::uint16_t partialVersion, std::uint16_t announcedVersion,
                                           std::int64_t blocks, int blockSize) {
  if (partialVersion == 0 || partialVersion != announcedVersion || blocks <= 0 || blockSize <= 0) return;
  Add(0, blocks * blockSize);
}

std::int64_t AcknowledgedImage::FirstMissing() const {
  // Ranges never touch, so the first one ends where the first gap starts.
  if (ranges_.empty() || ranges_.begin()->first > 0) return 0;
  return ranges_.begin()->second;
}

bool AcknowledgedImage::Holds(std::int64_t position) const {
  auto after = ranges_.upper_bound(position);
  return after != ranges_.begin() && std::prev(after)->second > position;
}

}  // namespace Updater::Helpers
