// A one-connection TCP server on the loopback address that sends some bytes
// and then goes silent with the connection still open, so that a reader
// blocks in its next read.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace qtest {

class SilentServer {
 public:
  explicit SilentServer(std::vector<uint8_t> bytes);
  ~SilentServer();
  std::string Url() const { return "tcp://127.0.0.1:" + std::to_string(port_); }

 private:
  int listener_ = -1, port_ = 0;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace qtest
