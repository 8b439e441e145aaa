// SPDX-License-Identifier: MIT
// The practical cut that conversion and demultiplexing share: the start
// reached by seeking back to a key frame (keyframe_start), an end that a
// packet must come before (end_exclusive), one shift that moves the whole
// output to 0 (zero_start) and decode times taken as presentation times
// (dts_as_pts). Each part acts only behind its flag; with none set a cut
// keeps exactly the defined rules: a packet is written when its time is at
// or after the start, tested packet by packet.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>

#include "core/ffmpeg.h"
#include "core/options.h"

namespace quorvel {

// One way through a cut: an input stream of a conversion, an output of a
// demultiplexing task. Start and end are seconds on the input's timeline, 0
// or less for none.
struct CutLane {
  double start = 0.0;
  double end = 0.0;
  bool video = false;   // begins at a key frame (keyframe_start)
  bool begun = false;   // keyframe_start: its first packet was kept
  bool closed = false;  // passed its end, or its output takes nothing more
  int64_t count = 0;    // dts_as_pts: its packets so far, for times made up
};

class Cut {
 public:
  explicit Cut(const TaskOptions& options) noexcept : options_(options) {}

  // Room for `count` lanes, all open; false when it can't be allocated.
  bool Allocate(size_t count) noexcept;
  CutLane& Lane(size_t index) noexcept { return lanes_[index]; }
  // Takes a lane out of the run (it passed its end, or its output failed);
  // counted once.
  void Close(CutLane& lane) noexcept;
  // True once every lane that can still take packets is closed.
  bool AllClosed() const noexcept { return open_ == 0; }

  // keyframe_start, before the first read: seeks `input` (under
  // `input_lock`) back to the key frame at or before `start` seconds, so that
  // lanes with that start begin at the landing point. Nothing for a start of
  // 0 or less, without the flag, or when the input can't seek: those lanes
  // then begin at their first packet at or after their start (video: a key
  // frame). With zero_start and no start, also takes the input's start as
  // the output's zero. `always` seeks also without keyframe_start, only so
  // that the packets before the start are not read: the lanes then keep the
  // defined start rule.
  void SeekToStart(AVFormatContext* input, std::mutex& input_lock, double start, bool always = false) noexcept;
  // The last SeekToStart moved the input.
  bool Landed() const noexcept { return landed_; }

  // dts_as_pts: CompleteTimes, with made-up times numbered by the lane's own
  // packet count.
  void FillTimes(CutLane& lane, AVPacket* packet, const AVStream* stream) const noexcept;

  // Whether `packet` (times in `base`) is written. `seconds` is the time
  // the defined start rule compares. With end_exclusive a packet whose decode
  // time is at or past the lane's end closes the lane: decode times only grow,
  // so nothing after it can come before the end, while a packet that is shown
  // later (a reference frame ahead of B-frames) is still kept before it.
  bool Admit(CutLane& lane, const AVPacket* packet, AVRational base, double seconds) noexcept;

  // zero_start: moves the packet back by the time of the first packet that
  // was written (without a start: by the input's start), the same amount for
  // every lane, so that the output starts at 0.
  void Shift(AVPacket* packet, AVRational base) noexcept;

 private:
  const TaskOptions& options_;
  std::unique_ptr<CutLane[]> lanes_;
  size_t open_ = 0;
  bool landed_ = false;  // the seek to the start succeeded
  double landing_start_ = 0.0;
  int64_t shift_ = AV_NOPTS_VALUE;  // zero_start, in shift_base_
  AVRational shift_base_{0, 1};
  bool shift_from_input_ = false;  // shift_ is the input's start, not yet compared with a packet
};

}  // namespace quorvel
