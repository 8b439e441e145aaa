/*
 * link_join: joins media files end to end into one, without re-encoding.
 *
 *   link_join OUTPUT INPUT[@START,END[,VIDEO,AUDIO]] ...
 *
 * OUTPUT's name decides the container (out.mkv, out.mp4, ...). Each INPUT may
 * carry a cut in seconds on the joined timeline: with both bounds above 0, its
 * packets are kept while their position is at most START and at most END.
 * VIDEO and AUDIO pick the input's streams to copy (default 0 and 1; -1: none).
 * The inputs should come from the same source settings: same codecs, same time
 * bases.
 */
#define _POSIX_C_SOURCE 199309L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "Quorvel_AVFormat.h"

/* AVMEDIA_TYPE_VIDEO in FFmpeg's numbering; the others are counted as audio here. */
#define MEDIA_TYPE_VIDEO 0

/* Runs on the library's worker thread, once per copied (or cut) packet. */
static void Progress(void* reserved, int type, long long number, double seconds, void* context) {
  (void)reserved;
  (void)context;
  if (number % 25 == 0)
    printf("%s packet %lld at %.2f s\n", type == MEDIA_TYPE_VIDEO ? "video" : "audio", number, seconds);
}

static int Fail(const char* call) {
  fprintf(stderr, "%s failed with code 0x%llx\n", call, (unsigned long long)AVFormat_GetLastError(NULL));
  return 1;
}

/* Splits "file@start,end,video,audio" in place; the parts after the file are optional. */
static void ParseInput(char* argument, double* start, double* end, int* video, int* audio) {
  char* options = strrchr(argument, '@');
  *start = 0.0;
  *end = 0.0;
  *video = 0;
  *audio = 1;
  if (options == NULL) return;
  *options++ = '\0';
  sscanf(options, "%lf,%lf,%d,%d", start, end, video, audio);
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s OUTPUT INPUT[@START,END[,VIDEO,AUDIO]] ...\n", argv[0]);
    return 2;
  }
  void* task = AVFormat_Link_Init(Progress, NULL);
  if (task == NULL) return Fail("AVFormat_Link_Init");
  if (!AVFormat_Link_Output(task, argv[1])) {
    AVFormat_Link_Stop(task);
    return Fail("AVFormat_Link_Output");
  }
  for (int i = 2; i < argc; ++i) {
    double start, end;
    int video, audio;
    ParseInput(argv[i], &start, &end, &video, &audio);
    if (!AVFormat_Link_Input(task, argv[i], start, end, video, audio)) {
      fprintf(stderr, "%s: ", argv[i]);
      AVFormat_Link_Stop(task);
      return Fail("AVFormat_Link_Input");
    }
  }
  if (!AVFormat_Link_Start(task)) {
    AVFormat_Link_Stop(task);
    return Fail("AVFormat_Link_Start");
  }

  /* The worker ends by itself after the last input; Stop then writes the trailer. */
  const struct timespec poll = {0, 100 * 1000 * 1000};
  bool running = true;
  while (AVFormat_Link_GetStatus(task, &running) && running) nanosleep(&poll, NULL);
  AVFormat_Link_Stop(task);
  printf("joined %d file(s) into %s\n", argc - 2, argv[1]);
  return 0;
}
