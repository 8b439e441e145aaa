// SPDX-License-Identifier: MIT
/*
 * packet_rebuild: rebuilds a file packet by packet, without a worker thread:
 * the demultiplexing family pulls each packet with its timing (UNPack_ReadSized),
 * the multiplexing family writes it (Packet_StreamWrite). Shows GetAVCodec's
 * codec parameters and time bases feeding StreamCreate. Every stream is
 * copied with its packets' data and times unchanged.
 *
 *   packet_rebuild INPUT OUTPUT    e.g. packet_rebuild in.mkv out.mp4
 *
 * StreamWrite gives each packet of the video stream a duration of 1/den of
 * the time base passed with it, whatever its own duration: 1 ms with
 * Matroska's 1/1000. Matroska and MP4 time frames by their timestamps, so
 * this shows only as a short last frame.
 */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s INPUT OUTPUT\n", argv[0]);
    return 2;
  }
  /* Grown to the largest packet met: no size taken from the file bounds a packet. */
  unsigned char* data = NULL;
  int capacity = 0;
  /* No worker runs on this route, so neither task needs a progress callback. */
  void* unpack = AVFormat_UNPack_Init(NULL, NULL);
  void* packet = AVFormat_Packet_Init(NULL, NULL);
  bool ok = unpack != NULL && packet != NULL && AVFormat_UNPack_Input(unpack, argv[1], NULL, NULL) &&
            AVFormat_Packet_Output(packet, argv[2], 0, 0, NULL, NULL);

  /* One output stream per input stream, in the same order, so that a packet's
   * input stream index is also its output stream index. GetAVCodec refuses
   * the first index past the last stream. */
  int streams = 0;
  void* parameters = NULL;
  AVCODEC_TIMEBASE time_base;
  while (ok && AVFormat_UNPack_GetAVCodec(unpack, streams, &parameters, &time_base)) {
    printf("stream %d: time base %d/%d\n", streams, time_base.num, time_base.den);
    ok = AVFormat_Packet_StreamCreate(packet, parameters); /* deep-copies them */
    free(parameters); /* a shallow copy of the input's: free() only, and before UNPack_Stop */
    ++streams;
  }

  /* The first write writes the header; ReadSized fails with ERROR_AVFORMAT_PACKET_READ
   * at the end, and with ERROR_AVFORMAT_PACKET_BUFFERSIZE (the packet kept, its
   * size stored) when the buffer is too small. */
  long long written = 0;
  int stream, size, flags;
  AVCODEC_PACKETINFO info;
  while (ok) {
    if (!AVFormat_UNPack_ReadSized(unpack, &stream, data, capacity, &size, &flags, &info, &time_base)) {
      if (AVFormat_GetLastError(NULL) != ERROR_AVFORMAT_PACKET_BUFFERSIZE) break;
      unsigned char* larger = realloc(data, (size_t)size);
      ok = larger != NULL;
      if (ok) data = larger, capacity = size;
      continue;
    }
    if (AVFormat_Packet_StreamWrite(packet, stream, data, size, &time_base, &info))
      ++written;
    else
      fprintf(stderr, "a packet of stream %d was refused: error 0x%llX\n", stream,
              (unsigned long long)AVFormat_GetLastError(NULL));
  }
  ok = ok && AVFormat_GetLastError(NULL) == ERROR_AVFORMAT_PACKET_READ;
  if (ok)
    printf("%lld packets of %d streams written to %s\n", written, streams, argv[2]);
  else
    fprintf(stderr, "rebuild failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
  AVFormat_Packet_Stop(packet); /* writes the trailer; the order of the two Stops does not matter */
  AVFormat_UNPack_Stop(unpack);
  free(data);
  return ok ? 0 : 1;
}
