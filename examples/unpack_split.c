// SPDX-License-Identifier: MIT
/*
 * unpack_split: splits a media file into one file per stream, without
 * re-encoding, on the demultiplexing family's worker thread. Shows counting
 * the streams with GetAVCodec and describing one output per stream with
 * AVCODEC_FORMATINFO records.
 *
 *   unpack_split INPUT PREFIX [EXTENSION]    e.g. unpack_split in.mkv part
 *
 * Writes PREFIX.0.EXTENSION, PREFIX.1.EXTENSION, ... (EXTENSION defaults to
 * mkv, whose container takes nearly every codec).
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <time.h>

#define MAX_STREAMS 64

/* Runs on the worker thread once per packet: type is the input stream index,
 * number that output's packet number from 0. */
static void on_packet(void* reserved, int stream, long long number, double seconds, void* context) {
  (void)reserved;
  (void)context;
  if (number % 50 == 0) printf("  stream %d: packet %lld at %.2f s\n", stream, number, seconds);
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "usage: %s INPUT PREFIX [EXTENSION]\n", argv[0]);
    return 2;
  }
  const char* extension = argc == 4 ? argv[3] : "mkv";
  void* task = AVFormat_UNPack_Init(on_packet, NULL);
  bool ok = task != NULL && AVFormat_UNPack_Input(task, argv[1], NULL, NULL);

  /* The input has no stream count: GetAVCodec refuses the first index past the last stream. */
  int streams = 0;
  while (ok && streams < MAX_STREAMS && AVFormat_UNPack_GetAVCodec(task, streams, NULL, NULL)) ++streams;

  /* Record i takes the codec parameters of input stream i, so it must also
   * name stream i as the one whose packets it receives. */
  AVCODEC_FORMATINFO records[MAX_STREAMS] = {0};
  AVCODEC_FORMATINFO* pointers[MAX_STREAMS];
  for (int i = 0; i < streams; ++i) {
    snprintf(records[i].szName, sizeof records[i].szName, "%s.%d.%s", argv[2], i, extension);
    records[i].nStreamIndex = i;
    pointers[i] = &records[i];
    printf("stream %d -> %s\n", i, records[i].szName);
  }
  AVCODEC_FORMATINFO** array = pointers;
  /* Output copies the records and writes each output's header at once. */
  ok = ok && AVFormat_UNPack_Output(task, &array, streams) && AVFormat_UNPack_Start(task);
  if (!ok) {
    fprintf(stderr, "split failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
    AVFormat_UNPack_Stop(task);
    return 1;
  }
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_UNPack_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  AVFormat_UNPack_Stop(task); /* writes every output's trailer and frees the task */
  printf("split %s into %d files\n", argv[1], streams);
  return 0;
}
