// What every fuzz target shares: quiet logs, the fuzz data as a caller read
// function, a write function that takes everything, and a task run until its
// worker ends.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "Quorvel_AVFormat.h"

namespace qfuzz {

// FFmpeg's complaints about broken input are expected here, and slow.
inline void Quiet() { av_log_set_level(AV_LOG_QUIET); }

// Hands out the fuzz data as the input's byte stream, then the end of input.
struct ByteSource {
  const uint8_t* data;
  size_t size;
  size_t position = 0;

  static int Read(void* context, unsigned char* buffer, int size) {
    auto* source = static_cast<ByteSource*>(context);
    const size_t count = std::min(source->size - source->position, static_cast<size_t>(size));
    if (count == 0) return AVFORMAT_IO_EOF;
    std::memcpy(buffer, source->data + source->position, count);
    source->position += count;
    return static_cast<int>(count);
  }
};

inline int Discard(void*, unsigned char*, int size) { return size; }
inline void IgnoreProgress(void*, int, long long, double, void*) {}

// Waits until `status` reports that the worker has ended. A worker that never
// ends is a hang, which the fuzzer's own timeout reports.
inline void WaitForEnd(bool (*status)(void*, bool*), void* task) {
  bool running = true;
  while (status(task, &running) && running) std::this_thread::sleep_for(std::chrono::microseconds(100));
}

// A family whose worker reads one input (conversion, multiplexing).
struct Family {
  void* (*init)(AVFORMAT_PROGRESS_CALLBACK, void*);
  bool (*output)(void*, const char*, double, double, AVFORMAT_IO_FUNCTION, void*);
  bool (*input)(void*, const char*, AVFORMAT_IO_FUNCTION, void*);
  bool (*start)(void*);
  bool (*status)(void*, bool*);
  bool (*stop)(void*);
};

// Reads the fuzz data through the caller read function and writes `format`
// through the caller write function, until the worker ends. A started task
// has a progress callback: multiplexing requires one.
inline int RunWorker(const Family& family, const char* format, const uint8_t* data, size_t size) {
  Quiet();
  ByteSource source{data, size};
  void* task = family.init(IgnoreProgress, nullptr);
  if (task != nullptr && family.output(task, format, 0.0, 0.0, Discard, nullptr) &&
      family.input(task, nullptr, ByteSource::Read, &source) && family.start(task))
    WaitForEnd(family.status, task);
  family.stop(task);
  return 0;
}

}  // namespace qfuzz
