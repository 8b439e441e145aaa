/* Remuxes IN into OUT with the installed library: proves that the header, the
 * library and its link information are all where the package says. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <time.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s IN OUT\n", argv[0]);
    return 2;
  }
  void* task = AVFormat_Convert_Init(NULL, NULL);
  if (task == NULL || !AVFormat_Convert_Output(task, argv[2], 0.0, 0.0, NULL, NULL) ||
      !AVFormat_Convert_Input(task, argv[1], NULL, NULL) || !AVFormat_Convert_Start(task)) {
    fprintf(stderr, "conversion failed: 0x%llX\n", (unsigned long long)AVFormat_GetLastError(NULL));
    AVFormat_Convert_Stop(task);
    return 1;
  }
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_Convert_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  AVFormat_Convert_Stop(task);
  printf("consumer: wrote %s\n", argv[2]);
  return 0;
}
