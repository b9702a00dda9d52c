// A datagram socket standing in for systemd's notification socket
// (NOTIFY_SOCKET=path). Take() returns what arrived since the last call.
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
  explicit NotifySocket(std::string path) : path(std::move(path)) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, this->path.c_str(), sizeof address.sun_path - 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) throw std::runtime_error("bind " + this->path);
  }
  ~NotifySocket() { close(fd_), unlink(path.c_str()); }
  std::vector<std::string> Take() {
    std::vector<std::string> messages;
    char buffer[4096];
    for (ssize_t n; (n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) messages.emplace_back(buffer, n);
    return messages;
  }
  const std::string path;

 private:
  int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

}  // namespace Updater::Testing
