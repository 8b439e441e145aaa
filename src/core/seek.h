// Starting a read part-way into an input: the key frame at or before a time.
#pragma once

#include <cstdint>

#include "core/ffmpeg.h"

namespace quorvel {

// Seeks `input` (avformat_seek_file, backward) to `target` (AV_TIME_BASE
// units on the input's own timeline) and returns the time of the key frame of
// `stream` that the read then starts from, in the same units, with the input
// positioned to read from there. AV_NOPTS_VALUE when there is no such key
// frame: the input then reads from the seek point, or, when it can't seek,
// from where it was.
int64_t SeekToKeyFrame(AVFormatContext* input, int stream, int64_t target) noexcept;

}  // namespace quorvel
