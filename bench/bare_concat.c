// SPDX-License-Identifier: MIT
/*
 * bare_concat: the baseline for joining files end to end. The output's video
 * and audio streams are made from the first input; each input's first video
 * and audio streams are copied in turn, each kind's timestamps moved so that
 * its first packet follows the end of that kind in the previous inputs (all
 * inputs share codecs and time bases). With -c it does what the family's
 * practical mode does instead: all streams of an input are moved together so
 * that the input starts where the previous ones ended (the largest pts +
 * duration written), and decode times are kept strictly increasing.
 *
 *   bare_concat [-c] OUTPUT INPUT [INPUT ...]
 */
#include "bare.h"

int main(int argc, char** argv) {
  const int continuous = argc > 1 && strcmp(argv[1], "-c") == 0;
  argv += continuous;
  argc -= continuous;
  if (argc < 3) {
    fprintf(stderr, "usage: %s [-c] OUTPUT INPUT [INPUT ...]\n", argv[0]);
    return 2;
  }
  AVFormatContext* output = bare_open_output(argv[1]);
  int output_stream[2] = {-1, -1};  /* video, audio */
  int64_t end[2] = {0, 0};          /* where each kind ended so far, in the inputs' time base */
  int64_t end_all = 0;              /* -c: where the inputs ended so far, in AV_TIME_BASE */
  int64_t last_dts[2] = {INT64_MIN, INT64_MIN};
  long long packets = 0;
  AVPacket* packet = av_packet_alloc();

  for (int i = 2; i < argc; ++i) {
    AVFormatContext* input = bare_open_input(argv[i]);
    int input_stream[2] = {-1, -1};
    for (unsigned s = 0; s < input->nb_streams; ++s) {
      const enum AVMediaType type = input->streams[s]->codecpar->codec_type;
      const int kind = type == AVMEDIA_TYPE_VIDEO ? 0 : type == AVMEDIA_TYPE_AUDIO ? 1 : -1;
      if (kind < 0 || input_stream[kind] >= 0) continue;
      input_stream[kind] = (int)s;
      if (output_stream[kind] < 0 && i == 2) output_stream[kind] = bare_add_stream(output, input->streams[s]->codecpar)->index;
    }
    if (i == 2) bare_write_header(output);

    int64_t offset[2] = {0, 0};
    int started[2] = {0, 0};
    /* -c: how far this input moves, the same for all of its streams */
    const int64_t shift = end_all - (input->start_time == AV_NOPTS_VALUE ? 0 : input->start_time);
    while (av_read_frame(input, packet) >= 0) {
      const int kind = packet->stream_index == input_stream[0] ? 0 : packet->stream_index == input_stream[1] ? 1 : -1;
      if (kind < 0 || output_stream[kind] < 0) {
        av_packet_unref(packet);
        continue;
      }
      const AVRational from = input->streams[packet->stream_index]->time_base;
      if (!started[kind]) {
        started[kind] = 1;
        if (continuous)
          offset[kind] = av_rescale_q(shift, AV_TIME_BASE_Q, from);
        else if (i > 2 && packet->dts != AV_NOPTS_VALUE)
          offset[kind] = end[kind] - packet->dts;
      }
      if (packet->pts != AV_NOPTS_VALUE) packet->pts += offset[kind];
      if (packet->dts != AV_NOPTS_VALUE) packet->dts += offset[kind];
      if (packet->pts != AV_NOPTS_VALUE && packet->pts + packet->duration > end[kind])
        end[kind] = packet->pts + packet->duration;
      if (continuous && packet->dts != AV_NOPTS_VALUE) {
        if (packet->dts <= last_dts[kind]) packet->dts = last_dts[kind] + 1;
        if (packet->pts != AV_NOPTS_VALUE && packet->pts < packet->dts) packet->pts = packet->dts;
        last_dts[kind] = packet->dts;
      }
      if (continuous && packet->pts != AV_NOPTS_VALUE) {
        const int64_t packet_end = av_rescale_q(packet->pts + packet->duration, from, AV_TIME_BASE_Q);
        if (packet_end > end_all) end_all = packet_end;
      }
      packet->stream_index = output_stream[kind];
      bare_rescale(packet, from, output->streams[output_stream[kind]]->time_base);
      av_interleaved_write_frame(output, packet);
      ++packets;
    }
    avformat_close_input(&input);
  }
  av_packet_free(&packet);
  bare_close_output(output);
  printf("packets written: %lld\n", packets);
  return 0;
}
