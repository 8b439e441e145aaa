/*
 * unpack_split: splits a media file into one file per stream, without
 * re-encoding, and prints the progress.
 *
 *   unpack_split INPUT PREFIX [EXTENSION]
 *
 * Writes PREFIX.0.EXTENSION, PREFIX.1.EXTENSION, ... (EXTENSION defaults to
 * mkv, whose container takes nearly every codec). Uses the public header only.
 */
#define _POSIX_C_SOURCE 199309L

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "Quorvel_AVFormat.h"

/* What the progress callback is told, per stream. Written by the worker
 * thread only; read once the worker has ended. */
struct Progress {
  int streams;
  long long* packets;
  double* seconds;
};

/* Runs on the worker thread once per packet. */
static void OnPacket(void* reserved, int stream, long long number, double seconds, void* context) {
  struct Progress* progress = (struct Progress*)context;
  (void)reserved;
  if (stream < 0 || stream >= progress->streams) return;
  progress->packets[stream] = number + 1;
  progress->seconds[stream] = seconds;
  if (number % 50 == 0) printf("  stream %d: packet %lld at %.2f s\n", stream, number, seconds);
}

static int Fail(const char* what) {
  fprintf(stderr, "unpack_split: %s failed with error 0x%" PRIx64 "\n", what, AVFormat_GetLastError(NULL));
  return 1;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s INPUT PREFIX [EXTENSION]\n", argv[0]);
    return 2;
  }
  const char* extension = argc > 3 ? argv[3] : "mkv";
  struct Progress progress = {0, NULL, NULL};
  void* task = AVFormat_UNPack_Init(OnPacket, &progress);
  if (task == NULL) return Fail("AVFormat_UNPack_Init");
  if (!AVFormat_UNPack_Input(task, argv[1], NULL, NULL)) {
    AVFormat_UNPack_Stop(task);
    return Fail("AVFormat_UNPack_Input");
  }

  /* The header has no stream count: GetAVCodec refuses the first index past the last stream. */
  AVCODEC_TIMEBASE time_base;
  while (AVFormat_UNPack_GetAVCodec(task, progress.streams, NULL, &time_base)) ++progress.streams;
  progress.packets = (long long*)calloc((size_t)progress.streams + 1, sizeof *progress.packets);
  progress.seconds = (double*)calloc((size_t)progress.streams + 1, sizeof *progress.seconds);
  AVCODEC_FORMATINFO* records = (AVCODEC_FORMATINFO*)calloc((size_t)progress.streams + 1, sizeof *records);
  AVCODEC_FORMATINFO** pointers = (AVCODEC_FORMATINFO**)calloc((size_t)progress.streams + 1, sizeof *pointers);
  int status = 0;
  if (progress.packets == NULL || progress.seconds == NULL || records == NULL || pointers == NULL) {
    fprintf(stderr, "unpack_split: out of memory\n");
    status = 1;
    goto done;
  }

  /* Record i names stream i: each output takes its codec parameters from
   * the stream at its own position. */
  for (int i = 0; i < progress.streams; ++i) {
    snprintf(records[i].szName, sizeof records[i].szName, "%s.%d.%s", argv[2], i, extension);
    records[i].nStreamIndex = i;
    pointers[i] = &records[i];
    printf("stream %d -> %s\n", i, records[i].szName);
  }
  if (!AVFormat_UNPack_Output(task, &pointers, progress.streams)) {
    status = Fail("AVFormat_UNPack_Output");
    goto done;
  }
  if (!AVFormat_UNPack_Start(task)) {
    status = Fail("AVFormat_UNPack_Start");
    goto done;
  }
  bool running = true;
  while (AVFormat_UNPack_GetStatus(task, &running) && running) {
    const struct timespec poll = {0, 100 * 1000 * 1000};
    nanosleep(&poll, NULL);
  }
  for (int i = 0; i < progress.streams; ++i)
    printf("%s: %lld packets, last at %.2f s\n", records[i].szName, progress.packets[i], progress.seconds[i]);

done:
  /* Stop writes the trailers and frees the task, also after a failure. */
  AVFormat_UNPack_Stop(task);
  free(pointers);
  free(records);
  free(progress.seconds);
  free(progress.packets);
  return status;
}
