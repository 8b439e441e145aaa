// SPDX-License-Identifier: MIT
#include "core/io.h"

#include "core/error.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/time.h>
}

namespace quorvel {
namespace {

// The caller's function and context, behind the I/O context's opaque pointer.
// Going through these trampolines keeps the caller's function type apart from
// the one FFmpeg's version expects.
struct CallerEndpoint {
  IOFunction function;
  void* context;
  // Inputs: the task's interrupt state (Stop, open_timeout), or null.
  const Interrupt* interrupt = nullptr;
};

bool DeadlinePassed(const Interrupt& state) noexcept {
  const int64_t deadline = state.deadline.load(std::memory_order_relaxed);
  return deadline != 0 && av_gettime_relative() >= deadline;
}

bool Interrupted(const Interrupt& state) noexcept {
  return state.abort.load() || DeadlinePassed(state);
}

// Holds FFmpeg to the read contract whatever the caller's function does: a
// stopped task, or an open past its deadline, reads nothing more (the
// caller's function is not called, so that Stop returns however it behaves); 0 bytes, the read(2) way of saying
// end of file, is the end of input (FFmpeg 5.1 would retry forever); a count
// above `size` is an error (FFmpeg would take bytes past its buffer).
int ReadToCaller(void* opaque, uint8_t* buffer, int size) {
  auto* endpoint = static_cast<CallerEndpoint*>(opaque);
  if (endpoint->interrupt != nullptr && Interrupted(*endpoint->interrupt)) return AVERROR_EXIT;
  const int result = endpoint->function(endpoint->context, buffer, size);
  if (result == 0) return AVERROR_EOF;
  if (result > size) return AVERROR(EIO);
  return result;
}

// A write that the caller's function takes only in part fails: FFmpeg would
// count the whole buffer as written and the rest would be lost unnoticed.
// FFmpeg keeps the failure as the I/O context's error, which the task's
// report reads, and writes nothing more to the output.
int WriteToCaller(void* opaque, AVIOWriteBuffer buffer, int size) {
  auto* endpoint = static_cast<CallerEndpoint*>(opaque);
  // The caller's type is not const; the caller only reads the bytes.
  const int written = endpoint->function(endpoint->context, const_cast<unsigned char*>(buffer), size);
  if (written < 0) return written;
  return written < size ? AVERROR(EIO) : size;
}

int InterruptWhenSet(void* state) {
  return Interrupted(*static_cast<const Interrupt*>(state)) ? 1 : 0;
}

BridgeBuffer AllocBridgeBuffer() noexcept {
  return BridgeBuffer(static_cast<uint8_t*>(av_malloc(kBridgeBufferSize)));
}

// Hands `buffer` to a new I/O context; on failure the buffer stays in `buffer`.
BridgeIO MakeBridgeIO(BridgeBuffer& buffer, IOFunction function, void* context, bool write) noexcept {
  auto* endpoint = new (std::nothrow) CallerEndpoint{function, context};
  if (endpoint == nullptr) return nullptr;
  AVIOContext* io = avio_alloc_context(buffer.get(), kBridgeBufferSize, write ? 1 : 0, endpoint,
                                       write ? nullptr : ReadToCaller, write ? WriteToCaller : nullptr, nullptr);
  if (io == nullptr) {
    delete endpoint;
    return nullptr;
  }
  static_cast<void>(buffer.release());  // the I/O context owns it now
  return BridgeIO(io);
}

// avformat_open_input on the allocated `input`, with the task's input
// options. The context is freed by a failed open.
OpenResult OpenPrepared(InputContext& input, const char* url, const TaskOptions* options, bool bridged) noexcept {
  InputOpenOptions open(options, bridged);
  if (!open.Prepare(input.get())) return OpenResult::kNoMemory;
  AVFormatContext* context = input.release();
  const int result = avformat_open_input(&context, url, open.Format(), open.Entries());
  input.reset(context);
  // The policy's refusals (a protocol or a demuxer not on its lists) are
  // FFmpeg's "invalid argument".
  if (result == AVERROR(EINVAL) && open.Strict()) return OpenResult::kRefused;
  if (result < 0) return OpenResult::kOpenFailed;
  return open.Unused() ? OpenResult::kUnusedOption : OpenResult::kOk;
}

// Opens the input through the bridge: a fresh context in `input` (releasing
// what it held), a buffer in `buffer` that `io` then owns.
OpenResult OpenBridgeInput(InputContext& input, BridgeBuffer& buffer, BridgeIO& io, IOFunction read, void* opaque,
                           AVIOInterruptCB interrupt, const TaskOptions* options) noexcept {
  input.reset(avformat_alloc_context());
  buffer = AllocBridgeBuffer();
  if (!input || !buffer) return OpenResult::kNoMemory;
  io = MakeBridgeIO(buffer, read, opaque, false);
  if (!io) return OpenResult::kNoMemory;
  static_cast<CallerEndpoint*>(io->opaque)->interrupt = static_cast<const Interrupt*>(interrupt.opaque);
  input->pb = io.get();
  // Marked as caller I/O before opening, so that closing the context never closes the bridge.
  input->flags |= AVFMT_FLAG_CUSTOM_IO;
  input->interrupt_callback = interrupt;
  // The rule FFmpeg gives its own pipe input: the bytes come from somewhere
  // the caller did not name, so what they ask to open (a playlist's segments)
  // may only be decrypted or inline data, never a file or a network address.
  if (av_opt_set(input.get(), "protocol_whitelist", kBridgeNestedProtocols, 0) < 0) return OpenResult::kNoMemory;
  return OpenPrepared(input, "nothing", options, true);
}

}  // namespace

void BridgeIOFree::operator()(AVIOContext* io) const noexcept {
  delete static_cast<CallerEndpoint*>(io->opaque);
  av_freep(&io->buffer);
  avio_context_free(&io);
}

AVIOInterruptCB InterruptOn(Interrupt& state) noexcept {
  return AVIOInterruptCB{InterruptWhenSet, &state};
}

OpenDeadline::OpenDeadline(Interrupt& state, int64_t microseconds) noexcept : state_(state) {
  if (microseconds > 0) state_.deadline = av_gettime_relative() + microseconds;
}

bool OpenDeadline::Expired() const noexcept {
  return DeadlinePassed(state_);
}

bool FailOpen(OpenResult result, const OpenCodes& codes) noexcept {
  switch (result) {
    case OpenResult::kOk: return true;
    case OpenResult::kNoMemory: return Fail(codes.no_memory);
    case OpenResult::kOpenFailed: return Fail(codes.open_failed);
    case OpenResult::kNoFormat: return Fail(codes.no_format);
    case OpenResult::kUnusedOption: return Fail(codes.unused_option);
    case OpenResult::kRefused: return Fail(codes.refused);
  }
  return Fail(codes.open_failed);
}

OpenResult OpenUrlInput(InputContext& input, const char* url, AVIOInterruptCB interrupt,
                        const TaskOptions* options) noexcept {
  input.reset(avformat_alloc_context());
  // Opening by name allocates the context as part of the open: it fails as the open does.
  if (!input) return OpenResult::kOpenFailed;
  input->interrupt_callback = interrupt;
  if (!InputOpenOptions(options, false).UrlAllowed(url)) {
    input.reset();
    return OpenResult::kRefused;
  }
  return OpenPrepared(input, url, options, false);
}

OpenResult OpenInput(InputContext& input, BridgeBuffer& buffer, BridgeIO& io, const char* url, IOFunction read,
                     void* opaque, UrlBesideRead rule, AVIOInterruptCB interrupt, const TaskOptions* options) noexcept {
  if (url != nullptr && (read == nullptr || rule == UrlBesideRead::kOpenedFirst)) {
    const OpenResult opened = OpenUrlInput(input, url, interrupt, options);
    if (opened != OpenResult::kOk || read == nullptr) return opened;
  }
  return OpenBridgeInput(input, buffer, io, read, opaque, interrupt, options);
}

OpenResult OpenOutput(OutputContext& output, BridgeBuffer& buffer, BridgeIO& io, const char* name, IOFunction write,
                      void* opaque) noexcept {
  AVFormatContext* context = nullptr;
  if (write != nullptr)
    avformat_alloc_output_context2(&context, nullptr, name, nullptr);
  else
    avformat_alloc_output_context2(&context, nullptr, nullptr, name);
  output.reset(context);
  if (context == nullptr) return OpenResult::kNoFormat;

  if (write != nullptr) {
    buffer = AllocBridgeBuffer();
    if (!buffer) return OpenResult::kNoMemory;
    io = MakeBridgeIO(buffer, write, opaque, true);
    if (!io) return OpenResult::kNoMemory;
    context->pb = io.get();
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    return OpenResult::kOk;
  }
  if ((context->oformat->flags & AVFMT_NOFILE) != 0) return OpenResult::kOk;
  if (avio_open(&context->pb, name, AVIO_FLAG_WRITE) < 0) return OpenResult::kOpenFailed;
  return OpenResult::kOk;
}

}  // namespace quorvel
