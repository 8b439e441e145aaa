// SPDX-License-Identifier: MIT
// Multiplexing: input files interleaved by the worker and caller-fed streams,
// read back with ffprobe or FFmpeg's framecrc muxer. Its refusals are in the
// lifecycle suite's table.
#include <gtest/gtest.h>

#include "support/families.h"

namespace {

using namespace qtest;

const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

constexpr SyntheticStream kVideo{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, {1, 25}, 100, 0, 1, 64, {25, 1}};
constexpr SyntheticStream kAudio{AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 48000}, 200, 0, 1024, 2048, {0, 1}};

// A synthetic file, made once per process; `codec` and `count` change the first stream.
std::string Synthetic(const std::string& name, std::vector<SyntheticStream> streams, AVCodecID codec = {},
                      int count = 0) {
  if (codec != AV_CODEC_ID_NONE) streams[0].codec = codec, streams[0].count = count;
  const std::string path = TempPath(name + ".nut");
  if (ReadFile(path).empty()) WriteSynthetic(path, "nut", streams);
  return path;
}
const std::string& VideoFile() {
  static const std::string path = Synthetic("video100", {kVideo});
  return path;
}

bool Create(void* task, AVMediaType type, int width = 160) {
  return AVFormat_Packet_StreamCreate(task, StreamParameters(type, width).get());
}

// Runs a task over `sources` to its end and returns the output's packets;
// with a writer the output is written through it, then to `output`.
std::vector<ProbePacket> Mux(AnyTask& task, const std::string& output, const std::vector<Source>& sources,
                             MemoryWriter* writer = nullptr) {
  EXPECT_TRUE(task.Reach(Stage::kEnded, sources, writer ? Sink{"matroska", writer} : Sink{output}) && task.Stop());
  if (writer != nullptr) WriteFile(output, writer->data);
  return ProbePackets(output);
}

// 100 video and 200 audio packets: the run ends at the first failed read, so
// the input that runs out first decides how many packets of the other go out.
TEST(PacketMux, FilesInterleaveUntilTheFirstInputRunsOut) {
  // Inputs, packets of each, read through: 0 their files, 1 read functions, 2 read functions beside the url of
  // the other input (the read function's bytes are still the input).
  const std::string v = VideoFile(), a = Synthetic("audio200", {kAudio});
  const std::tuple<std::string, std::string, size_t, size_t, int> cases[] = {
      {v, a, 100, 100, 0}, {a, v, 101, 100, 0}, {v, a, 100, 100, 1}, {v, a, 100, 100, 2}};
  for (const auto& [first, second, first_count, second_count, route] : cases) {
    SCOPED_TRACE(first + " then " + second + " route " + std::to_string(route));
    MemoryReader r0(ReadFile(first)), r1(ReadFile(second));
    MemoryWriter writer;
    AnyTask task(Family::kPacket);
    const std::string output = TempPath("interleaved.mkv");
    const std::vector<Source> sources[] = {{{first}, {second}}, {{"", &r0}, {"", &r1}}, {{second, &r0}, {first, &r1}}};
    const std::vector<ProbePacket> packets = Mux(task, output, sources[route], route > 0 ? &writer : nullptr);
    const std::vector<ProbeStream> streams = ProbeStreams(output);
    ASSERT_EQ(streams.size(), 2u);
    for (int s = 0; s < 2; ++s) {  // each input's first packets, same data, times rescaled but not shifted
      const std::vector<ProbePacket> in = ProbePackets(s == 0 ? first : second), out = OfStream(packets, s);
      const AVRational from = ProbeStreams(s == 0 ? first : second)[0].time_base, to = streams[s].time_base;
      ASSERT_EQ(out.size(), s == 0 ? first_count : second_count);
      EXPECT_EQ(streams[s].codec_type, ProbeStreams(s == 0 ? first : second)[0].codec_type);
      for (size_t i = 0; i < out.size(); ++i)
        EXPECT_EQ(std::tie(out[i].hash, out[i].pts, out[i].dts),
                  std::make_tuple(in[i].hash, av_rescale_q(in[i].pts, from, to), av_rescale_q(in[i].dts, from, to)));
    }
    // One packet of each input in turn, reported with its input's mapped type and count.
    const auto calls = task.log.Calls();
    ASSERT_EQ(calls.size(), first_count + second_count);
    const int first_type = streams[0].codec_type == "video" ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].type, i % 2 == 0 ? first_type : 1 - first_type) << i;
      EXPECT_EQ(calls[i].number, static_cast<long long>(i / 2)) << i;
      EXPECT_EQ(calls[i].reserved, nullptr);
    }
    EXPECT_DOUBLE_EQ(calls[first_type == AVMEDIA_TYPE_VIDEO ? 50 : 51].seconds, 1.0);  // video packet 25
  }
}

// Each input has one mapping, its last video or audio stream that is not a
// still picture (MJPEG, JPEG 2000); every packet of the input goes to that
// stream's output stream, and earlier streams stay empty. Packets without
// timestamps (raw H.264) get them from the frame rate and the packet count.
TEST(PacketMux, EachInputCarriesAllItsPacketsInItsLastMappedStream) {
  const SyntheticStream video{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, {1, 48000}, 10, 0, 1920, 64, {25, 1}};
  SyntheticStream audio = kAudio;
  audio.count = 20;
  // Input, output stream types, packets in the last one, their reported type, and the spacing of their pts in ms.
  const std::tuple<std::string, std::vector<std::string>, size_t, int, int64_t> cases[] = {
      {Synthetic("va", {video, audio}), {"video", "audio"}, 30, AVMEDIA_TYPE_AUDIO, 0},
      {Synthetic("av", {audio, video}), {"audio", "video"}, 30, AVMEDIA_TYPE_VIDEO, 0},
      {Synthetic("mjpeg", {kVideo, audio}, AV_CODEC_ID_MJPEG, 1), {"audio"}, 21, AVMEDIA_TYPE_AUDIO, 0},
      {Synthetic("j2k", {kVideo, audio}, AV_CODEC_ID_JPEG2000, 1), {"audio"}, 21, AVMEDIA_TYPE_AUDIO, 0},
      {Synthetic("png", {kVideo, audio}, AV_CODEC_ID_PNG, 1), {"video", "audio"}, 21, AVMEDIA_TYPE_AUDIO, 0},
      {RawH264Clip(), {"video"}, 25, AVMEDIA_TYPE_VIDEO, RawH264FrameMs()}};
  for (const auto& [input, expected, carried, type, frame_ms] : cases) {
    SCOPED_TRACE(input);
    AnyTask task(Family::kPacket);
    const std::string output = TempPath("mapped.mkv");
    const std::vector<ProbePacket> packets = Mux(task, output, {{input}});
    std::vector<std::string> types;
    for (const ProbeStream& stream : ProbeStreams(output)) types.push_back(stream.codec_type);
    EXPECT_EQ(types, expected);
    EXPECT_EQ(OfStream(packets, static_cast<int>(types.size()) - 1).size(), carried);
    EXPECT_EQ(packets.size(), task.log.Count()) << "earlier streams stay empty";
    for (const auto& call : task.log.Calls()) EXPECT_EQ(call.type, type);
    for (size_t i = 0; frame_ms > 0 && i < packets.size(); ++i)
      EXPECT_EQ(packets[i].pts, static_cast<int64_t>(i) * frame_ms) << i;
  }
}

// Caller-fed packets keep their times, rescaled to the output's time base. A
// packet of the task's video stream lasts 1/den of the caller's time base in
// whole microseconds; other streams keep the caller's duration (512), rescaled.
// With no video stream created, stream 0 counts as the video stream. framecrc
// lists the durations in its time bases: 1/90000 for video, the sample rate
// for audio.
TEST(PacketStream, VideoDurationFollowsTheTimeBaseDenominator) {
  // With a video stream, stream written, time base, with packet info (pts 2), duration listed.
  const std::tuple<bool, int, AVCODEC_TIMEBASE, bool, long long> cases[] = {
      {true, 0, {1, 25}, true, 3600},    // 40000 us
      {true, 0, {1, 90000}, true, 1},    // 11 us
      {true, 0, {1, 1000}, true, 90},    // 1000 us
      {true, 0, {1, 25}, false, 3600},   // without packet info too
      {true, 1, {1, 48000}, true, 512},  // audio: the caller's duration
      {false, 0, {1, 25}, true, 1920},   // audio as stream 0: 40000 us
  };
  for (auto [with_video, index, time_base, with_info, duration] : cases) {
    SCOPED_TRACE(testing::Message() << with_video << " stream " << index << " 1/" << time_base.den);
    MemoryWriter writer;
    void* task = AVFormat_Packet_Init(nullptr, nullptr);
    ASSERT_TRUE(AVFormat_Packet_Output(task, "framecrc", 0, 0, MemoryWriter::Write, &writer));
    EXPECT_TRUE((!with_video || Create(task, AVMEDIA_TYPE_VIDEO)) && Create(task, AVMEDIA_TYPE_AUDIO));
    const uint8_t data[16] = {1, 2, 3};
    AVCODEC_PACKETINFO info{2, 2, 512};
    EXPECT_TRUE(AVFormat_Packet_StreamWrite(task, index, data, 16, &time_base, with_info ? &info : nullptr));
    EXPECT_TRUE(AVFormat_Packet_Stop(task));
    // The last line: "stream, dts, pts, duration, size, checksum".
    const std::string text(writer.data.begin(), writer.data.end());
    long long listed[4] = {-1, 0, 0, -1};
    std::sscanf(text.c_str() + text.rfind('\n', text.size() - 2) + 1, "%lld, %lld, %lld, %lld", &listed[0], &listed[1],
                &listed[2], &listed[3]);
    EXPECT_EQ(listed[0], index);
    EXPECT_EQ(listed[3], duration);
    const AVRational listed_base{1, index == 0 && with_video ? 90000 : 48000};
    EXPECT_TRUE(!with_info || listed[2] == av_rescale_q(2, {time_base.num, time_base.den}, listed_base)) << listed[2];
  }
}

}  // namespace
