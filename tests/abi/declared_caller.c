// SPDX-License-Identifier: MIT
/*
 * A caller that declares the interface itself, from its documentation alone,
 * without the library's header: the prototypes, the output record with its
 * layout, and the error globals. It writes the video stream of a clip
 * (argv[1]) to a file (argv[2]) through its own record, with a progress
 * callback that counts the stream's packets (6), and checks the error state
 * on the way. Exit status 0 means it all worked.
 */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

typedef struct {
  char name[264];
  double start, end;
  int32_t stream, reserved;
  int (*write)(void*, unsigned char*, int);
  void* context;
} MY_FORMATINFO;
_Static_assert(sizeof(MY_FORMATINFO) == 304, "caller's own record");

extern bool AVForamt_IsErrorOccur;
extern uint64_t AVForamt_dwErrorCode;
extern uint64_t AVFormat_GetLastError(int*);
extern void* AVFormat_UNPack_Init(void (*)(void*, int, long long, double, void*), void*);
extern bool AVFormat_UNPack_Input(void*, const char*, int (*)(void*, unsigned char*, int), void*);
extern bool AVFormat_UNPack_Output(void*, MY_FORMATINFO***, int);
extern bool AVFormat_UNPack_Start(void*);
extern bool AVFormat_UNPack_GetStatus(void*, bool*);
extern bool AVFormat_UNPack_Stop(void*);

/* Progress reports the output's stream index and its packet count from 0. */
static void progress(void* reserved, int stream, long long number, double seconds, void* context) {
  (void)reserved, (void)seconds;
  if (stream == 0) *(long long*)context = number + 1;
}

#define CHECK(condition) \
  if (!(condition)) return fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), 1

int main(int argc, char** argv) {
  CHECK(argc == 3 && strlen(argv[2]) < 264 && !AVForamt_IsErrorOccur && AVFormat_GetLastError(NULL) == 0);
  long long packets = 0;
  void* task = AVFormat_UNPack_Init(progress, &packets);
  /* A failure sets both globals; the next success clears the flag only. */
  CHECK(task != NULL && !AVFormat_UNPack_Input(task, "/nonexistent/x.mkv", NULL, NULL));
  CHECK(AVForamt_IsErrorOccur && AVForamt_dwErrorCode == 0x80D1004 && AVFormat_GetLastError(NULL) == 0x80D1004);
  CHECK(AVFormat_UNPack_Input(task, argv[1], NULL, NULL) && !AVForamt_IsErrorOccur &&
        AVForamt_dwErrorCode == 0x80D1004);
  MY_FORMATINFO output = {.stream = 0}, *records[] = {&output}, **list = records;
  strcpy(output.name, argv[2]);
  CHECK(AVFormat_UNPack_Output(task, &list, 1) && AVFormat_UNPack_Start(task));
  bool running = true;
  while (AVFormat_UNPack_GetStatus(task, &running) && running) usleep(10000);
  CHECK(AVFormat_UNPack_Stop(task) && packets == 6);
  FILE* written = fopen(argv[2], "rb");
  CHECK(written != NULL && fseek(written, 0, SEEK_END) == 0 && ftell(written) > 1000);
  fclose(written);
  return unlink(argv[2]);
}
