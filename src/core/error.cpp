// SPDX-License-Identifier: MIT
#include "core/error.h"

#include <cerrno>

#include "Quorvel_AVFormat.h"

// Plain globals, zero at load: the error state is deliberately neither per
// thread nor guarded, and is meaningful right after the call that set it.
// Entry points may run on many threads at once, though, so every access
// inside the library is a relaxed atomic one: the last writer wins, and no
// access is a data race. The globals keep their plain types for the callers
// that read them directly.
extern "C" {
QUORVEL_AVFORMAT_API bool AVForamt_IsErrorOccur = false;
QUORVEL_AVFORMAT_API uint64_t AVForamt_dwErrorCode = 0;
}

namespace quorvel {

void ClearError() noexcept {
  __atomic_store_n(&AVForamt_IsErrorOccur, false, __ATOMIC_RELAXED);
}

bool Fail(uint64_t code) noexcept {
  __atomic_store_n(&AVForamt_IsErrorOccur, true, __ATOMIC_RELAXED);
  __atomic_store_n(&AVForamt_dwErrorCode, code, __ATOMIC_RELAXED);
  return false;
}

}  // namespace quorvel

extern "C" QUORVEL_AVFORMAT_API uint64_t AVFormat_GetLastError(int* error_number) {
  if (error_number != nullptr) *error_number = errno;
  return __atomic_load_n(&AVForamt_dwErrorCode, __ATOMIC_RELAXED);
}
