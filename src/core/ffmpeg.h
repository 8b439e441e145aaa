// SPDX-License-Identifier: MIT
// FFmpeg, as the library uses it: the one place that hides the differences
// between the supported versions (5.1 to 9.0), and the owning holders of
// FFmpeg objects.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
}

#include <cstdint>
#include <memory>

#include "core/ffmpeg_version.h"

namespace quorvel {

// The buffer type of an AVIOContext's write function: const from libavformat 61 (FFmpeg 7) on.
#if QUORVEL_AVIO_WRITE_TAKES_CONST
using AVIOWriteBuffer = const uint8_t*;
#else
using AVIOWriteBuffer = uint8_t*;
#endif

// The time base that a packet's times, as av_read_frame delivered them, are
// counted in. Some versions and demuxers leave AVPacket::time_base unset (0/1);
// the times are then in their stream's time base.
inline AVRational PacketTimeBase(const AVPacket* packet, const AVFormatContext* input) noexcept {
  if (packet->time_base.num != 0 && packet->time_base.den != 0) return packet->time_base;
  if (packet->stream_index >= 0 && static_cast<unsigned>(packet->stream_index) < input->nb_streams)
    return input->streams[packet->stream_index]->time_base;
  return packet->time_base;
}

// Closes an output's file, if it has one of its own. A caller-I/O context
// (AVFMT_FLAG_CUSTOM_IO) is never handed to avio_close: its bridge owns it.
inline void CloseOutputFile(AVFormatContext* output) noexcept {
  if (output == nullptr || (output->flags & AVFMT_FLAG_CUSTOM_IO) != 0) return;
  if (output->oformat != nullptr && (output->oformat->flags & AVFMT_NOFILE) != 0) return;
  avio_closep(&output->pb);
}

struct InputContextClose {
  void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
struct OutputContextFree {
  void operator()(AVFormatContext* context) const noexcept {
    CloseOutputFile(context);
    avformat_free_context(context);
  }
};
struct PacketFree {
  void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};
struct AvFree {
  void operator()(void* memory) const noexcept { av_free(memory); }
};

// An opened (or allocated, not yet opened) input.
using InputContext = std::unique_ptr<AVFormatContext, InputContextClose>;
// An output context; releasing it also closes its file.
using OutputContext = std::unique_ptr<AVFormatContext, OutputContextFree>;
using Packet = std::unique_ptr<AVPacket, PacketFree>;

inline Packet MakePacket() noexcept {
  return Packet(av_packet_alloc());
}

}  // namespace quorvel
