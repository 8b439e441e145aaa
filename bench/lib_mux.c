// SPDX-License-Identifier: MIT
/*
 * lib_mux: one container from the streams of several files through the
 * multiplexing family's worker, the contender of bare_mux.
 *
 *   lib_mux [-o NAME=VALUE]... OUTPUT INPUT [INPUT ...]
 *
 * -o sets a task option (mode=practical: interleaved by time, every input to
 * its end, every stream of an input).
 */
#include "lib.h"

int main(int argc, char** argv) {
  int arg = 1;
  while (arg + 1 < argc && strcmp(argv[arg], "-o") == 0) arg += 2;
  if (argc - arg < 2) {
    fprintf(stderr, "usage: %s [-o NAME=VALUE]... OUTPUT INPUT [INPUT ...]\n", argv[0]);
    return 2;
  }
  struct progress progress = {0, 0.0};
  void* task = require_task(AVFormat_Packet_Init(count_packet, &progress), "multiplexing");
  for (int i = 1; i < arg; i += 2) set_option(AVFormat_Packet_SetOption, task, argv[i + 1]);
  check(AVFormat_Packet_Output(task, argv[arg], 0.0, 0.0, NULL, NULL), "AVFormat_Packet_Output");
  for (int i = arg + 1; i < argc; ++i) check(AVFormat_Packet_Input(task, argv[i], NULL, NULL), "AVFormat_Packet_Input");
  check(AVFormat_Packet_Start(task), "AVFormat_Packet_Start");
  wait_until_done(AVFormat_Packet_GetStatus, task);
  AVFormat_Packet_Stop(task);
  printf("packets reported: %lld\n", progress.packets);
  return 0;
}
