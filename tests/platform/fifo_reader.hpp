// Test side of a FIFO: the reading end, with every read bounded in time.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace fwu::testing {

class FifoReader {
 public:
  explicit FifoReader(std::string path) : path_(std::move(path)) {
    if (mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + path_);
    fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd_ < 0) throw std::runtime_error("open " + path_);
  }
  ~FifoReader() { Close(); }
  FifoReader(const FifoReader&) = delete;
  FifoReader& operator=(const FifoReader&) = delete;

  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  const std::string& path() const { return path_; }

  // Reads until `count` bytes have arrived or `timeout` has passed.
  std::vector<std::uint8_t> Read(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    std::vector<std::uint8_t> got;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (got.size() < count) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      pollfd pfd{fd_, POLLIN, 0};
      if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
      std::uint8_t buf[4096];
      const ssize_t n = read(fd_, buf, std::min(sizeof buf, count - got.size()));
      if (n > 0) {
        got.insert(got.end(), buf, buf + n);
      } else if (n == 0) {
        // No writer at the moment; wait a little for one.
        poll(nullptr, 0, 5);
      }
    }
    return got;
  }

  // Whatever is in the pipe right now.
  std::vector<std::uint8_t> Drain() { return Read(SIZE_MAX, std::chrono::milliseconds(50)); }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace fwu::testing
