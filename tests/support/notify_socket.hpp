// A datagram socket standing in for systemd's notification socket: point
// NOTIFY_SOCKET at Path() and read what the service sent.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace Updater::Testing {

class NotifySocket {
 public:
  explicit NotifySocket(std::string path) : path_(std::move(path)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot bind " + path_);
  }
  ~NotifySocket() { close(fd_), unlink(path_.c_str()); }
  NotifySocket(const NotifySocket&) = delete;

  const std::string& Path() const { return path_; }
  // The messages that arrived since the last call, oldest first.
  std::vector<std::string> Take() {
    std::vector<std::string> messages;
    char buffer[4096];
    for (ssize_t n; (n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) messages.emplace_back(buffer, n);
    return messages;
  }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace Updater::Testing
