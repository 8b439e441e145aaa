// SPDX-License-Identifier: MIT
/*
 * lib_feed: the caller-fed route, the contender of bare_feed -c. Packets
 * pulled with the demultiplexing family's sized Read are written with the
 * multiplexing family's StreamWrite into streams made from the input's codec
 * parameters (GetAVCodec, StreamCreate).
 *
 *   lib_feed INPUT OUTPUT
 */
#include "lib.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s INPUT OUTPUT\n", argv[0]);
    return 2;
  }
  struct progress progress = {0, 0.0};
  void* reader = require_task(AVFormat_UNPack_Init(count_packet, &progress), "demultiplexing");
  check(AVFormat_UNPack_Input(reader, argv[1], NULL, NULL), "AVFormat_UNPack_Input");
  void* writer = require_task(AVFormat_Packet_Init(count_packet, &progress), "multiplexing");
  check(AVFormat_Packet_Output(writer, argv[2], 0.0, 0.0, NULL, NULL), "AVFormat_Packet_Output");

  /* One output stream per input stream, in the input's order; the interface
   * has no stream count, so ask until there is no such stream. */
  int streams = 0;
  for (;; ++streams) {
    void* parameters = NULL;
    if (!AVFormat_UNPack_GetAVCodec(reader, streams, &parameters, NULL)) break;
    check(AVFormat_Packet_StreamCreate(writer, parameters), "AVFormat_Packet_StreamCreate");
    free(parameters);
  }
  if (streams == 0) check(false, "AVFormat_UNPack_GetAVCodec");

  struct packet_buffer buffer = {NULL, 0};
  long long packets = 0;
  int stream = 0, size = 0;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  while (read_packet(reader, &buffer, &stream, &size, &info, &time_base)) {
    check(AVFormat_Packet_StreamWrite(writer, stream, buffer.data, size, &time_base, &info),
          "AVFormat_Packet_StreamWrite");
    ++packets;
  }
  if (AVFormat_GetLastError(NULL) != ERROR_AVFORMAT_PACKET_READ) check(false, "AVFormat_UNPack_ReadSized");
  AVFormat_Packet_Stop(writer);
  AVFormat_UNPack_Stop(reader);
  free(buffer.data);
  printf("packets written: %lld\n", packets);
  return 0;
}
