// SPDX-License-Identifier: MIT
/*
 * packet_mux: muxes a video-only file and an audio-only file into one
 * container on the multiplexing family's worker thread, printing the progress.
 * The worker takes one packet from each input in turn, so the run ends when
 * the shorter input runs out.
 *
 *   packet_mux VIDEO AUDIO OUTPUT    e.g. packet_mux video.mkv audio.m4a out.mp4
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <time.h>

/* Runs on the worker thread once per packet read: type is FFmpeg's media type
 * (0 video, 1 audio), number counts the packets of that input from 0. */
static void on_packet(void* reserved, int type, long long number, double seconds, void* context) {
  long long* total = context;
  (void)reserved;
  if (++*total % 100 == 0) printf("%lld packets, %s packet %lld at %.2f s\n", *total, type == 0 ? "video" : "audio", number, seconds);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s VIDEO AUDIO OUTPUT\n", argv[0]);
    return 2;
  }
  long long total = 0;
  void* task = AVFormat_Packet_Init(on_packet, &total);
  /* The output first (its name decides the container; 0, 0: no start or end
   * time), then one input per file, each with one stream: output stream 0 is
   * the video, 1 the audio. */
  if (task == NULL || !AVFormat_Packet_Output(task, argv[3], 0, 0, NULL, NULL) ||
      !AVFormat_Packet_Input(task, argv[1], NULL, NULL) || !AVFormat_Packet_Input(task, argv[2], NULL, NULL) ||
      !AVFormat_Packet_Start(task)) {
    fprintf(stderr, "muxing failed: error 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
    AVFormat_Packet_Stop(task);
    return 1;
  }
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_Packet_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  AVFormat_Packet_Stop(task); /* writes the trailer and frees the task */
  printf("%lld packets written to %s\n", total, argv[3]);
  return 0;
}
