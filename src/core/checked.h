// SPDX-License-Identifier: MIT
// Timestamp arithmetic that never wraps. Timestamps come from files and
// callers, so a sum or product may not fit in 64 bits: the result is then
// AV_NOPTS_VALUE (unset), and an unset operand gives an unset result, so that
// one value out of range never turns into a plausible wrong one further on.
#pragma once

#include <cstdint>

#include "core/ffmpeg.h"

namespace quorvel {

inline int64_t AddTimes(int64_t a, int64_t b) noexcept {
  int64_t sum = 0;
  if (a == AV_NOPTS_VALUE || b == AV_NOPTS_VALUE || __builtin_add_overflow(a, b, &sum)) return AV_NOPTS_VALUE;
  return sum;
}

inline int64_t MultiplyTimes(int64_t a, int64_t b) noexcept {
  int64_t product = 0;
  if (a == AV_NOPTS_VALUE || b == AV_NOPTS_VALUE || __builtin_mul_overflow(a, b, &product)) return AV_NOPTS_VALUE;
  return product;
}

}  // namespace quorvel
