// SPDX-License-Identifier: MIT
// Media fixtures made at test time: real clips encoded by the ffmpeg tool, and
// synthetic files written packet by packet with exact timestamps.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qtest {

// A path in this test process's scratch directory (created on first use).
std::string TempPath(const std::string& name);

// Runs a shell command; returns its exit status and, if asked, its standard output.
int Run(const std::string& command, std::string* output = nullptr);

// A clip made once per process by `ffmpeg -y <arguments> <path>`; returns its path.
// Example: Clip("av.mkv", "-f lavfi -i testsrc=d=2:s=160x120:r=25 -c:v mpeg4")
std::string Clip(const std::string& name, const std::string& arguments);

// Clips that several suites share (MPEG-4 video at 25 fps and AAC at 44.1 kHz).
std::string VideoAudioClip(const std::string& extension);  // 2 s, video stream 0, audio stream 1
std::string VideoOnlyClip(const std::string& extension);   // 2 s, 50 frames
std::string AudioOnlyClip(const std::string& extension);   // 2 s
std::string RawH264Clip();                                 // 1 s, 25 frames, no timestamps
// One frame of it in ms at the rate the linked FFmpeg states (25 fps in 5.1, 50 in 9.0),
// which is what timestamps made up from the frame rate follow.
int64_t RawH264FrameMs();

// One stream of a synthetic file: `count` packets of `size` bytes whose pts
// are first_pts, first_pts + step, ...; dts equal pts, duration equals step.
struct SyntheticStream {
  AVMediaType type = AVMEDIA_TYPE_VIDEO;
  AVCodecID codec = AV_CODEC_ID_MPEG4;
  AVRational time_base{1, 25};
  int count = 100;
  int64_t first_pts = 0;
  int64_t step = 1;
  int size = 64;
  AVRational frame_rate{25, 1};  // video only
  uint32_t tag = 0;              // codec tag, for containers that need one (a NUT data stream: 'DATA')
};

// Writes the streams' packets, interleaved by time, into `path` with the
// container `format` (e.g. "matroska", "nut"). Packet data is a counter pattern.
void WriteSynthetic(const std::string& path, const std::string& format, const std::vector<SyntheticStream>& streams);

// Codec parameters for a stream a caller creates: MPEG-4 video `width` x 120, or PCM audio at 48 kHz.
std::shared_ptr<AVCodecParameters> StreamParameters(AVMediaType type, int width = 160);

// A packet as ffprobe lists it.
struct ProbePacket {
  int stream = -1;
  int64_t pts = AV_NOPTS_VALUE;
  int64_t dts = AV_NOPTS_VALUE;
  int64_t duration = 0;
  int size = 0;
  std::string hash;  // MD5 of the data
  std::string flags;
};

struct ProbeStream {
  int index = -1;
  std::string codec_type;  // "video", "audio", ...
  std::string codec_name;
  AVRational time_base{0, 1};
  std::string extradata_hash;  // MD5, as ProbePacket::hash
};

// ffprobe's view of a file: empty when ffprobe rejects it.
std::vector<ProbePacket> ProbePackets(const std::string& path);
std::vector<ProbeStream> ProbeStreams(const std::string& path);
// What ffprobe sees of each stream: its kind, packets, the frames a decoder
// gets out, and in seconds its first pts, last pts and last pts + duration.
struct StreamShape {
  std::string type;
  int packets = 0;
  long frames = 0;
  double first = 1e9, last = -1e9, end = -1e9;
};
std::vector<StreamShape> ShapesOf(const std::string& path);
// Packets of one stream only.
std::vector<ProbePacket> OfStream(const std::vector<ProbePacket>& packets, int stream);

// The MD5 of some bytes as ffprobe writes it: "MD5:" and 32 hex digits.
std::string Md5(const uint8_t* data, size_t size);

std::vector<uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace qtest
