// SPDX-License-Identifier: MIT
/*
 * lib_split: splitting a file by stream through the demultiplexing family's
 * worker, the contender of bare_split. Output i receives input stream i.
 *
 *   lib_split INPUT OUTPUT0 [OUTPUT1 ...]
 */
#include <string.h>

#include "lib.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s INPUT OUTPUT0 [OUTPUT1 ...]\n", argv[0]);
    return 2;
  }
  struct progress progress = {0, 0.0};
  void* task = require_task(AVFormat_UNPack_Init(count_packet, &progress), "demultiplexing");
  check(AVFormat_UNPack_Input(task, argv[1], NULL, NULL), "AVFormat_UNPack_Input");

  const int count = argc - 2;
  AVCODEC_FORMATINFO* records = calloc((size_t)count, sizeof *records);
  AVCODEC_FORMATINFO** pointers = calloc((size_t)count, sizeof *pointers);
  if (records == NULL || pointers == NULL) return 1;
  for (int i = 0; i < count; ++i) {
    if (strlen(argv[2 + i]) >= sizeof records[i].szName) {
      fprintf(stderr, "%s: name too long\n", argv[2 + i]);
      return 2;
    }
    strcpy(records[i].szName, argv[2 + i]);
    records[i].nStreamIndex = i;
    pointers[i] = &records[i];
  }
  check(AVFormat_UNPack_Output(task, &pointers, count), "AVFormat_UNPack_Output");
  check(AVFormat_UNPack_Start(task), "AVFormat_UNPack_Start");
  wait_until_done(AVFormat_UNPack_GetStatus, task);
  AVFormat_UNPack_Stop(task);
  free(pointers);
  free(records);
  printf("packets reported: %lld\n", progress.packets);
  return 0;
}
