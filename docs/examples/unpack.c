/*
 * Demultiplexing, both ways:
 *  1. pull every packet of IN and take each stream's time base, without a worker;
 *  2. split IN into DIR/stream-<i>.mkv, one file per stream, on a worker.
 *
 *   unpack IN DIR
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define MAX_STREAMS 16

static void on_packet(void* reserved, int stream, long long number, double seconds, void* context) {
  long long* packets = context;
  (void)reserved;
  (void)stream;
  (void)number;
  (void)seconds;
  ++*packets;
}

static int report(const char* call) {
  fprintf(stderr, "%s failed: error 0x%llX\n", call, (unsigned long long)AVFormat_GetLastError(NULL));
  return 1;
}

/* Part 1: packets pulled by the caller. Returns the number of streams, or -1. */
static int pull(const char* in) {
  void* task = AVFormat_UNPack_Init(on_packet, NULL);
  if (task == NULL) {
    fprintf(stderr, "could not create a demultiplexing task: error 0x%llX\n",
            (unsigned long long)AVFormat_GetLastError(NULL));
    return -1;
  }
  if (!AVFormat_UNPack_Input(task, in, NULL, NULL)) {
    report("AVFormat_UNPack_Input");
    AVFormat_UNPack_Stop(task);
    return -1;
  }
  /* GetAVCodec fails past the last stream: that is how to count them. */
  int streams = 0;
  AVCODEC_TIMEBASE time_base;
  while (streams < MAX_STREAMS && AVFormat_UNPack_GetAVCodec(task, streams, NULL, &time_base)) {
    printf("stream %d: time base %d/%d\n", streams, time_base.num, time_base.den);
    ++streams;
  }

  /* Read has no size argument: the buffer must hold the largest packet. */
  const size_t capacity = 16u << 20;
  unsigned char* data = malloc(capacity);
  long long count[MAX_STREAMS] = {0};
  int stream = 0, size = 0;
  AVCODEC_PACKETINFO info;
  while (data != NULL && AVFormat_UNPack_Read(task, &stream, data, &size, &info, &time_base)) {
    if (stream >= 0 && stream < MAX_STREAMS) ++count[stream];
  }
  /* The loop ends with ERROR_AVFORMAT_PACKET_READ at the end of the input. */
  if (data != NULL && AVFormat_GetLastError(NULL) != ERROR_AVFORMAT_PACKET_READ) report("AVFormat_UNPack_Read");
  for (int i = 0; i < streams; ++i) printf("stream %d: %lld packets\n", i, count[i]);
  free(data);
  AVFormat_UNPack_Stop(task);
  return streams;
}

/* Part 2: one output per stream, written by the worker. */
static int split(const char* in, const char* dir, int streams) {
  long long packets = 0;
  void* task = AVFormat_UNPack_Init(on_packet, &packets);
  if (task == NULL || !AVFormat_UNPack_Input(task, in, NULL, NULL)) {
    AVFormat_UNPack_Stop(task);
    return report("AVFormat_UNPack_Init/Input");
  }
  /* Output i takes the codec parameters of input stream i: record i names stream i. */
  AVCODEC_FORMATINFO records[MAX_STREAMS];
  AVCODEC_FORMATINFO* pointers[MAX_STREAMS];
  for (int i = 0; i < streams; ++i) {
    memset(&records[i], 0, sizeof records[i]);
    snprintf(records[i].szName, sizeof records[i].szName, "%s/stream-%d.mkv", dir, i);
    records[i].nStreamIndex = i;
    pointers[i] = &records[i];
  }
  AVCODEC_FORMATINFO** array = pointers;
  /* Output writes each header at once; the records are copied. */
  if (!AVFormat_UNPack_Output(task, &array, streams) || !AVFormat_UNPack_Start(task)) {
    const int status = report("AVFormat_UNPack_Output/Start");
    AVFormat_UNPack_Stop(task);
    return status;
  }
  bool running = true;
  const struct timespec pause = {0, 10 * 1000 * 1000};
  while (AVFormat_UNPack_GetStatus(task, &running) && running) nanosleep(&pause, NULL);
  AVFormat_UNPack_Stop(task); /* writes every output's trailer */
  printf("split %lld packets into %d files in %s\n", packets, streams, dir);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s IN DIR\n", argv[0]);
    return 2;
  }
  const int streams = pull(argv[1]);
  if (streams < 0) return 1;
  return split(argv[1], argv[2], streams);
}
