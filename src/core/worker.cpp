// SPDX-License-Identifier: MIT
#include "core/worker.h"

#include <cmath>
#include <system_error>

#include "core/checked.h"

namespace quorvel {
namespace {

// Set on a worker's thread when Stop was called from it: the worker then
// finishes the stop itself once its body returns. Each worker thread runs one
// task, so the flag belongs to that task.
thread_local bool stopped_from_worker = false;
// The task whose worker runs on this thread, null on any other thread.
thread_local const void* worker_task = nullptr;

// trunc(value) as a timestamp; unset when it is not a finite 64-bit value.
int64_t TruncatedTicks(double value) noexcept {
  if (!std::isfinite(value) || value <= -9.2e18 || value >= 9.2e18) return AV_NOPTS_VALUE;
  return static_cast<int64_t>(value);
}

// Held while a worker's std::thread is made and stored: the worker waits for
// it before its body runs, so that a Stop from its first progress call finds
// the thread stored in the task (see OnWorkerThread).
std::mutex launch_lock;

void RunWorker(int (*body)(void*), void* task) {
  { const std::lock_guard<std::mutex> stored(launch_lock); }
  worker_task = task;
  body(task);
}

}  // namespace

bool StartWorker(std::thread& thread, int (*body)(void*), void* task) noexcept {
  const std::lock_guard<std::mutex> storing(launch_lock);
  try {
    thread = std::thread(RunWorker, body, task);
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

bool OnWorkerThread(const void* task) noexcept {
  return task != nullptr && worker_task == task;
}

CallGate::Held::Held(CallGate& gate) noexcept : gate_(gate.HeldHere() ? nullptr : &gate) {
  if (gate_ == nullptr) return;
  gate_->mutex_.lock();
  gate_->owner_ = std::this_thread::get_id();
}

CallGate::Held::~Held() {
  if (gate_ == nullptr) return;
  gate_->owner_ = std::thread::id();
  gate_->mutex_.unlock();
}

void CallGate::WaitForCalls() noexcept {
  const std::lock_guard<std::mutex> passed(mutex_);
}

StopStep StopWorker(const void* task, std::thread& thread, std::atomic<bool>& running, std::atomic<bool>& abort,
                    CallGate& calls) noexcept {
  if (OnWorkerThread(task)) {
    abort = true;
    running = false;
    stopped_from_worker = true;
    return StopStep::kWorkerReleases;
  }
  abort = true;
  if (calls.HeldHere()) return StopStep::kInsideCall;
  // A Start in progress has stored the worker's thread once it returns.
  calls.WaitForCalls();
  running = false;
  if (thread.joinable()) thread.join();
  abort = false;  // what follows (the trailer) may do I/O again
  return StopStep::kRelease;
}

void FinishOnExit(std::thread& thread, std::atomic<bool>& abort, CallGate& calls, void (*release)(void*),
                  void* task) noexcept {
  if (!stopped_from_worker || !OnWorkerThread(task)) return;
  stopped_from_worker = false;
  thread.detach();  // the record that holds it is about to go
  calls.WaitForCalls();
  abort = false;  // what follows (the trailer) may do I/O again
  release(task);
}

void SynthesizeTimestamps(AVPacket* packet, const AVStream* stream, int64_t number) noexcept {
  const double frame_rate = av_q2d(stream->r_frame_rate);
  const double ticks_per_microsecond = av_q2d(stream->time_base) * 1000000.0;
  const int64_t frame_length = frame_rate != 0.0 ? TruncatedTicks(1000000.0 / frame_rate) : AV_NOPTS_VALUE;
  if (frame_length == AV_NOPTS_VALUE || ticks_per_microsecond == 0.0) {
    packet->pts = packet->dts = AV_NOPTS_VALUE;
    return;
  }
  const int64_t elapsed = MultiplyTimes(number, frame_length);
  if (elapsed == AV_NOPTS_VALUE) {  // past the 64-bit range of microseconds
    packet->pts = packet->dts = AV_NOPTS_VALUE;
    return;
  }
  packet->pts = TruncatedTicks(static_cast<double>(elapsed) / ticks_per_microsecond);
  packet->dts = packet->pts;
  const int64_t duration = TruncatedTicks(static_cast<double>(frame_length) / ticks_per_microsecond);
  packet->duration = duration == AV_NOPTS_VALUE ? 0 : duration;
}

void CompleteTimes(AVPacket* packet, const AVStream* stream, int64_t number, bool dts_as_pts) noexcept {
  if (packet->pts != AV_NOPTS_VALUE) return;
  if (dts_as_pts && packet->dts != AV_NOPTS_VALUE)
    packet->pts = packet->dts;
  else
    SynthesizeTimestamps(packet, stream, number);
}

}  // namespace quorvel
