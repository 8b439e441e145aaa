/*
 * lib_mux: one container from the streams of several files through the
 * multiplexing family's worker, the contender of bare_mux.
 *
 *   lib_mux OUTPUT INPUT [INPUT ...]
 */
#include "lib.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s OUTPUT INPUT [INPUT ...]\n", argv[0]);
    return 2;
  }
  struct progress progress = {0, 0.0};
  void* task = require_task(AVFormat_Packet_Init(count_packet, &progress), "multiplexing");
  check(AVFormat_Packet_Output(task, argv[1], 0.0, 0.0, NULL, NULL), "AVFormat_Packet_Output");
  for (int i = 2; i < argc; ++i) check(AVFormat_Packet_Input(task, argv[i], NULL, NULL), "AVFormat_Packet_Input");
  check(AVFormat_Packet_Start(task), "AVFormat_Packet_Start");
  wait_until_done(AVFormat_Packet_GetStatus, task);
  AVFormat_Packet_Stop(task);
  printf("packets reported: %lld\n", progress.packets);
  return 0;
}
