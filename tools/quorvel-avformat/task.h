// SPDX-License-Identifier: MIT
// A started task of any family, driven to its end: progress shown, keys and
// signals obeyed, and Stop called exactly once, whatever happens.
#pragma once

#include <cstdint>
#include <optional>

#include "Quorvel_AVFormat.h"
#include "progress.h"

namespace qtool {

// Family bits, for the options that only some families have.
enum : unsigned { kConvertBit = 1, kUnpackBit = 2, kMuxBit = 4, kLinkBit = 8, kEveryFamily = 15 };

// The calls that every family has for a running task.
struct Family {
  const char* name;
  unsigned bit;
  void* (*init)(AVFORMAT_PROGRESS_CALLBACK progress, void* context);
  bool (*set_option)(void* task, const char* name, const char* value);
  bool (*get_status)(void* task, bool* running);
  bool (*suspend)(void* task, bool pause);
  bool (*stop_with_report)(void* task, AVFORMAT_TASK_REPORT* report);
  uint64_t open_code;    // the family's code for an input that can't be opened
  uint64_t policy_code;  // and for one that the input policy refuses
};
extern const Family kConversion, kDemultiplexing, kMultiplexing, kConcatenation;

// Owns a task handle. Stop resumes the task first: a paused concatenation
// waits for its resume even when stopped.
class Task {
 public:
  Task(const Family& family, void* handle) : family_(family), handle_(handle) {}
  ~Task() { Stop(); }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  void* get() const { return handle_; }
  const Family& family() const { return family_; }
  // Stops the worker, writes the trailer and releases the task, keeping its report.
  void Stop();
  // What the task did, as it stood after its trailer; zeros before Stop.
  const AVFORMAT_TASK_REPORT& report() const { return report_; }

 private:
  const Family& family_;
  void* handle_;
  AVFORMAT_TASK_REPORT report_{};
};

struct RunSettings {
  ProgressMode mode = ProgressMode::kNone;
  std::optional<Span> span;
  bool keys = true;  // read p and q from the terminal (not when standard input carries data)
};

// Throws ToolFailure when a write to the output or its trailer failed, or no
// packet was written.
void CheckWrites(const AVFORMAT_TASK_REPORT& report);

enum class Outcome { kFinished, kStopped, kInterrupted };

// Waits for a started task's worker to end, or for the user to stop it, then
// stops the task. Throws LibraryFailure when the task refuses a call, and
// ToolFailure when a write to the output or its trailer failed or no packet
// was written; packets that the muxer refused are only noted here (see
// RefusedPackets).
Outcome RunTask(Task& task, ProgressCounter& counter, const RunSettings& settings);

// 0 for a task that finished or was stopped with q, 128 + the signal's number
// for one that a signal interrupted; 1 when the output's muxer refused packets
// (the output is valid but lacks them, and says so on standard error).
int ExitStatus(Outcome outcome, const Task& task);

}  // namespace qtool
