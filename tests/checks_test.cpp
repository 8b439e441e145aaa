// Input that the library must check before FFmpeg sees it: a packet larger
// than the caller's buffer, times and time bases that a muxer can't take
// (from the caller or from a file), calls that would mix up stream indices.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "support/families.h"

namespace {

using namespace qtest;
using Bytes = std::vector<uint8_t>;
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
constexpr uint64_t kRefused = ERROR_AVFORMAT_PACKET_PARAMETER;

uint64_t Code(bool ok) {
  return ok ? 0 : AVFormat_GetLastError(nullptr);
}

// Two blocks of a track with zlib content compression, a key frame then
// another, that inflate to 256 KiB of zeros each: asked for, then offered too
// little room (kept each time), then delivered whole with ffprobe's key flag.
TEST(SizedRead, AsksKeepsThenDeliversEachInflatedPacketWhole) {
  const std::string path = QUORVEL_CORPUS "zlib-compressed.mkv";
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
    for (int capacity : {0, 4096, packet.size - 1}) {
      EXPECT_EQ(read(capacity ? data.data() : nullptr, capacity), ERROR_AVFORMAT_PACKET_BUFFERSIZE);
      EXPECT_EQ(size, packet.size);
    }
    data.resize(size, 0xFF);
    ASSERT_EQ(read(data.data(), size), 0u);
    EXPECT_EQ(data, Bytes(256 * 1024, 0));
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
};

TEST(StreamWrite, RefusesTimeBasesThatAreNoLengthAndTimesBeyondWhatTheMuxerTakes) {
  constexpr int64_t kMax = INT64_MAX, kNone = AV_NOPTS_VALUE, k68Years = int64_t{1} << 31, kHuge = kMax >> 1;
  const std::tuple<AVCODEC_TIMEBASE, AVCODEC_PACKETINFO, uint64_t> cases[] = {{{1, 25}, {1, 1, 1}, 0},
                                                                              {{1, 44100}, {kNone, kNone, 0}, 0},
                                                                              {{1, 1}, {k68Years, k68Years, 0}, 0},
                                                                              {{0, 25}, {1, 1, 1}, kRefused},
                                                                              {{1, 0}, {1, 1, 1}, kRefused},
                                                                              {{-1, 25}, {1, 1, 1}, kRefused},
                                                                              {{1, -25}, {1, 1, 1}, kRefused},
                                                                              {{1, 25}, {kMax, kMax, 1}, kRefused},
                                                                              {{1, 25}, {1, kMax - 1, 1}, kRefused},
                                                                              {{1, 1}, {k68Years + 1, 1, 1}, kRefused},
                                                                              {{1, 44100}, {kHuge, kHuge, 1}, kRefused},
                                                                              {{1, 25}, {1, 1, -kMax}, kRefused},
                                                                              {{1, 25}, {-kMax, -kMax, 1}, kRefused}};
  for (const auto& [base, info, code] : cases) {
    Mux mux;
    ASSERT_TRUE(AVFormat_Packet_StreamCreate(mux.task, mux.video) && AVFormat_Packet_StreamCreate(mux.task, mux.audio));
    ASSERT_EQ(mux.Write(0, {1, 25}, {0, 0, 1}), 0u);
    EXPECT_EQ(mux.Write(1, base, info), code) << base.num << "/" << base.den << " pts " << info.pts;
  }
}

// The multiplexing worker holds a file's packet at 2^62 ms back from NUT: it
// is refused, and the other input's packets are written.
TEST(WorkerFedMux, RefusesTimesBeyondWhatTheMuxerTakes) {
  AnyTask task(Family::kPacket);
  const Sink sink{TempPath("extreme.nut")};
  ASSERT_TRUE(task.Reach(Stage::kEnded, {{VideoOnlyClip("mkv")}, {QUORVEL_CORPUS "extreme-ts.mkv"}}, sink));
  AVFORMAT_TASK_REPORT report{};
  report.dwSize = sizeof report;
  ASSERT_TRUE(AVFormat_Packet_StopWithReport(task.Release(), &report));
  EXPECT_EQ(std::tuple(report.llPacketsRead, report.llPacketsWritten, report.llPacketsRefused), std::tuple(3, 2, 1));
  EXPECT_EQ(ProbeOutput(sink).size(), 2u);
}

TEST(CallerChecks, RefusedCallsAndTheCodesTheyReport) {
  const std::string av = VideoAudioClip("mkv"), data_only = TempPath("data.nut");
  WriteSynthetic(data_only, "nut", {{AVMEDIA_TYPE_DATA, AV_CODEC_ID_NONE, {1, 25}, 10, 0, 1, 8, {25, 1}, 0x41544144}});
  const auto input = [](Mux& m, const std::string& url) {
    return Code(AVFormat_Packet_Input(m.task, url.c_str(), 0, 0));
  };
  const auto output = [](Mux& m) { return Code(AVFormat_Packet_Output(m.task, "b.mkv", 0, 0, nullptr, nullptr)); };
  const std::tuple<const char*, std::function<uint64_t(Mux&)>, uint64_t> cases[] = {
      {"Output after Input", [&](Mux& m) { return input(m, av) ? 1 : output(m); }, kRefused},
      {"Output after StreamCreate",
       [&](Mux& m) { return AVFormat_Packet_StreamCreate(m.task, m.video) ? output(m) : 1; }, kRefused},
      {"Input with no usable stream", [&](Mux& m) { return input(m, data_only); }, kRefused},
      {"Start with no input", [](Mux& m) { return Code(AVFormat_Packet_Start(m.task)); },
       ERROR_AVFORMAT_PACKET_WRITEHEADER}};
  for (const auto& [name, call, code] : cases) {
    Mux mux;
    EXPECT_EQ(call(mux), code) << name;
  }
}

}  // namespace
