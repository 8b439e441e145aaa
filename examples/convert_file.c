/*
 * convert_file: remux one media file into another container, optionally cut.
 *
 *   convert_file INPUT OUTPUT [START END]
 *
 * The output's container follows OUTPUT's extension (.mkv, .mp4, .ts, ...).
 * START and END are seconds on the input's own timeline; END stops the task
 * on the packet whose time equals it exactly (0 runs to the end).
 */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

struct progress {
  long long packets;
  double last_seconds;
};

/* Called on the worker thread once per packet of a kept stream. */
static void on_packet(void* reserved, int media_type, long long number, double seconds, void* context) {
  struct progress* progress = (struct progress*)context;
  (void)reserved;
  progress->packets = number + 1;
  progress->last_seconds = seconds;
  if (number % 50 == 0) printf("  packet %5lld  %-5s  %8.3f s\n", number, media_type == 0 ? "video" : "audio", seconds);
}

static int fail(const char* what) {
  fprintf(stderr, "%s failed: error 0x%llX\n", what, (unsigned long long)AVFormat_GetLastError(NULL));
  return 1;
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
  if (task == NULL) return fail("AVFormat_Convert_Init");

  /* Output first (it decides the container), then the input, whose streams become the output's. */
  if (!AVFormat_Convert_Output(task, argv[2], start, end, NULL, NULL)) {
    AVFormat_Convert_Stop(task);
    return fail("AVFormat_Convert_Output");
  }
  if (!AVFormat_Convert_Input(task, argv[1], NULL, NULL) || !AVFormat_Convert_Start(task)) {
    const int status = fail("AVFormat_Convert_Input/Start");
    AVFormat_Convert_Stop(task);
    return status;
  }

  /* The worker runs on its own thread; poll until it has finished. */
  bool running = true;
  const struct timespec pause = {0, 20 * 1000 * 1000};
  while (AVFormat_Convert_GetStatus(task, &running) && running) nanosleep(&pause, NULL);

  /* Stop writes the trailer and releases everything; the handle is gone afterwards. */
  AVFormat_Convert_Stop(task);
  printf("read %lld packets up to %.3f s; wrote %s", progress.packets, progress.last_seconds, argv[2]);
  if (start > 0.0 || end > 0.0) printf(" (cut %.3f s to %.3f s)", start, end);
  printf("\n");
  return 0;
}
