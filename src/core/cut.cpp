// SPDX-License-Identifier: MIT
#include "core/cut.h"

#include <cmath>
#include <new>

#include "core/worker.h"

namespace quorvel {
namespace {

// A time in seconds; NaN (which compares false with anything) when unset.
double Seconds(int64_t ticks, AVRational base) noexcept {
  return ticks == AV_NOPTS_VALUE ? std::nan("") : static_cast<double>(ticks) * av_q2d(base);
}

}  // namespace

bool Cut::Allocate(size_t count) noexcept {
  lanes_.reset(new (std::nothrow) CutLane[count == 0 ? 1 : count]);
  open_ = lanes_ ? count : 0;
  return static_cast<bool>(lanes_);
}

void Cut::Close(CutLane& lane) noexcept {
  if (lane.closed) return;
  lane.closed = true;
  --open_;
}

void Cut::SeekToStart(AVFormatContext* input, std::mutex& input_lock, double start, bool always) noexcept {
  // Without a start, zero is where the input starts (the earliest time over
  // its streams), not the first packet written, which may be later than
  // another stream's first one (audio ahead of video with B-frames).
  if (options_.zero_start && !(start > 0.0) && input->start_time != AV_NOPTS_VALUE) {
    shift_ = input->start_time;
    shift_base_ = AV_TIME_BASE_Q;
    shift_from_input_ = true;
  }
  if (!(options_.keyframe_start || always) || !(start > 0.0)) return;
  const double target = start * AV_TIME_BASE;
  if (!(target < 9.2e18)) return;
  const auto ticks = static_cast<int64_t>(target);
  // A start at or past the input's end has no key frame before it to begin
  // at: without a landing, only packets that reach the start are kept, none.
  if (input->duration != AV_NOPTS_VALUE && input->duration > 0) {
    const int64_t first = input->start_time != AV_NOPTS_VALUE ? input->start_time : 0;
    if (first <= INT64_MAX - input->duration && ticks >= first + input->duration) return;
  }
  const std::lock_guard<std::mutex> lock(input_lock);
  // Any position up to the start: the demuxer takes the key frame at or before it.
  landed_ = avformat_seek_file(input, -1, INT64_MIN, ticks, ticks, 0) >= 0;
  landing_start_ = start;
}

void Cut::FillTimes(CutLane& lane, AVPacket* packet, const AVStream* stream) const noexcept {
  if (options_.dts_as_pts) CompleteTimes(packet, stream, lane.count++, true);
}

bool Cut::Admit(CutLane& lane, const AVPacket* packet, AVRational base, double seconds) noexcept {
  const double pts = Seconds(packet->pts, base);
  const double decode = packet->dts != AV_NOPTS_VALUE ? Seconds(packet->dts, base) : pts;
  if (options_.end_exclusive && lane.end > 0.0 && decode >= lane.end) Close(lane);
  if (lane.closed) return false;
  if (!options_.keyframe_start) return lane.start <= 0.0 || seconds >= lane.start;
  if (!lane.begun) {
    const bool reached = lane.start <= 0.0 || (landed_ && lane.start == landing_start_) || pts >= lane.start;
    if (!reached || (lane.video && (packet->flags & AV_PKT_FLAG_KEY) == 0)) return false;
    lane.begun = true;
  }
  return true;
}

void Cut::Shift(AVPacket* packet, AVRational base) noexcept {
  if (!options_.zero_start) return;
  const int64_t first = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
  // The input's start may lie after the first packet (some versions count
  // it past an audio stream's priming samples): the earlier one is zero.
  if (shift_from_input_ && first != AV_NOPTS_VALUE && av_compare_ts(first, base, shift_, shift_base_) < 0) {
    shift_ = first;
    shift_base_ = base;
  }
  shift_from_input_ = false;
  if (shift_ == AV_NOPTS_VALUE) {
    shift_ = first;
    shift_base_ = base;
    if (shift_ == AV_NOPTS_VALUE) return;
  }
  const int64_t ticks = av_rescale_q(shift_, shift_base_, base);
  if (packet->pts != AV_NOPTS_VALUE) packet->pts -= ticks;
  if (packet->dts != AV_NOPTS_VALUE) packet->dts -= ticks;
}

}  // namespace quorvel
