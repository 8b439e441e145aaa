// SPDX-License-Identifier: MIT
// Multiplexing of a hostile byte stream read through the caller read
// function, carried by the worker into a NUT output written through the
// caller write function.
#include "fuzz/fuzz_io.h"

QFUZZ_BRIDGED_WORKER(Packet, "nut")
