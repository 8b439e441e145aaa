// Conversion of a hostile byte stream read through the caller read function,
// remuxed into Matroska written through the caller write function.
#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qfuzz::Quiet();
  qfuzz::ByteSource source{data, size};
  void* task = AVFormat_Convert_Init(qfuzz::IgnoreProgress, nullptr);
  if (task == nullptr) return 0;
  if (AVFormat_Convert_Output(task, "matroska", 0.0, 0.0, qfuzz::Discard, nullptr) &&
      AVFormat_Convert_Input(task, nullptr, qfuzz::ByteSource::Read, &source) && AVFormat_Convert_Start(task))
    qfuzz::WaitForEnd(AVFormat_Convert_GetStatus, task);
  AVFormat_Convert_Stop(task);
  return 0;
}
