// SPDX-License-Identifier: MIT
// Task options: what a caller set through a family's SetOption, kept on the
// task until the call that it acts on. FFmpeg's own options pass through as
// dictionaries; the strict input policy and the practical behaviours are
// flags that the set-up and the workers read. Everything is off by default,
// which is the behaviour the interface defines.
#pragma once

#include <cstdint>
#include <string>

#include "core/ffmpeg.h"

namespace quorvel {

// The families, as a set: each option names those that take it.
enum OptionFamily : unsigned {
  kConvertFamily = 1U << 0U,
  kUnpackFamily = 1U << 1U,
  kMuxFamily = 1U << 2U,
  kLinkFamily = 1U << 3U,
};

// The call that an option acts on: once it has been made, the option is refused.
enum class OptionTime {
  kInputOpen,    // Input (for the multi-input families, the first Input)
  kHeaderWrite,  // the call that writes the header: Start, or demultiplexing's Output
  kRun,          // Start
};

// The error code a family reports for each way SetOption can fail.
struct OptionCodes {
  uint64_t parameter;
  uint64_t unknown;
  uint64_t bad_value;
  uint64_t late;
};

struct TaskOptions {
  TaskOptions() = default;
  TaskOptions(const TaskOptions&) = delete;
  TaskOptions& operator=(const TaskOptions&) = delete;
  ~TaskOptions();

  AVDictionary* input = nullptr;                // input.NAME: for each input's open
  AVDictionary* output = nullptr;               // output.NAME: for the header write
  const AVInputFormat* input_format = nullptr;  // input.format
  bool strict = false;                          // policy=strict
  int64_t open_timeout = 0;                     // microseconds for each Input's open, 0 for no limit

  // The practical behaviours, one flag each (see the header's option table).
  bool keyframe_start = false;
  bool end_exclusive = false;
  bool zero_start = false;
  bool dense_streams = false;
  bool rescale_times = false;
  bool interleave_by_time = false;
  bool until_all_inputs_end = false;
  bool all_streams = false;
  bool continuous_times = false;
  bool cut_per_input = false;
  bool fragment_bridged_mp4 = false;
  bool dts_as_pts = false;
  bool outputs_independent = false;
  bool keep_codec_tag = false;
  // Mux: the stream specifier for the next Input only, empty for none; Input clears it.
  std::string streams;
};

// Sets `name` to `value` on `options` for a task of `family`. `late` tells
// whether the call that an option acts on has been made. On failure records
// the code from `codes` and returns false, leaving `options` as it was.
template <typename Late>
bool SetTaskOption(TaskOptions& options, unsigned family, const char* name, const char* value,
                   const OptionCodes& codes, Late late);

// The non-template part: looks `name` up for `family`. kUnknown when the
// family has no such option; otherwise the time it acts at.
enum class OptionLookup { kUnknown, kKnown };
OptionLookup FindOption(unsigned family, const char* name, OptionTime& time) noexcept;
// Applies a known option; false (nothing changed) when the value is not taken.
bool ApplyOption(TaskOptions& options, unsigned family, const char* name, const char* value) noexcept;

bool FailOption(uint64_t code) noexcept;

template <typename Late>
bool SetTaskOption(TaskOptions& options, unsigned family, const char* name, const char* value,
                   const OptionCodes& codes, Late late) {
  if (name == nullptr || value == nullptr) return FailOption(codes.parameter);
  OptionTime time{};
  if (FindOption(family, name, time) == OptionLookup::kUnknown) return FailOption(codes.unknown);
  if (late(time)) return FailOption(codes.late);
  return ApplyOption(options, family, name, value) || FailOption(codes.bad_value);
}

// What the open of an input takes from the task's options: a copy of the
// input.NAME entries with the strict policy's own entries added, and the
// forced demuxer. After the open, `unused` is true when an entry that the
// caller gave was left over (FFmpeg did not know it).
class InputOpenOptions {
 public:
  // `bridged`: the input is read through a caller function.
  InputOpenOptions(const TaskOptions* options, bool bridged) noexcept;
  InputOpenOptions(const InputOpenOptions&) = delete;
  InputOpenOptions& operator=(const InputOpenOptions&) = delete;
  ~InputOpenOptions();

  // False when the strict policy refuses `url` outright (anything but a local file).
  bool UrlAllowed(const char* url) const noexcept;
  // Sets the policy's context fields on `context` before the open (protocol
  // and format whitelists, probing bounds) and its read timeout among the
  // entries. False on an allocation failure.
  bool Prepare(AVFormatContext* context) noexcept;
  AVDictionary** Entries() noexcept { return &entries_; }
  const AVInputFormat* Format() const noexcept { return format_; }
  bool Strict() const noexcept { return strict_; }
  // After the open: an entry of the caller's that FFmpeg left unused.
  bool Unused() const noexcept;

 private:
  AVDictionary* entries_ = nullptr;
  const AVDictionary* given_ = nullptr;
  const AVInputFormat* format_ = nullptr;
  bool strict_ = false;
  bool bridged_ = false;
};

// How the header write of `output` went with the task's output options.
enum class HeaderResult {
  kWritten,
  kFailed,  // the muxer refused its set-up or its header
  kUnused,  // an output.NAME entry was not used by the muxer: nothing written
};

// The muxer's set-up with the task's output.NAME entries (and, for
// fragment_bridged_mp4, movflags for an MP4/MOV output written through a
// caller function), then the header. Without options this is exactly
// avformat_write_header(output, nullptr).
HeaderResult WriteHeader(AVFormatContext* output, const TaskOptions& options) noexcept;

}  // namespace quorvel
