// SPDX-License-Identifier: MIT
// What a caller of the library brings: progress callbacks that record what
// they are told, read and write functions over memory, and waiting for a task.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Quorvel_AVFormat.h"

namespace qtest {

// Records every progress call; pass Record as the callback and the log as its context.
class ProgressLog {
 public:
  struct Call {
    void* reserved;
    int type;
    long long number;
    double seconds;
  };
  static void Record(void* reserved, int type, long long number, double seconds, void* context) {
    auto* log = static_cast<ProgressLog*>(context);
    std::lock_guard<std::mutex> guard(log->lock_);
    log->calls_.push_back(Call{reserved, type, number, seconds});
  }
  std::vector<Call> Calls() const {
    std::lock_guard<std::mutex> guard(lock_);
    return calls_;
  }
  size_t Count() const { return Calls().size(); }

 private:
  mutable std::mutex lock_;
  std::vector<Call> calls_;
};

// A caller read function over bytes in memory. With fail_after set, it
// delivers that many bytes and then fails with `failure`.
struct MemoryReader {
  explicit MemoryReader(std::vector<uint8_t> bytes) : data(std::move(bytes)) {}
  static int Read(void* context, unsigned char* buffer, int size) {
    auto* r = static_cast<MemoryReader*>(context);
    ++r->calls;
    const size_t end = r->fail_after < 0 ? r->data.size() : std::min(r->data.size(), size_t(r->fail_after));
    if (r->fail_after >= 0 && r->position >= size_t(r->fail_after)) return r->failure;
    const size_t count = std::min(end - r->position, static_cast<size_t>(size));
    if (count == 0) return AVFORMAT_IO_EOF;
    std::memcpy(buffer, r->data.data() + r->position, count);
    r->position += count;
    return static_cast<int>(count);
  }
  std::vector<uint8_t> data;
  size_t position = 0;
  long long fail_after = -1;
  int failure = AVFORMAT_IO_EOF;
  std::atomic<int> calls{0};
};

// A caller write function that collects the bytes; with fail_after set it
// accepts that many bytes and then fails with EIO.
struct MemoryWriter {
  static int Write(void* context, unsigned char* buffer, int size) {
    auto* w = static_cast<MemoryWriter*>(context);
    ++w->calls;
    if (w->fail_after >= 0 && static_cast<long long>(w->data.size() + size) > w->fail_after) return -5;
    w->data.insert(w->data.end(), buffer, buffer + size);
    return size;
  }
  std::vector<uint8_t> data;
  long long fail_after = -1;
  std::atomic<int> calls{0};
};

// Polls `done` until it holds or `timeout` passes; returns whether it held.
inline bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(5)))
    if (std::chrono::steady_clock::now() > deadline) return false;
  return true;
}

// The error state right after a call, as one value for assertions.
struct ErrorState {
  bool occurred;
  uint64_t code;
  bool operator==(const ErrorState& o) const { return occurred == o.occurred && code == o.code; }
};
inline ErrorState LastError() {
  return ErrorState{AVForamt_IsErrorOccur, AVFormat_GetLastError(nullptr)};
}
inline std::string ToString(const ErrorState& state) {
  return "{occurred=" + std::to_string(state.occurred) + ", code=" + std::to_string(state.code) + "}";
}

}  // namespace qtest
