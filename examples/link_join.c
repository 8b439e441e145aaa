// SPDX-License-Identifier: MIT
/*
 * link_join: joins media files end to end into one, without re-encoding, on
 * the concatenation family's worker thread. Shows each input's cut and its
 * choice of video and audio stream.
 *
 *   link_join OUTPUT INPUT[@START,END[,VIDEO,AUDIO]] ...
 *   e.g. link_join joined.mkv a.mkv b.mkv@2.5,10
 *
 * OUTPUT's name decides the container. START and END are seconds on the
 * joined timeline: with both above 0, the input's packets are written while
 * their position is at most START and at most END. VIDEO and AUDIO pick the
 * input's streams to copy (default 0 and 1; -1: none). The inputs must share
 * codecs and time bases, e.g. clips encoded with the same settings.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

/* Runs on the worker thread once per copied or cut packet: type is the media
 * type (0 video), number counts that type's packets over all inputs from 1,
 * seconds is the position on the joined timeline. */
static void on_packet(void* reserved, int type, long long number, double seconds, void* context) {
  (void)reserved;
  (void)context;
  if (number % 25 == 0) printf("%s packet %lld at %.2f s\n", type == 0 ? "video" : "audio", number, seconds);
}

/* Splits "file@start,end,video,audio" in place; the parts after the file are optional. */
static void parse_input(char* argument, double* start, double* end, int* video, int* audio) {
  char* options = strrchr(argument, '@');
  *start = *end = 0.0;
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
  void* task = AVFormat_Link_Init(on_packet, NULL);
  bool ok = task != NULL && AVFormat_Link_Output(task, argv[1]);
  /* One Input per file, in joining order. */
  for (int i = 2; ok && i < argc; ++i) {
    double start, end;
    int video, audio;
    parse_input(argv[i], &start, &end, &video, &audio);
    ok = AVFormat_Link_Input(task, argv[i], start, end, video, audio);
    if (!ok) fprintf(stderr, "%s: ", argv[i]);
  }
  if (!ok || !AVFormat_Link_Start(task)) {
    fprintf(stderr, "joining failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
    AVFormat_Link_Stop(task);
    return 1;
  }
  /* The worker ends by itself after the last input. A paused task would have
   * to be resumed before Stop, which otherwise waits for the resume. */
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_Link_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  AVFormat_Link_Stop(task); /* writes the trailer and frees the task */
  printf("joined %d file(s) into %s\n", argc - 2, argv[1]);
  return 0;
}
