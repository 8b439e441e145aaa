/*
 * Muxes a video-only file and an audio-only file into one container, printing
 * the progress. The run ends when the first of the two inputs runs out.
 *
 *   packet_mux VIDEO AUDIO OUTPUT      e.g. packet_mux video.mkv audio.m4a out.mp4
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <time.h>

#include "Quorvel_AVFormat.h"

/* Called on the worker thread for every packet read: type is FFmpeg's media
 * type (0 video, 1 audio), number counts the packets of that input from 0. */
static void Progress(void* reserved, int type, long long number, double seconds, void* context) {
  long long* total = (long long*)context;
  (void)reserved;
  if (++*total % 100 == 0)
    fprintf(stderr, "\r%lld packets, %s packet %lld at %.2f s   ", *total, type == 0 ? "video" : "audio", number,
            seconds);
}

static int Failed(const char* what) {
  fprintf(stderr, "%s failed: error 0x%llX\n", what, (unsigned long long)AVFormat_GetLastError(NULL));
  return 1;
}

int main(int argc, char** argv) {
  long long total = 0;
  bool running = true;
  void* task;
  const struct timespec poll = {0, 100 * 1000 * 1000};

  if (argc != 4) {
    fprintf(stderr, "usage: %s VIDEO AUDIO OUTPUT\n", argv[0]);
    return 2;
  }
  task = AVFormat_Packet_Init(Progress, &total);
  if (task == NULL) return Failed("Init");
  /* The output's container is guessed from its name; 0, 0: no start or end time. */
  if (!AVFormat_Packet_Output(task, argv[3], 0, 0, NULL, NULL)) {
    AVFormat_Packet_Stop(task);
    return Failed("Output");
  }
  /* One input per file, each with one stream: output stream 0 is the video, 1 the audio. */
  if (!AVFormat_Packet_Input(task, argv[1], NULL, NULL) || !AVFormat_Packet_Input(task, argv[2], NULL, NULL)) {
    AVFormat_Packet_Stop(task);
    return Failed("Input");
  }
  if (!AVFormat_Packet_Start(task)) {
    AVFormat_Packet_Stop(task);
    return Failed("Start");
  }
  while (running && AVFormat_Packet_GetStatus(task, &running)) nanosleep(&poll, NULL);
  /* Stop writes the trailer and releases the task. */
  AVFormat_Packet_Stop(task);
  fprintf(stderr, "\r%lld packets written to %s\n", total, argv[3]);
  return 0;
}
