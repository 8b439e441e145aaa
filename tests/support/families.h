// SPDX-License-Identifier: MIT
// One task of any of the four families, driven through that family's own
// calls in its own order, so that one case runs against every family: set-up
// as far as a stage, Start, pause, status, a worker held inside a progress
// call, Stop.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/caller.h"
#include "support/fixtures.h"

namespace qtest {

enum class Family { kConvert, kUnpack, kPacket, kLink };
inline constexpr Family kFamilies[] = {Family::kConvert, Family::kUnpack, Family::kPacket, Family::kLink};
const char* Name(Family family);

// A family's codes: a null handle in the set-up calls and Start, and in
// Suspend and GetStatus (concatenation borrows multiplexing's there); no place
// for the status; an input or output that can't be opened; no container by an
// output's name; and the later set-up failures a broken input may cause.
struct Codes {
  uint64_t parameter, control, status, open, format, streaminfo, codecpar, header;
};
const Codes& CodesOf(Family family);

// Where a task reads: a file name or URL, or (all but concatenation) a caller
// read function; for concatenation also the input's cut and its two streams;
// for multiplexing the `streams` option to set before this input, if any.
struct Source {
  std::string url;
  MemoryReader* reader = nullptr;
  double start = 0, end = 0;
  int video = 0, audio = 1;
  std::string streams = "";
};
// Where a task writes: a file name, or with a writer a format's short name,
// with the output's cut. A demultiplexing task writes input stream `stream` there.
struct Sink {
  std::string name;
  MemoryWriter* writer = nullptr;
  double start = 0, end = 0;
  int stream = 0;
};

// How far Reach takes a task. "First" and "second" are the family's set-up
// calls in its order: Output then Input, but Input then Output for
// demultiplexing. A failed stage makes that call with a name that can't be
// opened. kHeld leaves the worker inside progress call `hold_at` (from 0);
// kPaused lets that call return into a pause.
enum class Stage { kNull, kInit, kFirstFailed, kFirst, kSecondFailed, kSetUp, kHeld, kPaused, kEnded };

class AnyTask {
 public:
  // A `delay` makes every progress call take that long, as a slow caller's would.
  explicit AnyTask(Family family, std::chrono::microseconds delay = {});
  ~AnyTask() { Stop(); }

  // False when a call did not do what the stage asks; a refused call's code is then in `code`.
  bool Reach(Stage stage, const std::vector<Source>& sources, const Sink& sink);
  bool Input(const std::vector<Source>& sources);  // one input per source (conversion and demultiplexing: the first)
  bool Output(const Sink& sink);
  bool Outputs(const std::vector<Sink>& sinks);  // demultiplexing: one output per sink, in one call
  bool Set(const char* name, const char* value);  // SetOption
  bool Report(AVFORMAT_TASK_REPORT* report);      // GetReport
  bool Start();
  bool Suspend(bool pause);
  bool Status(bool* running);
  bool Running();
  bool WaitForEnd();
  // Stop, after letting a held worker go and resuming a concatenation task,
  // whose Stop waits for a paused worker; StopWithReport when given a report.
  // Also with a null handle.
  bool Stop(AVFORMAT_TASK_REPORT* report = nullptr);
  // Stop, called on another thread while the worker is held or paused; after
  // `after` the task is resumed and the held call let go. Returns whether Stop
  // had returned by then.
  bool StopFromAnotherThread(std::chrono::milliseconds after);
  void* handle() const { return handle_; }
  // Hands the handle over to a caller who stops it itself (Stop then does nothing).
  void* Release() { return std::exchange(handle_, nullptr); }

  const Family family;
  ProgressLog log;
  uint64_t code = 0;
  long long hold_at = 0;
  std::atomic<bool> held{false}, released{false};
  std::function<void()> on_progress;  // if set, run at the end of every progress call, on the worker

 private:
  bool Check(bool ok);
  static void Progress(void* reserved, int type, long long number, double seconds, void* context);
  std::atomic<bool> armed_{false};  // by Reach, for kHeld and kPaused
  std::chrono::microseconds delay_;
  void* handle_;
};

// An output's bytes, and its packets as ffprobe sees them (empty when ffprobe rejects it).
std::vector<uint8_t> Bytes(const Sink& sink);
std::vector<ProbePacket> ProbeOutput(const Sink& sink);

}  // namespace qtest
