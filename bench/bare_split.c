// SPDX-License-Identifier: MIT
/*
 * bare_split: the baseline for splitting a file by stream. Output i receives
 * the packets of input stream i, in a container of its own.
 *
 *   bare_split INPUT OUTPUT0 [OUTPUT1 ...]
 */
#include "bare.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s INPUT OUTPUT0 [OUTPUT1 ...]\n", argv[0]);
    return 2;
  }
  AVFormatContext* input = bare_open_input(argv[1]);
  const int count = argc - 2;
  if (count > (int)input->nb_streams) bare_die("more outputs than streams in", argv[1], 0);

  AVFormatContext** outputs = calloc((size_t)count, sizeof *outputs);
  if (outputs == NULL) return 1;
  for (int i = 0; i < count; ++i) {
    outputs[i] = bare_open_output(argv[2 + i]);
    bare_add_stream(outputs[i], input->streams[i]->codecpar);
    bare_write_header(outputs[i]);
  }

  long long packets = 0;
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input, packet) >= 0) {
    const int index = packet->stream_index;
    if (index >= count) {
      av_packet_unref(packet);
      continue;
    }
    AVFormatContext* output = outputs[index];
    packet->stream_index = 0;
    bare_rescale(packet, input->streams[index]->time_base, output->streams[0]->time_base);
    av_interleaved_write_frame(output, packet);
    ++packets;
  }
  av_packet_free(&packet);
  avformat_close_input(&input);
  for (int i = 0; i < count; ++i) bare_close_output(outputs[i]);
  free(outputs);
  printf("packets written: %lld\n", packets);
  return 0;
}
