// SPDX-License-Identifier: MIT
/* Remuxes IN into OUT with the installed library: proves that the header, the
 * library and its link information are all where the package says. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <time.h>

int main(int argc, char** argv) {
  void* task = argc == 3 ? AVFormat_Convert_Init(NULL, NULL) : NULL;
  const bool ok = task != NULL && AVFormat_Convert_Output(task, argv[2], 0.0, 0.0, NULL, NULL) &&
                  AVFormat_Convert_Input(task, argv[1], NULL, NULL) && AVFormat_Convert_Start(task);
  if (!ok) fprintf(stderr, "usage: consumer IN OUT; failed: 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
  const struct timespec pause = {0, 10 * 1000 * 1000};
  for (bool running = ok; running && AVFormat_Convert_GetStatus(task, &running) && running;) nanosleep(&pause, NULL);
  AVFormat_Convert_Stop(task);
  if (ok) printf("consumer: wrote %s\n", argv[2]);
  return ok ? 0 : 1;
}
