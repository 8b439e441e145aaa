// SPDX-License-Identifier: MIT
// What every family's task record is handled alike in: Init, which makes the
// record around the caller's callback, and the pause and running flags behind
// Suspend and GetStatus. Each family passes its own codes.
#pragma once

#include <cstdint>
#include <new>

#include "Quorvel_AVFormat.h"
#include "core/error.h"
#include "core/worker.h"

namespace quorvel {

// A fresh record holding the caller's progress callback and context; null
// with `malloc_code` when it can't be allocated.
template <typename Task>
void* NewTask(AVFORMAT_PROGRESS_CALLBACK progress, void* context, uint64_t malloc_code) {
  ClearError();
  auto* task = new (std::nothrow) Task;
  if (task == nullptr) {
    Fail(malloc_code);
    return nullptr;
  }
  task->lpCallbackContext = context;
  task->fpProgress = progress;
  return task;
}

// Sets the pause flag, which the worker reads between packets. Nothing checks
// that a worker exists.
template <typename Task>
bool SetPause(void* handle, bool pause, uint64_t parameter_code) {
  ClearError();
  auto* task = static_cast<Task*>(handle);
  if (task == nullptr) return Fail(parameter_code);
  task->bPause = pause;
  return true;
}

// Stores whether the worker still runs: false before Start and once it has
// left its loop, whether or not Stop has been called.
template <typename Task>
bool ReportRunning(void* handle, bool* running, uint64_t parameter_code, uint64_t status_code) {
  ClearError();
  auto* task = static_cast<Task*>(handle);
  if (task == nullptr) return Fail(parameter_code);
  if (running == nullptr) return Fail(status_code);
  *running = task->bRunning;
  return true;
}

// The common part of every family's Stop: stops the worker and waits for a
// call in progress on another thread (StopWorker), then runs `release`, the
// family's release order; called from the worker, the worker releases the
// task as it ends. Called from inside a call on this task on the same thread
// (a read function during Input), nothing is released: false with
// `parameter_code`, and the call in progress ends as a stopped one.
template <typename Task>
bool StopTask(Task* task, void (*release)(void*), uint64_t parameter_code) noexcept {
  switch (StopWorker(task, task->pThread, task->bRunning, task->stInterrupt.abort, task->stCalls)) {
    case StopStep::kRelease: release(task); return true;
    case StopStep::kWorkerReleases: return true;
    case StopStep::kInsideCall: break;
  }
  return Fail(parameter_code);
}

}  // namespace quorvel
