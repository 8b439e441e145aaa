// SPDX-License-Identifier: MIT
// What every fuzz target shares: quiet logs (FFmpeg's complaints about broken
// input are expected, and slow), the fuzz data as a caller read function, a
// write function that takes everything, and waiting for a worker's end.
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

inline const int kQuiet = (av_log_set_level(AV_LOG_QUIET), 0);

// Hands out the fuzz data as the input's byte stream, then the end of input.
struct ByteSource {
  const uint8_t* data;
  size_t size, position = 0;
  static int Read(void* context, unsigned char* buffer, int size) {
    auto* source = static_cast<ByteSource*>(context);
    const size_t count = std::min(source->size - source->position, static_cast<size_t>(size));
    std::memcpy(buffer, source->data + source->position, count);
    source->position += count;
    return count > 0 ? static_cast<int>(count) : AVFORMAT_IO_EOF;
  }
};

inline int Discard(void*, unsigned char*, int size) {
  return size;
}
inline void IgnoreProgress(void*, int, long long, double, void*) {}

// A live playlist makes FFmpeg wait as long as the playlist says for its next
// version: Input gives up after this long (each target sets it on its task),
// and a worker still running after kWorkerTime is stopped. A Stop that does
// not end the worker is a hang, which the fuzzer's own timeout reports.
constexpr const char* kOpenTimeout = "2";
constexpr std::chrono::seconds kWorkerTime{3};

inline void WaitForEnd(bool (*status)(void*, bool*), void* task) {
  const auto until = std::chrono::steady_clock::now() + kWorkerTime;
  bool running = true;
  while (status(task, &running) && running && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::microseconds(100));
}

}  // namespace qfuzz

// The whole target for a family whose worker reads one input (conversion,
// multiplexing): the fuzz data through the caller read function, `format`
// written through the caller write function, the worker run to its end. A
// started multiplexing task must have a progress callback.
#define QFUZZ_BRIDGED_WORKER(Family, format)                                                                           \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {                                            \
    qfuzz::ByteSource source{data, size};                                                                              \
    void* task = AVFormat_##Family##_Init(qfuzz::IgnoreProgress, nullptr);                                             \
    if (task != nullptr && AVFormat_##Family##_SetOption(task, "open_timeout", qfuzz::kOpenTimeout) &&                 \
        AVFormat_##Family##_Output(task, format, 0.0, 0.0, qfuzz::Discard, nullptr) &&                                 \
        AVFormat_##Family##_Input(task, nullptr, qfuzz::ByteSource::Read, &source) && AVFormat_##Family##_Start(task)) \
      qfuzz::WaitForEnd(AVFormat_##Family##_GetStatus, task);                                                          \
    AVFormat_##Family##_Stop(task);                                                                                    \
    return 0;                                                                                                          \
  }
