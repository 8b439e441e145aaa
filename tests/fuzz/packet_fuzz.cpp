// Multiplexing of a hostile byte stream read through the caller read
// function, carried by the worker into a NUT output written through the
// caller write function.
#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return qfuzz::RunWorker({AVFormat_Packet_Init, AVFormat_Packet_Output, AVFormat_Packet_Input, AVFormat_Packet_Start,
                           AVFormat_Packet_GetStatus, AVFormat_Packet_Stop},
                          "nut", data, size);
}
