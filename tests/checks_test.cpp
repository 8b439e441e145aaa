// Input that the library must check before FFmpeg sees it: a packet larger
// than the caller's buffer, times and time bases that a muxer can't take,
// calls that would mix up stream indices, and the codes each refusal reports.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "Quorvel_AVFormat.h"
#include "support/fixtures.h"

namespace {

using namespace qtest;
using Bytes = std::vector<uint8_t>;
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
constexpr uint64_t kRefused = ERROR_AVFORMAT_PACKET_PARAMETER;

uint64_t Code(bool ok) {
  return ok ? 0 : AVFormat_GetLastError(nullptr);
}

// One EBML element: its ID, an 8-byte size, its children's bytes in order
// (ID 0: the children alone).
Bytes El(uint32_t id, std::initializer_list<Bytes> children) {
  Bytes body, out;
  for (const Bytes& child : children) body.insert(body.end(), child.begin(), child.end());
  if (id == 0) return body;
  for (int shift = 24; shift >= 0; shift -= 8)
    if ((id >> shift) != 0) out.push_back(static_cast<uint8_t>(id >> shift));
  out.push_back(0x01);
  for (int shift = 48; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(body.size() >> shift));
  out.insert(out.end(), body.begin(), body.end());
  return out;
}
Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

// A Matroska file of two video blocks, a key frame then another, each a zlib
// stream of 4 KB that the track's content encoding (zlib, algorithm 0)
// inflates to 3.9 MB.
std::string CompressedMatroska() {
  const Bytes zlib = ReadFile(Clip("black.zlib", "-f lavfi -i color=black:s=1280x1024 -frames:v 1 -c:v zlib -f rawvideo"));
  // clang-format off
  const Bytes track = El(0xAE, {El(0xD7, {{1}}), El(0x73C5, {{1}}), El(0x83, {{1}}), El(0x86, {Text("V_MPEG4/ISO/ASP")}),
      El(0xE0, {El(0xB0, {{64}}), El(0xBA, {{64}})}), El(0x6D80, {El(0x6240, {El(0x5031, {{0}}), El(0x5032, {{1}}),
      El(0x5033, {{0}}), El(0x5034, {El(0x4254, {{0}})})})})});
  const Bytes cluster = El(0x1F43B675, {El(0xE7, {{0}}), El(0xA3, {{0x81, 0, 0, 0x80}, zlib}),
      El(0xA3, {{0x81, 0, 40, 0}, zlib})});
  const std::string path = TempPath("compressed.mkv");
  WriteFile(path, El(0, {El(0x1A45DFA3, {El(0x4282, {Text("matroska")}), El(0x4287, {{4}})}),
      El(0x18538067, {El(0x1549A966, {El(0x2AD7B1, {{0x0F, 0x42, 0x40}})}), El(0x1654AE6B, {track}), cluster})}));
  // clang-format on
  return path;
}

TEST(SizedRead, AsksKeepsThenDeliversEachInflatedPacketWholeWithFfprobesKeyFlag) {
  const std::string path = CompressedMatroska();
  const std::vector<ProbePacket> expected = ProbePackets(path);
  ASSERT_EQ(expected.size(), 2u);
  void* task = AVFormat_UNPack_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_UNPack_Input(task, path.c_str(), nullptr, nullptr));
  int stream = -1, size = 0, flags = -1;
  const auto read = [&](unsigned char* data, int capacity) {
    return Code(AVFormat_UNPack_ReadSized(task, &stream, data, capacity, &size, &flags, nullptr, nullptr));
  };
  for (const ProbePacket& packet : expected) {
    Bytes data(packet.size - 1, 0xFF);
    for (int capacity : {0, 4096, packet.size - 1}) {  // asked, then too small: kept each time
      EXPECT_EQ(read(capacity ? data.data() : nullptr, capacity), ERROR_AVFORMAT_PACKET_BUFFERSIZE);
      EXPECT_EQ(size, packet.size);
    }
    data.resize(size, 0xFF);
    ASSERT_EQ(read(data.data(), size), 0u);
    EXPECT_EQ(data, Bytes(1280 * 1024 * 3, 0));  // all of it, inflated
    EXPECT_EQ((flags & AVFORMAT_PKT_FLAG_KEY) != 0, packet.flags.find('K') != std::string::npos);
  }
  EXPECT_EQ(read(nullptr, 0), ERROR_AVFORMAT_PACKET_READ);
  AVFormat_UNPack_Stop(task);
}

// A multiplexing task writing NUT, which converts each time into the other
// streams' time bases and ends the process when that overflows.
struct Mux {
  void* task = AVFormat_Packet_Init(nullptr, nullptr);
  AVCodecParameters* video = avcodec_parameters_alloc();
  AVCodecParameters* audio = avcodec_parameters_alloc();
  Mux() {
    video->codec_type = AVMEDIA_TYPE_VIDEO, video->codec_id = AV_CODEC_ID_MPEG4, video->width = video->height = 64;
    audio->codec_type = AVMEDIA_TYPE_AUDIO, audio->codec_id = AV_CODEC_ID_PCM_S16LE, audio->sample_rate = 44100;
    audio->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    AVFormat_Packet_Output(task, TempPath("checks.nut").c_str(), 0, 0, nullptr, nullptr);
  }
  ~Mux() { AVFormat_Packet_Stop(task), avcodec_parameters_free(&video), avcodec_parameters_free(&audio); }
  uint64_t Write(int stream, AVCODEC_TIMEBASE base, AVCODEC_PACKETINFO info) {
    return Code(AVFormat_Packet_StreamWrite(task, stream, Bytes(16).data(), 16, &base, &info));
  }
  uint64_t NewOutput() { return Code(AVFormat_Packet_Output(task, TempPath("b.mkv").c_str(), 0, 0, nullptr, nullptr)); }
};

TEST(StreamWrite, RefusesTimeBasesThatAreNoLengthAndTimesBeyondWhatTheMuxerTakes) {
  constexpr int64_t kMax = INT64_MAX, kNone = AV_NOPTS_VALUE, k68Years = int64_t{1} << 31, kHuge = kMax >> 1;
  // clang-format off
  const std::tuple<AVCODEC_TIMEBASE, AVCODEC_PACKETINFO, uint64_t> cases[] = {
      {{1, 25}, {1, 1, 1}, 0}, {{1, 44100}, {kNone, kNone, 0}, 0}, {{1, 1}, {k68Years, k68Years, 0}, 0},
      {{0, 25}, {1, 1, 1}, kRefused}, {{1, 0}, {1, 1, 1}, kRefused}, {{-1, 25}, {1, 1, 1}, kRefused},
      {{1, -25}, {1, 1, 1}, kRefused}, {{1, 25}, {kMax, kMax, 1}, kRefused}, {{1, 25}, {1, kMax - 1, 1}, kRefused},
      {{1, 1}, {k68Years + 1, 1, 1}, kRefused}, {{1, 44100}, {kHuge, kHuge, 1}, kRefused},
      {{1, 25}, {1, 1, -kMax}, kRefused}, {{1, 25}, {-kMax, -kMax, 1}, kRefused}};
  // clang-format on
  for (const auto& [base, info, code] : cases) {
    Mux mux;
    ASSERT_TRUE(AVFormat_Packet_StreamCreate(mux.task, mux.video) && AVFormat_Packet_StreamCreate(mux.task, mux.audio));
    ASSERT_EQ(mux.Write(0, {1, 25}, {0, 0, 1}), 0u);
    EXPECT_EQ(mux.Write(1, base, info), code) << base.num << "/" << base.den << " pts " << info.pts;
  }
}

// The code that `call` reports on a fresh task of another family.
uint64_t OnTask(void* task, const std::function<bool(void*)>& call, bool (*stop)(void*)) {
  const uint64_t code = Code(call(task));
  stop(task);
  return code;
}

TEST(CallerChecks, RefusedCallsAndTheCodesTheyReport) {
  const std::string av = VideoAudioClip("mkv"), data_only = TempPath("data.nut");
  WriteSynthetic(data_only, "nut", {{AVMEDIA_TYPE_DATA, AV_CODEC_ID_NONE, {1, 25}, 10, 0, 1, 8, {25, 1}, 0x41544144}});
  // clang-format off
  const auto input = [](Mux& m, const std::string& url) { return Code(AVFormat_Packet_Input(m.task, url.c_str(), 0, 0)); };
  const std::tuple<const char*, std::function<uint64_t(Mux&)>, uint64_t> cases[] = {
      {"multiplexing Output after Input", [&](Mux& m) { return input(m, av) ? 1 : m.NewOutput(); }, kRefused},
      {"multiplexing Output after StreamCreate",
       [](Mux& m) { return AVFormat_Packet_StreamCreate(m.task, m.video) ? m.NewOutput() : 1; }, kRefused},
      {"multiplexing Input with no usable stream", [&](Mux& m) { return input(m, data_only); }, kRefused},
      {"multiplexing Start with no input", [](Mux& m) { return Code(AVFormat_Packet_Start(m.task)); },
       ERROR_AVFORMAT_PACKET_WRITEHEADER},
      {"demultiplexing Output of none before Input", [](Mux&) { return OnTask(AVFormat_UNPack_Init(0, 0),
           [](void* t) { return AVFormat_UNPack_Output(t, 0, 0); }, AVFormat_UNPack_Stop); }, 0},
      {"concatenation Output without a name", [](Mux&) { return OnTask(AVFormat_Link_Init(0, 0),
           [](void* t) { return AVFormat_Link_Output(t, 0); }, AVFormat_Link_Stop); }, ERROR_AVFORMAT_LINK_OUTPUTFORMAT}};
  // clang-format on
  for (const auto& [name, call, code] : cases) {
    Mux mux;
    EXPECT_EQ(call(mux), code) << name;
  }
}

}  // namespace
