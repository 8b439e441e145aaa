#include "support/server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qtest {

SilentServer::SilentServer(std::vector<uint8_t> bytes) : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
  listen(listener_, 1);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this, bytes = std::move(bytes)] {
    pollfd waiting{listener_, POLLIN, 0};
    while (!done_ && poll(&waiting, 1, 50) == 0) {
    }
    if (done_) return;
    const int connection = accept(listener_, nullptr, nullptr);
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    while (!done_) usleep(20000);  // silent, with the connection open, until the test ends
    close(connection);
  });
}

SilentServer::~SilentServer() {
  done_ = true;
  thread_.join();
  close(listener_);
}

}  // namespace qtest
