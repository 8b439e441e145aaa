#include "support/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qtest {

SilentServer::SilentServer(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {
  listener_ = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  listen(listener_, 1);
  socklen_t length = sizeof address;
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

SilentServer::~SilentServer() {
  done_ = true;
  thread_.join();
  close(listener_);
}

std::string SilentServer::Url() const { return "tcp://127.0.0.1:" + std::to_string(port_); }

void SilentServer::Serve() {
  pollfd waiting{listener_, POLLIN, 0};
  while (!done_ && poll(&waiting, 1, 50) == 0) {
  }
  if (done_) return;
  const int connection = accept(listener_, nullptr, nullptr);
  size_t sent = 0;
  while (sent < bytes_.size()) {
    const ssize_t n = send(connection, bytes_.data() + sent, bytes_.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  // Silent from here on, with the connection open, until the test ends.
  while (!done_) usleep(20000);
  close(connection);
}

}  // namespace qtest
