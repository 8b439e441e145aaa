#include "core/worker.h"

#include <cmath>
#include <system_error>

namespace quorvel {
namespace {

// trunc(value) as a timestamp; unset when it is not a finite 64-bit value.
int64_t TruncatedTicks(double value) noexcept {
  if (!std::isfinite(value) || value <= -9.2e18 || value >= 9.2e18) return AV_NOPTS_VALUE;
  return static_cast<int64_t>(value);
}

}  // namespace

bool StartWorker(std::thread& thread, int (*body)(void*), void* task) noexcept {
  try {
    thread = std::thread(body, task);
  } catch (const std::system_error&) {
    return false;
  }
  return thread.joinable();
}

bool ReadNextPacket(const std::atomic<bool>& running, const std::atomic<bool>& pause, std::mutex& input_lock,
                    AVFormatContext* input, AVPacket* packet) {
  while (running && pause) std::this_thread::sleep_for(kPausePoll);
  if (!running) return false;
  const std::lock_guard<std::mutex> lock(input_lock);
  return av_read_frame(input, packet) >= 0;
}

void StopWorker(std::thread& thread, std::atomic<bool>& running, std::atomic<bool>& abort) noexcept {
  if (thread.joinable()) {
    abort = true;
    running = false;
    thread.join();
    abort = false;  // what follows (the trailer) may do I/O again
  }
  running = false;
}

void SynthesizeTimestamps(AVPacket* packet, const AVStream* stream, int64_t number) noexcept {
  const double frame_rate = av_q2d(stream->r_frame_rate);
  const double ticks_per_microsecond = av_q2d(stream->time_base) * 1000000.0;
  const int64_t frame_length = frame_rate != 0.0 ? TruncatedTicks(1000000.0 / frame_rate) : AV_NOPTS_VALUE;
  if (frame_length == AV_NOPTS_VALUE || ticks_per_microsecond == 0.0) {
    packet->pts = packet->dts = AV_NOPTS_VALUE;
    return;
  }
  packet->pts = TruncatedTicks(static_cast<double>(number * frame_length) / ticks_per_microsecond);
  packet->dts = packet->pts;
  const int64_t duration = TruncatedTicks(static_cast<double>(frame_length) / ticks_per_microsecond);
  packet->duration = duration == AV_NOPTS_VALUE ? 0 : duration;
}

}  // namespace quorvel
