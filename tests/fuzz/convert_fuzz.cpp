// SPDX-License-Identifier: MIT
// Conversion of a hostile byte stream read through the caller read function,
// remuxed into Matroska written through the caller write function.
#include "fuzz/fuzz_io.h"

QFUZZ_BRIDGED_WORKER(Convert, "matroska")
