// What a caller of the library brings: progress callbacks that record what
// they are told, read and write functions over memory, and waiting for a task.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Quorvel_AVFormat.h"

namespace qtest {

// Records every progress call; pass Record as the callback and the log as its context.
struct ProgressLog {
  struct Call {
    void* reserved;
    int type;
    long long number;
    double seconds;
  };
  static void Record(void* reserved, int type, long long number, double seconds, void* context);
  std::vector<Call> Calls() const;
  size_t Count() const;

 private:
  mutable std::mutex lock_;
  std::vector<Call> calls_;
};

// A caller read function over bytes in memory. With fail_after set, it
// delivers that many bytes and then fails with `failure`.
struct MemoryReader {
  explicit MemoryReader(std::vector<uint8_t> bytes) : data(std::move(bytes)) {}
  static int Read(void* context, unsigned char* buffer, int size);
  std::vector<uint8_t> data;
  size_t position = 0;
  long long fail_after = -1;
  int failure = AVFORMAT_IO_EOF;
  std::atomic<int> calls{0};
};

// A caller write function that collects the bytes; with fail_after set it
// accepts that many bytes and then fails.
struct MemoryWriter {
  static int Write(void* context, unsigned char* buffer, int size);
  std::vector<uint8_t> data;
  long long fail_after = -1;
  std::atomic<int> calls{0};
};

// Polls `done` until it holds or `timeout` passes; returns whether it held.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(30));

// The error state right after a call, as one value for assertions.
struct ErrorState {
  bool occurred;
  uint64_t code;
  bool operator==(const ErrorState& other) const { return occurred == other.occurred && code == other.code; }
};
ErrorState LastError();
std::string ToString(const ErrorState& state);

}  // namespace qtest
