// Shared pieces of the counter-link tests: board frames built with the real
// packet classes, a FIFO standing in for the downlink device, and scratch
// directories for images and version files.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "fake_clock.hpp"
#include "lc/downlink_frame.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Testing {

// 0xAA 0xA9 followed by the packed packet, as the board writes it.
inline std::vector<std::uint8_t> Frame(const VYRCam::Packet& packet) {
  std::vector<std::uint8_t> out{0xAA, 0xA9};
  out.resize(2 + static_cast<std::size_t>(packet.Length()));
  packet.Pack(out.data() + 2);
  return out;
}

inline std::vector<std::uint8_t> Concat(std::initializer_list<std::vector<std::uint8_t>> parts) {
  std::vector<std::uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "fwu-tallyvane-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline void WriteFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline void WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
}

inline void MakeFifo(const std::string& path) {
  if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed: " + path);
}

// One packet as the control library put it on the downlink.
struct SentPacket {
  int channel = -1;
  std::vector<std::uint8_t> bytes;  // the packed packet
  std::uint8_t Type() const { return bytes.size() > 1 ? bytes[1] : 0; }
  std::uint8_t Sequence() const { return bytes.size() > 2 ? bytes[2] : 0; }
};

// A FIFO in place of the downlink device. The control library is pointed at
// it through its environment variable; the read end stays open for the
// tap's lifetime so that every write lands here.
class DownlinkTap {
 public:
  explicit DownlinkTap(const TempDir& dir) : path_(dir / "downlink") {
    MakeFifo(path_);
    fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error("cannot open downlink FIFO");
    setenv("QUORVEX_TALLYVANE_DOWNLINK", path_.c_str(), 1);
  }
  ~DownlinkTap() {
    if (fd_ >= 0) close(fd_);
  }
  DownlinkTap(const DownlinkTap&) = delete;
  DownlinkTap& operator=(const DownlinkTap&) = delete;

  // Every frame written since the last call, in order.
  std::vector<SentPacket> Take() {
    std::uint8_t buf[4096];
    for (;;) {
      const ssize_t n = read(fd_, buf, sizeof buf);
      if (n > 0) {
        pending_.insert(pending_.end(), buf, buf + n);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      break;
    }
    std::vector<SentPacket> out;
    std::size_t at = 0;
    while (pending_.size() - at >= lc::kDownlinkHeaderBytes) {
      EXPECT_EQ(pending_[at], lc::kSync0);
      EXPECT_EQ(pending_[at + 1], lc::kSync1);
      const std::size_t count = pending_[at + 3] | (pending_[at + 4] << 8);
      if (pending_.size() - at < lc::kDownlinkHeaderBytes + count) break;
      SentPacket p;
      p.channel = pending_[at + 2];
      const auto* first = pending_.data() + at + lc::kDownlinkHeaderBytes;
      p.bytes.assign(first, first + count);
      out.push_back(std::move(p));
      at += lc::kDownlinkHeaderBytes + count;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(at));
    return out;
  }

 private:
  std::string path_;
  int fd_ = -1;
  std::vector<std::uint8_t> pending_;
};

// A fake clock that lets the test act as the board while the helper waits:
// `onSleep` runs before each sleep returns.
class ScriptedClock : public FakeClock {
 public:
  void Sleep(std::chrono::nanoseconds d) override {
    FakeClock::Sleep(d);
    if (onSleep) onSleep(Sleeps());
  }
  std::function<void(int sleepsSoFar)> onSleep;
};

// Tests share std::cout with a helper that leaves it in hexadecimal.
inline void ResetStreams() {
  std::cout << std::dec;
  std::cerr << std::dec;
  std::cout.clear();
  std::cerr.clear();
}

}  // namespace Updater::Testing
