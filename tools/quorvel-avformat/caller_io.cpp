// SPDX-License-Identifier: MIT
#include "caller_io.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "Quorvel_AVFormat.h"
#include "terminal.h"

namespace qtool {
namespace {
std::atomic<int> output_error{0};

// FFmpeg's error numbers are negated errno values on POSIX systems.
int FFmpegError(int error_number) {
  return -error_number;
}
}  // namespace

int ReadStandardInput(void*, unsigned char* buffer, int size) {
  for (;;) {
    if (StopRequested()) return AVFORMAT_IO_EOF;
    struct pollfd in {
      STDIN_FILENO, POLLIN, 0
    };
    const int ready = poll(&in, 1, 100);
    if (ready < 0 && errno != EINTR) return FFmpegError(errno);
    if (ready <= 0) continue;
    const ssize_t got = read(STDIN_FILENO, buffer, static_cast<size_t>(size));
    if (got > 0) return static_cast<int>(got);
    if (got == 0) return AVFORMAT_IO_EOF;
    if (errno != EINTR && errno != EAGAIN) return FFmpegError(errno);
  }
}

int WriteStandardOutput(void*, unsigned char* buffer, int size) {
  int done = 0;
  while (done < size) {
    const ssize_t wrote = write(STDOUT_FILENO, buffer + done, static_cast<size_t>(size - done));
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      const int error = wrote < 0 ? errno : EIO;
      int none = 0;
      output_error.compare_exchange_strong(none, error);
      RequestStop();
      return FFmpegError(error);
    }
    done += static_cast<int>(wrote);
  }
  return size;
}

int StandardOutputError() {
  return output_error.load();
}

int Discard(void*, unsigned char*, int size) {
  return size;
}

}  // namespace qtool
