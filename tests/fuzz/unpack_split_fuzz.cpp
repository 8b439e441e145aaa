// SPDX-License-Identifier: MIT
// Demultiplexing of a hostile byte stream read through the caller read
// function, split by the worker into one NUT output per stream (at most four)
// written through the caller write function.
#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qfuzz::ByteSource source{data, size};
  void* task = AVFormat_UNPack_Init(qfuzz::IgnoreProgress, nullptr);
  if (task != nullptr && AVFormat_UNPack_SetOption(task, "open_timeout", qfuzz::kOpenTimeout) &&
      AVFormat_UNPack_Input(task, nullptr, qfuzz::ByteSource::Read, &source)) {
    // As many outputs as the input has streams, up to four: Output refuses more.
    AVCODEC_FORMATINFO records[4] = {};
    AVCODEC_FORMATINFO* pointers[4];
    int count = 0;
    for (; count < 4 && AVFormat_UNPack_GetAVCodec(task, count, nullptr, nullptr); ++count) {
      std::strcpy(records[count].szName, "nut");
      records[count].nStreamIndex = count;
      records[count].pWriteFunc = qfuzz::Discard;
      pointers[count] = &records[count];
    }
    AVCODEC_FORMATINFO** list = pointers;
    // A refused output leaves the earlier ones in place; the worker runs either way.
    AVFormat_UNPack_Output(task, &list, count);
    if (AVFormat_UNPack_Start(task)) qfuzz::WaitForEnd(AVFormat_UNPack_GetStatus, task);
  }
  AVFormat_UNPack_Stop(task);
  return 0;
}
