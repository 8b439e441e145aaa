/*
 * Rebuilds a file packet by packet, without a worker thread: the demultiplexing
 * family reads each packet and its timing, the multiplexing family writes it.
 * Every stream is copied; its packets keep their data and times (a video
 * packet lasts 1/den of its time base, see AVFormat_Packet_StreamWrite).
 *
 *   packet_rebuild INPUT OUTPUT        e.g. packet_rebuild in.mkv out.mp4
 */
#include <stdio.h>
#include <stdlib.h>

#include "Quorvel_AVFormat.h"

/* Read has no size argument: the buffer must hold the input's largest packet. */
#define MAX_PACKET (16 * 1024 * 1024)

int main(int argc, char** argv) {
  void* unpack = NULL;
  void* packet = NULL;
  unsigned char* data = NULL;
  int streams = 0, stream, size, written = 0, status = 1;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;

  if (argc != 3) {
    fprintf(stderr, "usage: %s INPUT OUTPUT\n", argv[0]);
    return 2;
  }
  data = malloc(MAX_PACKET);
  unpack = AVFormat_UNPack_Init(NULL, NULL);
  packet = AVFormat_Packet_Init(NULL, NULL);
  if (data == NULL || unpack == NULL || packet == NULL) goto done;
  if (!AVFormat_UNPack_Input(unpack, argv[1], NULL, NULL) || !AVFormat_Packet_Output(packet, argv[2], 0, 0, NULL, NULL))
    goto done;

  /* One output stream per input stream, in the same order, so that a packet's
   * input stream index is also its output stream index. */
  for (;;) {
    void* parameters = NULL;
    bool created;
    if (!AVFormat_UNPack_GetAVCodec(unpack, streams, &parameters, NULL)) break; /* no such stream: done */
    created = AVFormat_Packet_StreamCreate(packet, parameters);
    free(parameters); /* a shallow copy: released with free() only, and before UNPack_Stop */
    if (!created) goto done;
    ++streams;
  }

  /* The first write writes the header. Read fails at the end of the input. */
  while (AVFormat_UNPack_Read(unpack, &stream, data, &size, &info, &time_base)) {
    if (!AVFormat_Packet_StreamWrite(packet, stream, data, size, &time_base, &info))
      fprintf(stderr, "packet %d of stream %d refused: error 0x%llX\n", written, stream,
              (unsigned long long)AVFormat_GetLastError(NULL));
    ++written;
  }
  if (AVFormat_GetLastError(NULL) == ERROR_AVFORMAT_PACKET_READ) status = 0;
  fprintf(stderr, "%d packets of %d streams written to %s\n", written, streams, argv[2]);

done:
  if (status != 0) fprintf(stderr, "failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
  /* Stop writes the trailer; the order of the two Stops does not matter here. */
  AVFormat_Packet_Stop(packet);
  AVFormat_UNPack_Stop(unpack);
  free(data);
  return status;
}
