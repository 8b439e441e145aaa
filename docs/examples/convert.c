/*
 * Conversion: remux IN into OUT (the container follows OUT's name), keeping
 * START to END seconds of the input's own timeline.
 *
 *   convert IN OUT [START END]
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

/* Runs on the worker thread, once per packet of a kept stream, also for the
 * packets before START that are read but not written. */
static void on_packet(void* reserved, int media_type, long long number, double seconds, void* context) {
  struct progress* progress = context;
  (void)reserved;
  (void)media_type;
  progress->packets = number + 1;
  progress->seconds = seconds;
}

static void sleep_ms(long ms) {
  const struct timespec pause = {0, ms * 1000000L};
  nanosleep(&pause, NULL);
}

static int failed(const char* call, void* task) {
  fprintf(stderr, "%s failed: error 0x%llX\n", call, (unsigned long long)AVFormat_GetLastError(NULL));
  AVFormat_Convert_Stop(task); /* releases whatever the task holds; NULL is fine */
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    fprintf(stderr, "usage: %s IN OUT [START END]\n", argv[0]);
    return 2;
  }
  const double start = argc == 5 ? atof(argv[3]) : 0.0;
  const double end = argc == 5 ? atof(argv[4]) : 0.0;

  struct progress progress = {0, 0.0};
  void* task = AVFormat_Convert_Init(on_packet, &progress);
  if (task == NULL) {
    fprintf(stderr, "could not create a conversion task: error 0x%llX\n",
            (unsigned long long)AVFormat_GetLastError(NULL));
    return 1;
  }
  /* Output before Input: Input makes one output stream per input stream. */
  if (!AVFormat_Convert_Output(task, argv[2], start, end, NULL, NULL)) return failed("AVFormat_Convert_Output", task);
  if (!AVFormat_Convert_Input(task, argv[1], NULL, NULL)) return failed("AVFormat_Convert_Input", task);
  if (!AVFormat_Convert_Start(task)) return failed("AVFormat_Convert_Start", task);

  /* Pause for a moment and resume: the worker sleeps between packets. */
  AVFormat_Convert_Suspend(task, true);
  sleep_ms(50);
  AVFormat_Convert_Suspend(task, false);

  bool running = true;
  while (AVFormat_Convert_GetStatus(task, &running) && running) sleep_ms(10);

  /* Stop writes the trailer and frees the task; the handle dangles afterwards. */
  AVFormat_Convert_Stop(task);
  printf("read %lld packets up to %.3f s into %s\n", progress.packets, progress.seconds, argv[2]);
  return 0;
}
