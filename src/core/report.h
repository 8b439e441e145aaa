// SPDX-License-Identifier: MIT
// What a task has done, counted where the caller's thread can read it while
// the worker runs: packets read, written and refused, the bytes that reached
// the output, the first write error and the trailer's result. Behind every
// family's GetReport and StopWithReport.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "Quorvel_AVFormat.h"
#include "core/error.h"
#include "core/ffmpeg.h"

namespace quorvel {

class TaskTally {
 public:
  TaskTally() = default;
  TaskTally(const TaskTally&) = delete;
  TaskTally& operator=(const TaskTally&) = delete;
  // Fills the report that StopWithReport left here: the task is being freed,
  // after its trailer.
  ~TaskTally();

  void CountRead() noexcept { packets_read_.fetch_add(1, std::memory_order_relaxed); }
  // A packet that was not handed to the muxer, which could not have taken it.
  void Refuse() noexcept { packets_refused_.fetch_add(1, std::memory_order_relaxed); }

  // av_interleaved_write_frame, counted: a negative result is a refused
  // packet. Then takes in what the output's I/O context says (see Observe).
  int Write(AVFormatContext* output, AVPacket* packet, int64_t& seen) noexcept;
  // av_write_trailer, remembered: its first failing result among the task's
  // outputs, and that a trailer was written. Then Observe.
  int WriteTrailer(AVFormatContext* output, int64_t& seen) noexcept;
  // Takes the bytes that `output` has written out since `seen` (the last
  // count taken for that output, kept by the caller) and its I/O error, the
  // first of which the task keeps. Call it on the thread that writes.
  void Observe(const AVFormatContext* output, int64_t& seen) noexcept;

  // The record as it stands; only the fields that fit in report->dwSize.
  void Fill(AVFORMAT_TASK_REPORT& report) const noexcept;
  // Where the destructor puts the final record, or null.
  void FillOnRelease(AVFORMAT_TASK_REPORT* report) noexcept { final_report_ = report; }

 private:
  std::atomic<int64_t> packets_read_{0};
  std::atomic<int64_t> packets_written_{0};
  std::atomic<int64_t> packets_refused_{0};
  std::atomic<int64_t> bytes_written_{0};
  std::atomic<int> write_error_{0};
  std::atomic<bool> trailer_written_{false};
  std::atomic<int> trailer_result_{0};
  AVFORMAT_TASK_REPORT* final_report_ = nullptr;
};

// Whether `report` is a record that the library may fill.
inline bool ValidReport(const AVFORMAT_TASK_REPORT* report) noexcept {
  return report != nullptr && report->dwSize >= AVFORMAT_TASK_REPORT_MIN_SIZE;
}

// GetReport of every family: the task's record so far.
template <typename Task>
bool ReportOf(void* handle, AVFORMAT_TASK_REPORT* report, uint64_t parameter_code) noexcept {
  ClearError();
  const auto* task = static_cast<const Task*>(handle);
  if (task == nullptr || !ValidReport(report)) return Fail(parameter_code);
  task->stTally.Fill(*report);
  return true;
}

// StopWithReport of every family: `stop` (the family's Stop) always runs;
// the report is filled once the trailer is written and the task freed. On
// the task's own worker thread, where Stop only asks the worker to finish,
// the report is filled at once instead, without the trailer.
template <typename Task, typename Stop>
bool StopReporting(void* handle, AVFORMAT_TASK_REPORT* report, uint64_t parameter_code, Stop&& stop) noexcept {
  auto* task = static_cast<Task*>(handle);
  const bool valid = task != nullptr && ValidReport(report);
  if (valid && task->pThread.get_id() == std::this_thread::get_id())
    task->stTally.Fill(*report);
  else if (valid)
    task->stTally.FillOnRelease(report);
  stop(handle);
  return valid || Fail(parameter_code);
}

}  // namespace quorvel
