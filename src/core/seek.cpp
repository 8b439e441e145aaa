#include "core/seek.h"

namespace quorvel {

int64_t SeekToKeyFrame(AVFormatContext* input, int stream, int64_t target) noexcept {
  // No lower bound: the demuxer lands at or before the target.
  const auto seek = [input, target] { return avformat_seek_file(input, -1, INT64_MIN, target, target, 0) >= 0; };
  Packet packet = MakePacket();
  if (!packet || !seek()) return AV_NOPTS_VALUE;
  // The key frame's own time is known once it is read; the same seek then
  // puts the read back in front of it.
  int64_t key = AV_NOPTS_VALUE;
  while (key == AV_NOPTS_VALUE && av_read_frame(input, packet.get()) >= 0) {
    const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (packet->stream_index == stream && (packet->flags & AV_PKT_FLAG_KEY) != 0 && time != AV_NOPTS_VALUE)
      key = av_rescale_q(time, PacketTimeBase(packet.get(), input), AV_TIME_BASE_Q);
    av_packet_unref(packet.get());
  }
  return seek() ? key : AV_NOPTS_VALUE;
}

}  // namespace quorvel
