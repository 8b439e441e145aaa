// SPDX-License-Identifier: MIT
/*
 * convert_file: remuxes one media file into another container, optionally
 * cut, on the conversion family's worker thread. Shows the call order (Output
 * before Input), the progress callback, pausing and resuming, polling the
 * status, and Stop, which writes the trailer.
 *
 *   convert_file INPUT OUTPUT [START END]    e.g. convert_file in.mp4 out.mkv 2 6
 *
 * OUTPUT's extension decides the container (.mkv, .mp4, .ts, ...). START and
 * END are seconds on the input's own timeline; the task ends on a packet whose
 * time equals END exactly, and runs to the end of the input if none does.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

struct progress {
  long long packets;
  double seconds;
};

/* Runs on the worker thread once per packet of a kept stream, also for the
 * packets before START, which are read but not written. */
static void on_packet(void* reserved, int media_type, long long number, double seconds, void* context) {
  struct progress* progress = context;
  (void)reserved;
  progress->packets = number + 1;
  progress->seconds = seconds;
  if (number % 50 == 0) printf("  packet %5lld  %-5s  %8.3f s\n", number, media_type == 0 ? "video" : "audio", seconds);
}

static void sleep_ms(long ms) {
  const struct timespec pause = {0, ms * 1000000L};
  nanosleep(&pause, NULL);
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    fprintf(stderr, "usage: %s INPUT OUTPUT [START END]\n", argv[0]);
    return 2;
  }
  const double start = argc == 5 ? atof(argv[3]) : 0.0;
  const double end = argc == 5 ? atof(argv[4]) : 0.0;

  struct progress progress = {0, 0.0};
  void* task = AVFormat_Convert_Init(on_packet, &progress);
  /* Output first: Input makes one output stream per video, audio and subtitle stream. */
  if (task == NULL || !AVFormat_Convert_Output(task, argv[2], start, end, NULL, NULL) ||
      !AVFormat_Convert_Input(task, argv[1], NULL, NULL) || !AVFormat_Convert_Start(task)) {
    fprintf(stderr, "conversion failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
    AVFormat_Convert_Stop(task); /* releases whatever the task holds; NULL is fine */
    return 1;
  }

  /* Pause for a moment and resume: the worker waits between packets. */
  AVFormat_Convert_Suspend(task, true);
  sleep_ms(50);
  AVFormat_Convert_Suspend(task, false);

  bool running = true;
  while (AVFormat_Convert_GetStatus(task, &running) && running) sleep_ms(10);
  AVFormat_Convert_Stop(task); /* writes the trailer and frees the task */
  printf("read %lld packets up to %.3f s into %s\n", progress.packets, progress.seconds, argv[2]);
  return 0;
}
