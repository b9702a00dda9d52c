// The chunk size both targets adapt after every acknowledgement wait: halved
// after a loss, down to 1, and doubled after a delivery while below 64. From
// the 64 every update starts with it stays a power of two between 1 and 64;
// a size that is none (63, say) may double past 64, and then stays there.
//
// Pure functions: callable from any thread.
#pragma once

namespace Updater::ChunkSize {

inline constexpr int kLargest = 64;

constexpr int AfterDelivery(int size) { return size < kLargest ? 2 * size : size; }
constexpr int AfterLoss(int size) { return size > 1 ? size / 2 : size; }

}  // namespace Updater::ChunkSize
