// Multiplexing of a hostile byte stream read through the caller read
// function, carried by the worker into a NUT output written through the
// caller write function.
#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qfuzz::Quiet();
  qfuzz::ByteSource source{data, size};
  // A started multiplexing task must have a progress callback.
  void* task = AVFormat_Packet_Init(qfuzz::IgnoreProgress, nullptr);
  if (task == nullptr) return 0;
  if (AVFormat_Packet_Output(task, "nut", 0.0, 0.0, qfuzz::Discard, nullptr) &&
      AVFormat_Packet_Input(task, nullptr, qfuzz::ByteSource::Read, &source) && AVFormat_Packet_Start(task))
    qfuzz::WaitForEnd(AVFormat_Packet_GetStatus, task);
  AVFormat_Packet_Stop(task);
  return 0;
}
