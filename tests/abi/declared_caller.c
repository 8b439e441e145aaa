/*
 * A caller that declares the interface itself, from its documentation alone,
 * without the library's header: the records with their layout, the
 * prototypes and the error globals. It makes a clip with the ffmpeg tool
 * (argv[1]) in a scratch directory (argv[2]), converts it and checks the
 * error state along the way. Exit status 0 means it all worked.
 */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

typedef struct {
  int32_t num, den;
} MY_TIMEBASE;
typedef struct {
  int64_t pts, dts, duration;
} MY_PACKETINFO;
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
extern void* AVFormat_Convert_Init(void (*)(void*, int, long long, double, void*), void*);
extern bool AVFormat_Convert_Output(void*, const char*, double, double, int (*)(void*, unsigned char*, int), void*);
extern bool AVFormat_Convert_Input(void*, const char*, int (*)(void*, unsigned char*, int), void*);
extern bool AVFormat_Convert_Start(void*);
extern bool AVFormat_Convert_GetStatus(void*, bool*);
extern bool AVFormat_Convert_Stop(void*);

static long long packets;
static void progress(void* reserved, int type, long long number, double seconds, void* context) {
  (void)reserved, (void)type, (void)seconds;
  *(long long*)context = number + 1;
}

#define CHECK(condition)                                             \
  do {                                                               \
    if (!(condition)) {                                              \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      return 1;                                                      \
    }                                                                \
  } while (0)

int main(int argc, char** argv) {
  CHECK(argc == 3);
  char command[4096], input[1024], output[1024];
  snprintf(input, sizeof input, "%s/declared_in.mkv", argv[2]);
  snprintf(output, sizeof output, "%s/declared_out.mp4", argv[2]);
  snprintf(command, sizeof command, "'%s' -nostdin -v error -y -f lavfi -i testsrc=d=1:s=160x120:r=25 -c:v mpeg4 '%s'",
           argv[1], input);
  CHECK(system(command) == 0);

  void* task = AVFormat_Convert_Init(progress, &packets);
  CHECK(task != NULL);
  CHECK(!AVFormat_Convert_Output(task, "/nonexistent/dir/x.mp4", 0, 0, NULL, NULL));
  CHECK(AVForamt_IsErrorOccur && AVForamt_dwErrorCode == 0x80D0011 && AVFormat_GetLastError(NULL) == 0x80D0011);
  CHECK(AVFormat_Convert_Output(task, output, 0, 0, NULL, NULL));
  CHECK(!AVForamt_IsErrorOccur && AVForamt_dwErrorCode == 0x80D0011);
  CHECK(AVFormat_Convert_Input(task, input, NULL, NULL));
  CHECK(AVFormat_Convert_Start(task));
  bool running = true;
  while (AVFormat_Convert_GetStatus(task, &running) && running) usleep(10000);
  CHECK(AVFormat_Convert_Stop(task));
  CHECK(packets == 25);
  unlink(input);
  unlink(output);
  return 0;
}
