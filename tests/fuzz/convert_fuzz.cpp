// Conversion of a hostile byte stream read through the caller read function,
// remuxed into Matroska written through the caller write function.
#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return qfuzz::RunWorker({AVFormat_Convert_Init, AVFormat_Convert_Output, AVFormat_Convert_Input,
                           AVFormat_Convert_Start, AVFormat_Convert_GetStatus, AVFormat_Convert_Stop},
                          "matroska", data, size);
}
