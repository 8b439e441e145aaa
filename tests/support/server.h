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
  // "tcp://127.0.0.1:<port>"
  std::string Url() const;

 private:
  void Serve();
  std::vector<uint8_t> bytes_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace qtest
