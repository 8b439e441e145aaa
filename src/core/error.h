// SPDX-License-Identifier: MIT
// The process-wide error state that every entry point reports through.
#pragma once

#include <cstdint>

namespace quorvel {

// Every entry point except AVFormat_GetLastError calls this first.
void ClearError() noexcept;

// Records a failure and returns false, so that a failing path reads
// `return Fail(ERROR_...);`. The code of an earlier failure stays until the next one.
bool Fail(uint64_t code) noexcept;

}  // namespace quorvel
