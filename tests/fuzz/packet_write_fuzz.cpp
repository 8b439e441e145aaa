// SPDX-License-Identifier: MIT
// Multiplexing of caller-fed packets: the fuzz data is a run of packets
// (stream index, time base, times and bytes), each handed to StreamWrite for
// a Matroska output with one video and one audio stream, written through the
// caller write function. (Not NUT: its muxer asserts, and aborts the
// process, on a packet whose decoding time overflows when it is rescaled to
// another stream's time base; that is FFmpeg's, with times near 2^63.)
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "fuzz/fuzz_io.h"

namespace {

// Takes a value off the front of the fuzz data; zero once the data runs out.
template <typename T>
T Take(const uint8_t*& data, size_t& size) {
  T value{};
  const size_t count = std::min(size, sizeof value);
  std::memcpy(&value, data, count);
  data += count;
  size -= count;
  return value;
}

// An MPEG-4 video or a mono PCM audio stream.
bool CreateStream(void* task, AVMediaType type) {
  AVCodecParameters* parameters = avcodec_parameters_alloc();
  if (parameters == nullptr) return false;
  parameters->codec_type = type;
  parameters->codec_id = type == AVMEDIA_TYPE_VIDEO ? AV_CODEC_ID_MPEG4 : AV_CODEC_ID_PCM_S16LE;
  parameters->width = 64, parameters->height = 48, parameters->sample_rate = 8000;
  av_channel_layout_default(&parameters->ch_layout, 1);
  const bool created = AVFormat_Packet_StreamCreate(task, parameters);
  avcodec_parameters_free(&parameters);
  return created;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  void* task = AVFormat_Packet_Init(nullptr, nullptr);
  if (task != nullptr && AVFormat_Packet_Output(task, "matroska", 0.0, 0.0, qfuzz::Discard, nullptr) &&
      CreateStream(task, AVMEDIA_TYPE_VIDEO) && CreateStream(task, AVMEDIA_TYPE_AUDIO)) {
    while (size > 0) {
      const auto flags = Take<uint8_t>(data, size);
      AVCODEC_TIMEBASE time_base{Take<int32_t>(data, size), Take<int32_t>(data, size)};
      AVCODEC_PACKETINFO info{Take<int64_t>(data, size), Take<int64_t>(data, size), Take<int64_t>(data, size)};
      const size_t length = std::min<size_t>(Take<uint16_t>(data, size), size);
      // Stream 2 names no stream, and refused packets are part of the game: the next one is tried all the same.
      AVFormat_Packet_StreamWrite(task, flags % 3, data, static_cast<int>(length), &time_base,
                                  (flags & 0x80) != 0 ? nullptr : &info);
      data += length;
      size -= length;
    }
  }
  AVFormat_Packet_Stop(task);
  return 0;
}
