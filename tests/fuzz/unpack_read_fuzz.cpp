// Demultiplexing of a hostile byte stream read through the caller read
// function, pulled packet by packet with Read until it reports the end, with
// each stream's codec parameters taken on the way.
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Read's buffer must hold the largest packet; a demuxer's packets come out
  // of the input's bytes, and never reach this size from a fuzzer's input.
  static std::vector<unsigned char> packet(64u << 20);
  qfuzz::ByteSource source{data, size};
  void* task = AVFormat_UNPack_Init(nullptr, nullptr);
  if (task != nullptr && AVFormat_UNPack_Input(task, nullptr, qfuzz::ByteSource::Read, &source)) {
    void* parameters = nullptr;
    AVCODEC_TIMEBASE time_base;
    for (int stream = 0; AVFormat_UNPack_GetAVCodec(task, stream, &parameters, &time_base); ++stream)
      std::free(parameters);
    int stream_index = 0, packet_size = 0;
    AVCODEC_PACKETINFO info;
    while (AVFormat_UNPack_Read(task, &stream_index, packet.data(), &packet_size, &info, &time_base)) {
    }
  }
  AVFormat_UNPack_Stop(task);
  return 0;
}
