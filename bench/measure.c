// SPDX-License-Identifier: MIT
/*
 * measure: runs one command and appends its wall time, peak resident memory and
 * exit status to a result file, so that every contender is measured the same
 * way whether it is a bench program or the ffmpeg tool.
 *
 *   measure RESULT_FILE [-o STDOUT_FILE] -- COMMAND [ARGS...]
 *
 * Appends "<wall seconds> <peak RSS KiB> <exit status>" as one line. The peak is
 * the kernel's ru_maxrss of the command (and of any process it waited for).
 * The command's standard output goes to STDOUT_FILE when given (the ffmpeg tool
 * writing to a pipe), else where measure's own goes.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double now_seconds(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s RESULT_FILE [-o STDOUT_FILE] -- COMMAND [ARGS...]\n", argv[0]);
    return 2;
  }
  const char* result_path = argv[1];
  const char* stdout_path = NULL;
  int arg = 2;
  if (strcmp(argv[arg], "-o") == 0 && arg + 1 < argc) {
    stdout_path = argv[arg + 1];
    arg += 2;
  }
  if (arg >= argc || strcmp(argv[arg], "--") != 0 || arg + 1 >= argc) {
    fprintf(stderr, "%s: expected -- COMMAND\n", argv[0]);
    return 2;
  }
  char** command = argv + arg + 1;

  /* Opened before the clock starts, so that neither open is timed. */
  FILE* result = fopen(result_path, "a");
  if (result == NULL) {
    fprintf(stderr, "%s: %s: %s\n", argv[0], result_path, strerror(errno));
    return 2;
  }
  int out_fd = -1;
  if (stdout_path != NULL) {
    out_fd = open(stdout_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out_fd < 0) {
      fprintf(stderr, "%s: %s: %s\n", argv[0], stdout_path, strerror(errno));
      return 2;
    }
  }

  const double started = now_seconds();
  const pid_t child = fork();
  if (child < 0) {
    perror("fork");
    return 2;
  }
  if (child == 0) {
    if (out_fd >= 0) {
      dup2(out_fd, STDOUT_FILENO);
      close(out_fd);
    }
    execvp(command[0], command);
    fprintf(stderr, "%s: %s: %s\n", argv[0], command[0], strerror(errno));
    _exit(127);
  }
  if (out_fd >= 0) close(out_fd);

  int status = 0;
  struct rusage usage;
  memset(&usage, 0, sizeof usage);
  while (wait4(child, &status, 0, &usage) < 0) {
    if (errno != EINTR) {
      perror("wait4");
      return 2;
    }
  }
  const double wall = now_seconds() - started;
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  fprintf(result, "%.6f %ld %d\n", wall, usage.ru_maxrss, code);
  fclose(result);
  return code;
}
