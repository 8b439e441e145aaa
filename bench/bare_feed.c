// SPDX-License-Identifier: MIT
/*
 * bare_feed: the baseline for the caller-fed route: packets read from one
 * file are written into a new muxer whose streams were made from the input's
 * codec parameters.
 *
 *   bare_feed [-c] INPUT OUTPUT
 *
 * -c passes each packet through a buffer of the caller's, as a route whose two
 * ends exchange plain bytes does: the read copies the packet's bytes into the
 * buffer, and the write hands the muxer a packet without a reference of its
 * own, which FFmpeg's interleaving copies again.
 */
#include <string.h>

#include "bare.h"

int main(int argc, char** argv) {
  const int copy = argc == 4 && strcmp(argv[1], "-c") == 0;
  if (argc != 3 + copy) {
    fprintf(stderr, "usage: %s [-c] INPUT OUTPUT\n", argv[0]);
    return 2;
  }
  const char* input_path = argv[1 + copy];
  AVFormatContext* input = bare_open_input(input_path);
  AVFormatContext* output = bare_open_output(argv[2 + copy]);
  for (unsigned i = 0; i < input->nb_streams; ++i) bare_add_stream(output, input->streams[i]->codecpar);
  bare_write_header(output);

  const size_t capacity = 64u << 20;
  unsigned char* buffer = copy ? malloc(capacity) : NULL;
  if (copy && buffer == NULL) return 1;
  AVPacket* packet = av_packet_alloc();
  AVPacket* fed = av_packet_alloc();
  long long packets = 0;
  while (av_read_frame(input, packet) >= 0) {
    const int index = packet->stream_index;
    const AVRational from = input->streams[index]->time_base, to = output->streams[index]->time_base;
    if (copy) {
      if ((size_t)packet->size > capacity) bare_die("packet larger than the buffer in", input_path, 0);
      memcpy(buffer, packet->data, (size_t)packet->size);
      fed->data = buffer;
      fed->size = packet->size;
      fed->pts = packet->pts;
      fed->dts = packet->dts;
      fed->duration = packet->duration;
      fed->stream_index = index;
      av_packet_unref(packet);
      bare_rescale(fed, from, to);
      av_interleaved_write_frame(output, fed);
    } else {
      bare_rescale(packet, from, to);
      av_interleaved_write_frame(output, packet);
    }
    ++packets;
  }
  av_packet_free(&fed);
  av_packet_free(&packet);
  avformat_close_input(&input);
  bare_close_output(output);
  free(buffer);
  printf("packets written: %lld\n", packets);
  return 0;
}
