// SPDX-License-Identifier: MIT
/*
 * The command line shared by bare_remux and lib_convert, so that both
 * contenders of a conversion job take exactly the same arguments:
 *
 *   [-s START] [-e END] [-p] [-w FORMAT] [-o NAME=VALUE]... INPUT OUTPUT [INPUT OUTPUT ...]
 *
 * (-o: a task option, which only the library contender takes)
 * and the loop that writes a buffer to a file descriptor, used by both when
 * the output goes through a write function.
 */
#ifndef QUORVEL_BENCH_REMUX_ARGS_H
#define QUORVEL_BENCH_REMUX_ARGS_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct remux_args {
  double start;              /* -s: seconds of output time; 0 keeps everything */
  double end;                /* -e: seconds of output time; 0 runs to the end */
  int parallel;              /* -p: all pairs at once in this process */
  const char* write_format;  /* -w: output through a write function, this container */
  const char* options[8];   /* -o: task options, NAME=VALUE */
  int option_count;
  int pairs;
  char** paths;              /* INPUT OUTPUT pairs */
};

/* False (after printing the usage) when the arguments don't fit. */
static inline int parse_remux_args(int argc, char** argv, struct remux_args* args) {
  memset(args, 0, sizeof *args);
  int arg = 1;
  for (; arg < argc && argv[arg][0] == '-'; ++arg) {
    if (strcmp(argv[arg], "-p") == 0) args->parallel = 1;
    else if (strcmp(argv[arg], "-s") == 0 && arg + 1 < argc) args->start = atof(argv[++arg]);
    else if (strcmp(argv[arg], "-e") == 0 && arg + 1 < argc) args->end = atof(argv[++arg]);
    else if (strcmp(argv[arg], "-w") == 0 && arg + 1 < argc) args->write_format = argv[++arg];
    else if (strcmp(argv[arg], "-o") == 0 && arg + 1 < argc && args->option_count < 8)
      args->options[args->option_count++] = argv[++arg];
    else break;
  }
  args->pairs = (argc - arg) / 2;
  args->paths = argv + arg;
  if (args->pairs < 1 || (argc - arg) % 2 != 0) {
    fprintf(stderr, "usage: %s [-s START] [-e END] [-p] [-w FORMAT] [-o NAME=VALUE]... INPUT OUTPUT [INPUT OUTPUT ...]\n", argv[0]);
    return 0;
  }
  return 1;
}

/* Writes all of buffer; the number of bytes, or -1 on a write error. */
static inline int write_all(int fd, const unsigned char* buffer, int size) {
  int done = 0;
  while (done < size) {
    const ssize_t n = write(fd, buffer + done, (size_t)(size - done));
    if (n <= 0) return -1;
    done += (int)n;
  }
  return size;
}

#endif
