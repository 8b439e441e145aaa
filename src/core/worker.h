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

// True on the thread that `thread` runs: Stop was called from a progress
// callback or a caller I/O function that the worker is running.
bool OnWorkerThread(const std::thread& thread) noexcept;

// Stop's first step. On any thread but the worker's: makes the worker leave
// its loop, also out of FFmpeg I/O that blocks (through the interrupt callback
// and the bridge, which read `abort`), joins it and returns true: the task's
// objects are the caller's alone, and Stop releases them. Does nothing to a
// worker never started. On the worker's own thread it cannot join: it clears
// `running`, sets `abort` and returns false at once; the worker then leaves
// its loop and FinishOnExit releases the task.
bool StopWorker(std::thread& thread, std::atomic<bool>& running, std::atomic<bool>& abort) noexcept;

// A worker body's last step. When Stop was called on this worker's thread,
// detaches `thread`, clears `abort` and runs `release(task)`: the rest of the
// family's Stop (trailer, release order, the record freed). Otherwise nothing:
// Stop, called later on another thread, joins the worker and releases.
void FinishOnExit(std::thread& thread, std::atomic<bool>& abort, void (*release)(void*), void* task) noexcept;

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
