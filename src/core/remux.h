// SPDX-License-Identifier: MIT
// The steps that every family's copy of packets takes alike: describing an
// output stream from an input stream's codec parameters, and moving a
// packet's times to the output stream's time base.
#pragma once

#include "core/ffmpeg.h"

namespace quorvel {

// Which step of making an output stream failed; the families report a code
// of their own for each.
enum class StreamStep {
  kDone,            // made, parameters copied
  kNewStream,       // avformat_new_stream failed: nothing was added
  kCopyParameters,  // avcodec_parameters_copy failed: the stream stays in the output
};

// Adds a stream to `output` described by a deep copy of `parameters`, with
// the codec tag cleared so that the output container chooses its own. With
// `keep_tag` (the task option keep_codec_tag) the tag stays where the
// container takes it: it has no tag tables, its tables map the tag to this
// codec, or they have no tag of their own for the codec, which the muxer could
// then write with none at all. This is what ffmpeg's stream copy keeps. The
// stream goes to `made`, when given.
StreamStep NewOutputStream(AVFormatContext* output, const AVCodecParameters* parameters, bool keep_tag,
                           AVStream** made = nullptr) noexcept;

// Rescales a packet's pts and dts to the nearest tick of `to`, passing the
// extreme values (AV_NOPTS_VALUE, INT64_MAX) through unchanged, and its
// duration to the nearest tick whatever its sign; the packet is then counted
// in `to`. This differs from av_packet_rescale_ts, which leaves a negative
// duration alone and rescales INT64_MAX (see the concatenation worker).
void RescaleTimes(AVPacket* packet, AVRational from, AVRational to) noexcept;

// Whether a packet's times, counted in its time_base, are ones a muxer can
// take: pts, dts and duration within 2^31 seconds (some 68 years) either way
// from 0. Muxers convert times between their streams' time bases and add
// durations to them; NUT, for one, converts a time into every other stream's
// time base and fails an assertion that ends the process when the result
// overflows. A time base's denominator is below 2^31, so within this bound a
// time stays within 2^62 ticks of any time base, and a sum of two still fits.
// `pts_set` and `dts_set` say whether the source gave that time: an unset time
// stays unset, while a set one that overflowed on rescaling came out as
// AV_NOPTS_VALUE, which is out of bounds.
bool TimesFit(const AVPacket& packet, bool pts_set, bool dts_set) noexcept;

}  // namespace quorvel
