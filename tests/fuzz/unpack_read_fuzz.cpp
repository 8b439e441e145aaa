// SPDX-License-Identifier: MIT
// Demultiplexing of a hostile byte stream read through the caller read
// function, pulled packet by packet with the sized Read until it reports the
// end, with each stream's codec parameters taken on the way. The buffer starts
// small and grows when a packet does not fit, so the kept-packet path runs too.
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qfuzz::ByteSource source{data, size};
  void* task = AVFormat_UNPack_Init(nullptr, nullptr);
  if (task != nullptr && AVFormat_UNPack_SetOption(task, "open_timeout", qfuzz::kOpenTimeout) &&
      AVFormat_UNPack_Input(task, nullptr, qfuzz::ByteSource::Read, &source)) {
    void* parameters = nullptr;
    AVCODEC_TIMEBASE time_base;
    for (int stream = 0; AVFormat_UNPack_GetAVCodec(task, stream, &parameters, &time_base); ++stream)
      std::free(parameters);
    std::vector<unsigned char> packet(64);
    int stream_index = 0, packet_size = 0, flags = 0;
    AVCODEC_PACKETINFO info;
    for (;;) {
      if (AVFormat_UNPack_ReadSized(task, &stream_index, packet.data(), static_cast<int>(packet.size()), &packet_size,
                                    &flags, &info, &time_base))
        continue;
      if (AVFormat_GetLastError(nullptr) != ERROR_AVFORMAT_PACKET_BUFFERSIZE) break;
      packet.resize(static_cast<size_t>(packet_size));
    }
  }
  AVFormat_UNPack_Stop(task);
  return 0;
}
