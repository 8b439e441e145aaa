// SPDX-License-Identifier: MIT
// What every family's worker thread shares: the pause poll, starting the
// thread, the read that a caller's thread may share, and the timestamps made
// up for packets that come without any.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>

#include "core/ffmpeg.h"

namespace quorvel {

// A paused worker sleeps this long between looks at its flags.
constexpr std::chrono::milliseconds kPausePoll{100};

// The head of a worker's read loop: waits while `pause` is set (looking at
// `running` every poll), then reads the next packet of `input` under
// `input_lock`, which the caller's thread takes for its own calls on the
// input. False when the loop is to end: stopped, end of input or read error.
bool ReadNextPacket(const std::atomic<bool>& running, const std::atomic<bool>& pause, std::mutex& input_lock,
                    AVFormatContext* input, AVPacket* packet);

// Runs `body(task)` on `thread`. False when no joinable thread results.
bool StartWorker(std::thread& thread, int (*body)(void*), void* task) noexcept;

// True on the thread that runs `task`'s worker: Stop was called from a
// progress callback or a caller I/O function that the worker is running.
// Known from the thread itself, not from the task's std::thread, which a
// Start on another thread may be storing at that moment.
bool OnWorkerThread(const void* task) noexcept;

// Keeps Stop from releasing what a call on another thread still uses. The
// calls that reach FFmpeg on the caller's thread (Output, Input, Start, Read,
// Seek, GetAVCodec, StreamCreate, StreamWrite) each hold the task's gate for
// their length; Stop, once its abort flag has ended what FFmpeg waits on in
// an input, waits until no call holds it. A thread already inside a call may
// call the task again (from a callback of that call) without waiting.
class CallGate {
 public:
  class Held {
   public:
    explicit Held(CallGate& gate) noexcept;
    ~Held();
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

   private:
    CallGate* gate_;  // null when this thread held the gate already
  };
  // True on the thread inside a call: a Stop there would release what that call uses.
  bool HeldHere() const noexcept { return owner_.load() == std::this_thread::get_id(); }
  // Returns once no call holds the gate.
  void WaitForCalls() noexcept;

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
};

enum class StopStep {
  kRelease,         // the worker (if any) has ended and no call runs: Stop releases the task
  kWorkerReleases,  // called from the worker: it releases the task as it ends
  kInsideCall,      // called from inside a call on this task on this thread: nothing is released
};

// Stop's first step. On any thread but the worker's: raises `abort`, which
// ends what FFmpeg waits on in an input (through the interrupt callback and
// the bridge), waits for a call in progress on another thread, makes the
// worker leave its loop, joins it and returns kRelease: the task's objects
// are the caller's alone, and Stop releases them.
// On the worker's own thread it cannot join: it clears `running`, sets
// `abort` and returns kWorkerReleases at once; the worker then leaves its loop
// and FinishOnExit releases the task. Inside a call on this thread (a read
// function calling Stop during Input) it sets `abort`, so that the call ends
// as a stopped one, and returns kInsideCall: Stop is to be called again once
// the call has returned.
StopStep StopWorker(const void* task, std::thread& thread, std::atomic<bool>& running, std::atomic<bool>& abort,
                    CallGate& calls) noexcept;

// A worker body's last step. When Stop was called on this worker's thread,
// detaches `thread`, waits for a call in progress on another thread, clears
// `abort` and runs `release(task)`: the rest of the family's Stop (trailer,
// release order, the record freed). Otherwise nothing: Stop, called later on
// another thread, joins the worker and releases.
void FinishOnExit(std::thread& thread, std::atomic<bool>& abort, CallGate& calls, void (*release)(void*),
                  void* task) noexcept;

// Gives a packet without a presentation time the times of packet number
// `number` of `stream`, from the stream's frame rate:
//   frame length F = trunc(1e6 / r_frame_rate) microseconds,
//   pts = dts = trunc(number * F / (time_base * 1e6)),
//   duration = trunc(F / (time_base * 1e6)),
// each step in double precision, truncated toward zero. A frame rate or time
// base of 0, or a number * F beyond 64 bits (a tiny frame rate), leaves pts
// and dts unset (AV_NOPTS_VALUE) instead.
void SynthesizeTimestamps(AVPacket* packet, const AVStream* stream, int64_t number) noexcept;

// The times of a packet that comes without a presentation time, for every
// family. With `dts_as_pts` a packet that has a decode time takes it as its
// presentation time, and only one with neither (a raw stream) gets made-up
// times; otherwise every such packet gets made-up times (SynthesizeTimestamps).
// A packet with neither time in a stream whose other packets have times gets
// made-up times too, as `ffmpeg -c copy` gives it a time (on from the stream's
// previous packet) instead of leaving it for the muxer to refuse.
void CompleteTimes(AVPacket* packet, const AVStream* stream, int64_t number, bool dts_as_pts) noexcept;

}  // namespace quorvel
