// SPDX-License-Identifier: MIT
#include "core/remux.h"

namespace quorvel {

namespace {

bool TagAccepted(const AVOutputFormat* format, AVCodecID codec, unsigned tag) noexcept {
  if (tag == 0 || format->codec_tag == nullptr) return true;
  unsigned own = 0;
  return av_codec_get_id(format->codec_tag, tag) == codec || av_codec_get_tag2(format->codec_tag, codec, &own) == 0;
}

}  // namespace

StreamStep NewOutputStream(AVFormatContext* output, const AVCodecParameters* parameters, bool keep_tag,
                           AVStream** made) noexcept {
  AVStream* stream = avformat_new_stream(output, nullptr);
  if (stream == nullptr) return StreamStep::kNewStream;
  if (made != nullptr) *made = stream;
  if (avcodec_parameters_copy(stream->codecpar, parameters) < 0) return StreamStep::kCopyParameters;
  if (!keep_tag || !TagAccepted(output->oformat, parameters->codec_id, parameters->codec_tag))
    stream->codecpar->codec_tag = 0;
  return StreamStep::kDone;
}

void RescaleTimes(AVPacket* packet, AVRational from, AVRational to) noexcept {
  const auto rounding = static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX);
  packet->pts = av_rescale_q_rnd(packet->pts, from, to, rounding);
  packet->dts = av_rescale_q_rnd(packet->dts, from, to, rounding);
  packet->duration = av_rescale_q(packet->duration, from, to);
  packet->time_base = to;
}

bool TimesFit(const AVPacket& packet, bool pts_set, bool dts_set) noexcept {
  constexpr int64_t kLargestSeconds = int64_t{1} << 31;
  const int64_t largest = av_rescale_q(kLargestSeconds, AVRational{1, 1}, packet.time_base);
  const auto fits = [largest](int64_t ticks) { return ticks >= -largest && ticks <= largest; };
  return (!pts_set || fits(packet.pts)) && (!dts_set || fits(packet.dts)) && fits(packet.duration);
}

}  // namespace quorvel
