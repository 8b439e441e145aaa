/*
 * packet_rebuild: rebuilds a file packet by packet, without a worker thread:
 * the demultiplexing family pulls each packet with its timing (UNPack_Read),
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

/* Read has no size argument: the buffer must hold the input's largest packet. */
#define MAX_PACKET (16 * 1024 * 1024)

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s INPUT OUTPUT\n", argv[0]);
    return 2;
  }
  unsigned char* data = malloc(MAX_PACKET);
  /* No worker runs on this route, so neither task needs a progress callback. */
  void* unpack = AVFormat_UNPack_Init(NULL, NULL);
  void* packet = AVFormat_Packet_Init(NULL, NULL);
  bool ok = data != NULL && unpack != NULL && packet != NULL && AVFormat_UNPack_Input(unpack, argv[1], NULL, NULL) &&
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

  /* The first write writes the header; Read fails with ERROR_AVFORMAT_PACKET_READ at the end. */
  long long written = 0;
  int stream, size;
  AVCODEC_PACKETINFO info;
  while (ok && AVFormat_UNPack_Read(unpack, &stream, data, &size, &info, &time_base)) {
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
