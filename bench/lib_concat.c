// SPDX-License-Identifier: MIT
/*
 * lib_concat: joining files end to end through the concatenation family, the
 * contender of bare_concat. Each input contributes stream VIDEO as video and
 * stream AUDIO as audio (by default 0 and 1; -1 takes none), uncut. -o sets a
 * task option (mode=practical: continuous timestamps).
 *
 *   lib_concat [-v VIDEO] [-a AUDIO] [-o NAME=VALUE]... OUTPUT INPUT [INPUT ...]
 */
#include "lib.h"

int main(int argc, char** argv) {
  int video = 0, audio = 1, arg = 1, options = 0;
  const char* option[8];
  for (; arg + 1 < argc && argv[arg][0] == '-'; arg += 2) {
    if (strcmp(argv[arg], "-v") == 0) video = atoi(argv[arg + 1]);
    else if (strcmp(argv[arg], "-a") == 0) audio = atoi(argv[arg + 1]);
    else if (strcmp(argv[arg], "-o") == 0 && options < 8) option[options++] = argv[arg + 1];
    else break;
  }
  if (argc - arg < 2) {
    fprintf(stderr, "usage: %s [-v VIDEO] [-a AUDIO] [-o NAME=VALUE]... OUTPUT INPUT [INPUT ...]\n", argv[0]);
    return 2;
  }
  struct progress progress = {0, 0.0};
  void* task = require_task(AVFormat_Link_Init(count_packet, &progress), "concatenation");
  for (int i = 0; i < options; ++i) set_option(AVFormat_Link_SetOption, task, option[i]);
  check(AVFormat_Link_Output(task, argv[arg]), "AVFormat_Link_Output");
  for (int i = arg + 1; i < argc; ++i)
    check(AVFormat_Link_Input(task, argv[i], 0.0, 0.0, video, audio), "AVFormat_Link_Input");
  check(AVFormat_Link_Start(task), "AVFormat_Link_Start");
  wait_until_done(AVFormat_Link_GetStatus, task);
  AVFormat_Link_Stop(task);
  printf("packets reported: %lld\n", progress.packets);
  return 0;
}
