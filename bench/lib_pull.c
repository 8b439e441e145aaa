// SPDX-License-Identifier: MIT
/*
 * lib_pull: pulling every packet through the demultiplexing family's sized Read,
 * the contender of bare_pull -c. Each packet's bytes land in this program's
 * buffer together with its stream index, timing and time base.
 *
 *   lib_pull INPUT
 */
#include "lib.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s INPUT\n", argv[0]);
    return 2;
  }
  struct progress progress = {0, 0.0};
  void* task = require_task(AVFormat_UNPack_Init(count_packet, &progress), "demultiplexing");
  check(AVFormat_UNPack_Input(task, argv[1], NULL, NULL), "AVFormat_UNPack_Input");

  struct packet_buffer buffer = {NULL, 0};
  long long packets = 0, bytes = 0, last_pts = 0;
  int stream = 0, size = 0;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  while (read_packet(task, &buffer, &stream, &size, &info, &time_base)) {
    bytes += size;
    last_pts = info.pts;
    ++packets;
  }
  if (AVFormat_GetLastError(NULL) != ERROR_AVFORMAT_PACKET_READ) check(false, "AVFormat_UNPack_ReadSized");
  AVFormat_UNPack_Stop(task);
  free(buffer.data);
  printf("packets read: %lld (%lld bytes, last pts %lld)\n", packets, bytes, last_pts);
  return 0;
}
