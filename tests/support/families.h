// One task of any of the four families, driven through that family's own
// calls in its own order, so that a test can run the same case against
// every family: where its input comes from, where its output goes, Start,
// pause, status, Stop.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/caller.h"
#include "support/fixtures.h"

namespace qtest {

enum class Family { kConvert, kUnpack, kPacket, kLink };
const char* Name(Family family);

// Where a task reads: a file name or URL, or (all but concatenation) a caller read function.
struct Source {
  std::string url;
  MemoryReader* reader = nullptr;
};

// Where a task writes: a file name, or with a writer a format's short name.
// A demultiplexing task writes one output, holding input stream 0.
struct Sink {
  std::string name;
  MemoryWriter* writer = nullptr;
};

class AnyTask {
 public:
  // Every progress call is recorded in `log`; a `delay` makes the worker
  // spend that long in each call, as a slow caller would.
  AnyTask(Family family, ProgressLog& log, std::chrono::microseconds delay = {});
  ~AnyTask() { Stop(); }
  AnyTask(const AnyTask&) = delete;
  AnyTask& operator=(const AnyTask&) = delete;

  // Output and input in the family's order. False at the first refused call,
  // whose code is then in `code`.
  bool SetUp(const Source& source, const Sink& sink);
  bool Start();
  bool Suspend(bool pause);
  bool Running();
  // Waits until the worker has ended by itself.
  bool WaitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // Stops the task at once (a paused concatenation task is resumed first, as
  // its Stop requires). Returns Stop's result; true when already stopped.
  bool Stop();
  bool Stopped() const { return handle_ == nullptr; }

  Family family;
  uint64_t code = 0;  // of the last refused call

 private:
  bool Check(bool ok);
  static void Progress(void* reserved, int type, long long number, double seconds, void* context);
  ProgressLog& log_;
  std::chrono::microseconds delay_;
  void* handle_;
};

// The output's packets as ffprobe sees them; a writer's bytes are put in a
// file first. Empty when ffprobe rejects the output.
std::vector<ProbePacket> ProbeOutput(const Sink& sink);

}  // namespace qtest
