// SPDX-License-Identifier: MIT
/*
 * lib_convert: conversion through the library, the contender of bare_remux.
 *
 *   lib_convert [-s START] [-e END] [-p] [-w FORMAT] [-o NAME=VALUE]... INPUT OUTPUT [INPUT OUTPUT ...]
 *
 * -s/-e are the task's start and end times. -p starts every conversion before
 * waiting for any (N tasks at once in this one process); without it they run
 * one after another. -w writes OUTPUT through a caller write function in
 * container FORMAT (the caller I/O bridge) instead of naming the file. -o sets
 * a task option on every task (mode=practical, ...).
 */
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "lib.h"
#include "remux_args.h"

struct job {
  void* task;
  int fd;
  struct progress progress;
};

static int write_fd(void* context, unsigned char* buffer, int size) {
  return write_all(*(int*)context, buffer, size) < 0 ? -EIO : size;
}

static void start(struct job* job, const char* input, const char* output, const struct remux_args* args) {
  const double start_time = args->start, end_time = args->end;
  const char* write_format = args->write_format;
  job->fd = -1;
  job->task = require_task(AVFormat_Convert_Init(count_packet, &job->progress), "conversion");
  for (int i = 0; i < args->option_count; ++i) set_option(AVFormat_Convert_SetOption, job->task, args->options[i]);
  if (write_format != NULL) {
    job->fd = open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (job->fd < 0) {
      perror(output);
      exit(1);
    }
    check(AVFormat_Convert_Output(job->task, write_format, start_time, end_time, write_fd, &job->fd),
          "AVFormat_Convert_Output");
  } else {
    check(AVFormat_Convert_Output(job->task, output, start_time, end_time, NULL, NULL), "AVFormat_Convert_Output");
  }
  check(AVFormat_Convert_Input(job->task, input, NULL, NULL), "AVFormat_Convert_Input");
  check(AVFormat_Convert_Start(job->task), "AVFormat_Convert_Start");
}

static void finish(struct job* job) {
  wait_until_done(AVFormat_Convert_GetStatus, job->task);
  AVFormat_Convert_Stop(job->task);
  if (job->fd >= 0) close(job->fd);
}

int main(int argc, char** argv) {
  struct remux_args args;
  if (!parse_remux_args(argc, argv, &args)) return 2;
  struct job* jobs = calloc((size_t)args.pairs, sizeof *jobs);
  if (jobs == NULL) return 1;
  for (int i = 0; i < args.pairs; ++i) {
    start(&jobs[i], args.paths[2 * i], args.paths[2 * i + 1], &args);
    if (!args.parallel) finish(&jobs[i]);
  }
  long long packets = 0;
  for (int i = 0; i < args.pairs; ++i) {
    if (args.parallel) finish(&jobs[i]);
    packets += jobs[i].progress.packets;
  }
  printf("packets reported: %lld\n", packets);
  free(jobs);
  return 0;
}
