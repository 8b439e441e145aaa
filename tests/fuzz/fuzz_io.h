// What every fuzz target shares: the fuzz data as a caller read function, a
// write function that takes everything, and waiting for a worker's end.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "Quorvel_AVFormat.h"

namespace qfuzz {

// Hands out the fuzz data as the input's byte stream, then the end of input.
struct ByteSource {
  const uint8_t* data;
  size_t size;
  size_t position = 0;

  static int Read(void* context, unsigned char* buffer, int size) {
    auto* source = static_cast<ByteSource*>(context);
    const size_t left = source->size - source->position;
    if (left == 0) return AVFORMAT_IO_EOF;
    const size_t count = left < static_cast<size_t>(size) ? left : static_cast<size_t>(size);
    std::memcpy(buffer, source->data + source->position, count);
    source->position += count;
    return static_cast<int>(count);
  }
};

// Accepts and forgets whatever a muxer writes.
inline int Discard(void*, unsigned char*, int size) {
  return size;
}

inline void IgnoreProgress(void*, int, long long, double, void*) {}

// Waits until `get_status` reports that the task's worker has ended. A worker
// that never ends is a hang, which the fuzzer's own timeout reports.
inline void WaitForEnd(bool (*get_status)(void*, bool*), void* task) {
  bool running = true;
  while (get_status(task, &running) && running) std::this_thread::sleep_for(std::chrono::microseconds(100));
}

// FFmpeg's complaints about broken input are expected here, and slow.
inline void Quiet() {
  av_log_set_level(AV_LOG_QUIET);
}

}  // namespace qfuzz
