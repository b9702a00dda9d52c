// A datagram socket standing in for systemd's notification socket (NOTIFY_SOCKET=path). Like the service
// manager it reads as lines arrive, so a sender never finds its queue full. Take() returns what arrived since
// the last call.
#pragma once
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Updater::Testing {

class NotifySocket {
 public:
  explicit NotifySocket(std::string path) : path(std::move(path)) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, this->path.c_str(), sizeof address.sun_path - 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("bind " + this->path);
    reader_ = std::thread([this] {
      for (pollfd p{fd_, POLLIN, 0}; !stop_; p.revents = 0)
        if (poll(&p, 1, 20) > 0) Drain();
    });
  }
  ~NotifySocket() {
    stop_ = true;
    reader_.join();
    close(fd_);
    unlink(path.c_str());
  }
  std::vector<std::string> Take() {
    Drain();
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(messages_);  // and leaves it empty
  }
  const std::string path;

 private:
  void Drain() {
    std::lock_guard<std::mutex> lock(mutex_);
    char buffer[4096];
    for (ssize_t n; (n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;)
      messages_.emplace_back(buffer, n);
  }
  int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::mutex mutex_;
  std::vector<std::string> messages_;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

}  // namespace Updater::Testing
