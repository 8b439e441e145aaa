#include "frame/error.h"

#include <cerrno>

#include "Quorvel_AVFormat.h"

// Plain globals, zero at load: the error state is deliberately neither per
// thread nor atomic, and is meaningful right after the call that set it.
extern "C" {
QUORVEL_AVFORMAT_API bool AVForamt_IsErrorOccur = false;
QUORVEL_AVFORMAT_API uint64_t AVForamt_dwErrorCode = 0;
}

namespace quorvel {

void ClearError() noexcept { AVForamt_IsErrorOccur = false; }

bool Fail(uint64_t code) noexcept {
  AVForamt_IsErrorOccur = true;
  AVForamt_dwErrorCode = code;
  return false;
}

}  // namespace quorvel

extern "C" QUORVEL_AVFORMAT_API uint64_t AVFormat_GetLastError(int* error_number) {
  if (error_number != nullptr) *error_number = errno;
  return AVForamt_dwErrorCode;
}
