// SPDX-License-Identifier: MIT
// Opening inputs and outputs, by name or through the caller I/O bridge.
//
// The bridge is FFmpeg's custom I/O: an AVIOContext over a 10 MiB buffer of the
// library's own, whose read or write function is the caller's. A bridged input
// is opened under the pseudo-URL "nothing" and probed from the bytes that the
// caller's function delivers; a bridged output takes a container format's
// short name instead of a file name. Neither is seekable.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Quorvel_AVFormat.h"
#include "core/ffmpeg.h"
#include "core/options.h"

namespace quorvel {

constexpr int kBridgeBufferSize = 0xA00000;
// What an input read through the bridge may open itself (FFmpeg's rule for pipes).
constexpr const char* kBridgeNestedProtocols = "crypto,data";

using IOFunction = AVFORMAT_IO_FUNCTION;

// Owns a bridge's I/O context together with its current buffer (FFmpeg may
// replace the buffer it was given) and the caller's function and context.
struct BridgeIOFree {
  void operator()(AVIOContext* io) const noexcept;
};
using BridgeIO = std::unique_ptr<AVIOContext, BridgeIOFree>;
// A bridge buffer not yet handed to an I/O context.
using BridgeBuffer = std::unique_ptr<uint8_t, AvFree>;

enum class OpenResult {
  kOk,
  kNoMemory,    // a context or a buffer could not be allocated
  kOpenFailed,  // avformat_open_input or avio_open failed
  kNoFormat,    // no output format for the name
  kUnusedOption,  // an input.NAME option that FFmpeg did not use
  kRefused,       // the strict input policy refused the input
};

// What a task's inputs consult before and during FFmpeg's blocking I/O.
// `abort` is set by Stop, so that a Stop ends a read (of the worker, or of a
// call on the caller's thread) that waits on the network or on a playlist's
// next version. `deadline` bounds
// the open in progress (the open_timeout option): a time on
// av_gettime_relative's clock in microseconds, 0 for none.
struct Interrupt {
  std::atomic<bool> abort{false};
  std::atomic<int64_t> deadline{0};
};

// Interrupt callback for an input's FFmpeg I/O: fires once `state` is aborted
// or its deadline has passed.
AVIOInterruptCB InterruptOn(Interrupt& state) noexcept;

// Bounds one Input's open and stream analysis to `microseconds` (none for 0):
// while it lives, the interrupt fires once the time is up, which ends
// whatever FFmpeg waits on (a live playlist's reload, a source that stalls).
class OpenDeadline {
 public:
  OpenDeadline(Interrupt& state, int64_t microseconds) noexcept;
  OpenDeadline(const OpenDeadline&) = delete;
  OpenDeadline& operator=(const OpenDeadline&) = delete;
  ~OpenDeadline() { state_.deadline = 0; }
  // True once the time is up: whatever the open gave, Input then fails.
  bool Expired() const noexcept;

 private:
  Interrupt& state_;
};

// The error code a family reports for each way an open can fail.
struct OpenCodes {
  uint64_t no_memory;
  uint64_t open_failed;
  uint64_t no_format;
  uint64_t unused_option;
  uint64_t refused;
};

// True for kOk; otherwise records the family's code for `result` and returns false.
bool FailOpen(OpenResult result, const OpenCodes& codes) noexcept;

// Opens `url` into `input` (replacing, and releasing, what it held), with
// the task's input options when `options` is given.
OpenResult OpenUrlInput(InputContext& input, const char* url, AVIOInterruptCB interrupt,
                        const TaskOptions* options = nullptr) noexcept;

// What an input given both a url and a read function is opened from.
enum class UrlBesideRead {
  kOpenedFirst,  // the url is opened first (its failure ends the call), then replaced by the bridged input
  kIgnored,      // the read function wins: the url is not even looked at
};

// Opens `url`, or the bridge over `read` (called with `opaque`), or, as
// `rule` says, both in turn into `input`, releasing what it held. The bridge
// takes a buffer in `buffer` that `io` then owns. At least one of `url` and
// `read` must be given. `interrupt` comes from InterruptOn: its state also
// stops the bridge's reads. An input opened by name keeps FFmpeg's defaults
// for what it opens itself; a bridged one may open only kBridgeNestedProtocols.
// `options`, when given, adds the task's input options and strict policy.
OpenResult OpenInput(InputContext& input, BridgeBuffer& buffer, BridgeIO& io, const char* url, IOFunction read,
                     void* opaque, UrlBesideRead rule, AVIOInterruptCB interrupt,
                     const TaskOptions* options = nullptr) noexcept;

// Creates the output context. Without `write`, `name` is a file name or URL
// that decides the container, and the file is opened unless the format needs
// none. With `write`, `name` is a format's short name and the output goes
// through the bridge (`buffer`, then `io`), flagged AVFMT_FLAG_CUSTOM_IO.
// Whatever was made stays in the holders, also on failure.
//
// Outputs get no interrupt callback: FFmpeg's I/O refuses every write once the
// callback fires, so a Stop would cut the packet in flight and leave the
// output unable to take its trailer. Only inputs are aborted.
OpenResult OpenOutput(OutputContext& output, BridgeBuffer& buffer, BridgeIO& io, const char* name, IOFunction write,
                      void* opaque) noexcept;

}  // namespace quorvel
