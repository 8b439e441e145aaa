/*
 * Concatenation: join the files IN... end to end into OUT, copying the first
 * video and the first audio stream of each (streams 0 and 1 here).
 *
 *   link OUT IN...
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <time.h>

static void on_packet(void* reserved, int media_type, long long number, double seconds, void* context) {
  double* position = context;
  (void)reserved;
  (void)media_type;
  (void)number; /* packets of this media type so far, over all inputs, from 1 */
  *position = seconds; /* on the output's timeline */
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s OUT IN...\n", argv[0]);
    return 2;
  }
  double position = 0.0;
  void* task = AVFormat_Link_Init(on_packet, &position);
  if (task == NULL) {
    fprintf(stderr, "could not create a concatenation task: error 0x%llX\n",
            (unsigned long long)AVFormat_GetLastError(NULL));
    return 1;
  }
  bool ok = AVFormat_Link_Output(task, argv[1]);
  /* In joining order; no cut (start and end 0), video stream 0, audio stream 1. */
  for (int i = 2; ok && i < argc; ++i) ok = AVFormat_Link_Input(task, argv[i], 0.0, 0.0, 0, 1);
  ok = ok && AVFormat_Link_Start(task);
  if (!ok) {
    fprintf(stderr, "failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
    AVFormat_Link_Stop(task);
    return 1;
  }
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_Link_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  /* A paused task must be resumed before Stop, or Stop waits for the resume. */
  AVFormat_Link_Suspend(task, false);
  AVFormat_Link_Stop(task);
  printf("joined %d files into %s, %.3f s long\n", argc - 2, argv[1], position);
  return 0;
}
