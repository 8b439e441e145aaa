// SPDX-License-Identifier: MIT
/*
 * bare_pull: the baseline for pulling every packet of a file. Reads each
 * packet with its stream index, size and timing.
 *
 *   bare_pull [-c] INPUT
 *
 * -c also copies each packet's bytes into a buffer of the caller's, as a
 * caller of a pull interface that hands out bytes (not FFmpeg packets) gets them.
 */
#include <string.h>

#include "bare.h"

int main(int argc, char** argv) {
  const int copy = argc == 3 && strcmp(argv[1], "-c") == 0;
  if (argc != 2 + copy) {
    fprintf(stderr, "usage: %s [-c] INPUT\n", argv[0]);
    return 2;
  }
  AVFormatContext* input = bare_open_input(argv[1 + copy]);
  const size_t capacity = 64u << 20;
  unsigned char* buffer = copy ? malloc(capacity) : NULL;
  if (copy && buffer == NULL) return 1;

  long long packets = 0, bytes = 0, last_pts = 0;
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input, packet) >= 0) {
    if (copy) {
      if ((size_t)packet->size > capacity) bare_die("packet larger than the buffer in", argv[1 + copy], 0);
      memcpy(buffer, packet->data, (size_t)packet->size);
    }
    bytes += packet->size;
    last_pts = packet->pts;
    ++packets;
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  avformat_close_input(&input);
  free(buffer);
  printf("packets read: %lld (%lld bytes, last pts %lld)\n", packets, bytes, last_pts);
  return 0;
}
