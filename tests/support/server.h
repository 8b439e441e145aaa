// SPDX-License-Identifier: MIT
// A one-connection TCP server on the loopback address that sends some bytes
// and then goes silent with the connection still open, so that a reader
// blocks in its next read.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace qtest {

class SilentServer {
 public:
  explicit SilentServer(std::vector<uint8_t> bytes) : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 1);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    url_ = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this, bytes = std::move(bytes)] {
      for (pollfd waiting{listener_, POLLIN, 0}; !done_ && poll(&waiting, 1, 50) == 0;) continue;
      const int connection = done_ ? -1 : accept(listener_, nullptr, nullptr);
      for (size_t sent = 0, n = 1; connection >= 0 && sent < bytes.size() && n > 0; sent += n)
        n = std::max<ssize_t>(send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL), 0);
      while (!done_) usleep(20000);  // silent, with the connection open, until the test ends
      close(connection);
    });
  }
  ~SilentServer() {
    done_ = true;
    thread_.join();
    close(listener_);
  }
  const std::string& Url() const { return url_; }

 private:
  const int listener_;
  std::string url_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace qtest
