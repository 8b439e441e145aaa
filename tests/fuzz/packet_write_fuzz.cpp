// Multiplexing of caller-fed packets: the fuzz data is a run of packets
// (stream index, time base, times and bytes), each handed to StreamWrite for
// a Matroska output with one video and one audio stream, written through the
// caller write function. (Not NUT: its muxer asserts, and aborts the
// process, on a packet whose decoding time overflows when it is rescaled to
// another stream's time base; that is FFmpeg's, with times near 2^63.)
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "fuzz/fuzz_io.h"

namespace {

// Takes fixed-size values off the front of the fuzz data; zeros once it runs out.
struct Cursor {
  const uint8_t* data;
  size_t size;
  template <typename T>
  T Take() {
    T value{};
    const size_t count = std::min(size, sizeof value);
    std::memcpy(&value, data, count);
    data += count;
    size -= count;
    return value;
  }
};

// One MPEG-4 video and one mono PCM audio stream.
bool CreateStreams(void* task) {
  bool created = true;
  for (const AVMediaType type : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
    AVCodecParameters* parameters = avcodec_parameters_alloc();
    if (parameters == nullptr) return false;
    parameters->codec_type = type;
    parameters->codec_id = type == AVMEDIA_TYPE_VIDEO ? AV_CODEC_ID_MPEG4 : AV_CODEC_ID_PCM_S16LE;
    parameters->width = 64;
    parameters->height = 48;
    parameters->sample_rate = 8000;
    av_channel_layout_default(&parameters->ch_layout, 1);
    created = created && AVFormat_Packet_StreamCreate(task, parameters);
    avcodec_parameters_free(&parameters);
  }
  return created;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qfuzz::Quiet();
  void* task = AVFormat_Packet_Init(nullptr, nullptr);
  if (task != nullptr && AVFormat_Packet_Output(task, "matroska", 0.0, 0.0, qfuzz::Discard, nullptr) && CreateStreams(task)) {
    Cursor cursor{data, size};
    while (cursor.size > 0) {
      const auto flags = cursor.Take<uint8_t>();
      const int stream = flags % 3;  // 2 names no stream
      AVCODEC_TIMEBASE time_base{cursor.Take<int32_t>(), cursor.Take<int32_t>()};
      AVCODEC_PACKETINFO info{cursor.Take<int64_t>(), cursor.Take<int64_t>(), cursor.Take<int64_t>()};
      size_t length = cursor.Take<uint16_t>();
      if (length > cursor.size) length = cursor.size;
      // Refused packets are part of the game: the next one is tried all the same.
      AVFormat_Packet_StreamWrite(task, stream, cursor.data, static_cast<int>(length), &time_base,
                                  (flags & 0x80) != 0 ? nullptr : &info);
      cursor.data += length;
      cursor.size -= length;
    }
  }
  AVFormat_Packet_Stop(task);
  return 0;
}
