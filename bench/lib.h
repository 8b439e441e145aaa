// SPDX-License-Identifier: MIT
/*
 * What the library contenders share. They use only the public header, as an
 * application would: a progress callback that counts packets (it runs once
 * per packet on the worker thread, so its cost is part of every measurement),
 * and a wait for a worker to finish by polling its status.
 *
 * Exit status 3 means the family's Init returned no task: the family is not
 * available in this build, and the harness reports the contender as n/a.
 */
#ifndef QUORVEL_BENCH_LIB_H
#define QUORVEL_BENCH_LIB_H

#include <Quorvel_AVFormat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kNotAvailable = 3 };

struct progress {
  long long packets;
  double last_seconds;
};

static inline void count_packet(void* reserved, int type, long long number, double seconds, void* context) {
  struct progress* progress = (struct progress*)context;
  (void)reserved;
  (void)type;
  (void)number;
  ++progress->packets;
  progress->last_seconds = seconds;
}

static inline void* require_task(void* task, const char* family) {
  if (task == NULL) {
    fprintf(stderr, "%s: no task (0x%llX): family not available\n", family,
            (unsigned long long)AVFormat_GetLastError(NULL));
    exit(kNotAvailable);
  }
  return task;
}

static inline void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "%s failed: error 0x%llX\n", what, (unsigned long long)AVFormat_GetLastError(NULL));
    exit(1);
  }
}

/* Sets one task option from "NAME=VALUE" with the family's SetOption. */
static inline void set_option(bool (*set)(void*, const char*, const char*), void* task, const char* pair) {
  char name[128];
  const char* equals = strchr(pair, '=');
  if (equals == NULL || (size_t)(equals - pair) >= sizeof name) {
    fprintf(stderr, "option %s: not NAME=VALUE\n", pair);
    exit(2);
  }
  memcpy(name, pair, (size_t)(equals - pair));
  name[equals - pair] = '\0';
  check(set(task, name, equals + 1), pair);
}

/* Polls often enough that the end of a job is seen within two milliseconds. */
static inline void wait_until_done(bool (*get_status)(void*, bool*), void* task) {
  const struct timespec pause = {0, 2 * 1000 * 1000};
  bool running = true;
  while (get_status(task, &running) && running) nanosleep(&pause, NULL);
}

/* A growing buffer for the demultiplexing family's sized Read. */
struct packet_buffer {
  unsigned char* data;
  int capacity;
};

/* The next packet with AVFormat_UNPack_ReadSized into `buffer`, which grows
 * when a packet does not fit (ReadSized keeps that packet and stores its size).
 * False at the end of the input, or on an error, whose code stays set. */
static inline bool read_packet(void* task, struct packet_buffer* buffer, int* stream, int* size,
                               AVCODEC_PACKETINFO* info, AVCODEC_TIMEBASE* time_base) {
  for (;;) {
    if (AVFormat_UNPack_ReadSized(task, stream, buffer->data, buffer->capacity, size, NULL, info, time_base))
      return true;
    if (AVFormat_GetLastError(NULL) != ERROR_AVFORMAT_PACKET_BUFFERSIZE) return false;
    unsigned char* larger = realloc(buffer->data, (size_t)*size);
    if (larger == NULL) check(false, "growing the packet buffer");
    buffer->data = larger;
    buffer->capacity = *size;
  }
}

#endif
