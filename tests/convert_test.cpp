// SPDX-License-Identifier: MIT
// Conversion: remuxing between containers and through the caller I/O bridge,
// stream selection and Seek. Its cuts, made-up times and refusals are in the
// lifecycle suite's tables.
#include <gtest/gtest.h>

#include <climits>

#include "support/families.h"

namespace {

using namespace qtest;

// Every packet of both streams arrives, with the same bytes and times where
// the output container keeps the bitstream as it is; one progress call each.
TEST(ConvertRemux, KeepsEveryPacketBetweenContainersAndThroughCallerFunctions) {
  // From, to, exact (MPEG-TS adds ADTS headers to AAC and its own start delay), through caller functions.
  const std::tuple<std::string, std::string, bool, bool> cases[] = {{"mkv", "mp4", true, false},
                                                                    {"mp4", "mkv", true, false},
                                                                    {"mkv", "nut", true, false},
                                                                    {"mp4", "ts", false, false},
                                                                    {"mkv", "mkv", true, true}};
  for (const auto& [from, to, exact, bridged] : cases) {
    SCOPED_TRACE(from + " -> " + to + (bridged ? " through caller functions" : ""));
    const std::string input = VideoAudioClip(from), output = TempPath("remux_" + from + "." + to);
    MemoryReader reader(ReadFile(input));
    MemoryWriter writer;
    AnyTask task(Family::kConvert);
    ASSERT_TRUE(task.Reach(Stage::kEnded, {bridged ? Source{"", &reader} : Source{input}},
                           bridged ? Sink{"matroska", &writer} : Sink{output}));
    task.Stop();
    if (bridged) WriteFile(output, writer.data);
    const auto in = ProbePackets(input), out = ProbePackets(output);
    const auto in_streams = ProbeStreams(input), out_streams = ProbeStreams(output);
    ASSERT_EQ(out_streams.size(), 2u);
    for (int s = 0; s < 2; ++s) {
      EXPECT_EQ(out_streams[s].codec_type, in_streams[s].codec_type);
      const auto a = OfStream(in, s), b = OfStream(out, s);
      ASSERT_EQ(a.size(), b.size()) << "stream " << s;
      // A muxer may shift a whole stream (to avoid negative times): times count from its first packet.
      const double from_tick = av_q2d(in_streams[s].time_base), to_tick = av_q2d(out_streams[s].time_base);
      for (size_t i = 0; exact && i < a.size(); ++i) {
        EXPECT_EQ(b[i].hash, a[i].hash) << "stream " << s << " packet " << i;
        EXPECT_NEAR((b[i].pts - b[0].pts) * to_tick, (a[i].pts - a[0].pts) * from_tick, to_tick + 1e-9) << i;
      }
    }
    EXPECT_EQ(task.log.Count(), in.size());
  }
}

// Streams other than video, audio and subtitles are dropped, and output
// streams are found by the input stream's index: a kept stream after a
// dropped one has no output stream of its index and loses its packets, which
// are not reported either.
TEST(ConvertStreams, DataStreamsAreDroppedAndLaterStreamsLoseTheirIndex) {
  const SyntheticStream video, audio{AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 25}, 50},
      data{AVMEDIA_TYPE_DATA, AV_CODEC_ID_NONE, {1, 25}, 10, 0, 1, 64, {25, 1}, MKTAG('D', 'A', 'T', 'A')};
  const std::string input = TempPath("layout.nut"), output = TempPath("layout.mkv");
  // Input streams, output stream types, audio packets written.
  const std::tuple<std::vector<SyntheticStream>, std::string, size_t> cases[] = {
      {{video, data, audio}, "videoaudio", 0},
      {{video, audio, data}, "videoaudio", 50},
      {{audio, video}, "audiovideo", 50}};
  for (const auto& [layout, types, audio_packets] : cases) {
    SCOPED_TRACE(types + std::to_string(audio_packets));
    WriteSynthetic(input, "nut", layout);
    AnyTask task(Family::kConvert);
    ASSERT_TRUE(task.Reach(Stage::kEnded, {{input}}, {output}));
    task.Stop();
    const auto streams = ProbeStreams(output);
    const auto packets = ProbePackets(output);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0].codec_type + streams[1].codec_type, types);
    const int audio_stream = types[0] == 'a' ? 0 : 1;
    EXPECT_EQ(OfStream(packets, 1 - audio_stream).size(), 100u);
    EXPECT_EQ(OfStream(packets, audio_stream).size(), audio_packets);
    const auto calls = task.log.Calls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](auto& call) { return call.type == AVMEDIA_TYPE_AUDIO; }),
              static_cast<long>(audio_packets));
  }
}

// Seek takes whole seconds and lands on any frame, key frame or not (MP4
// honours that); here on a task that Start left paused, before any packet
// moved. Seconds whose microseconds do not fit in 64 bits get the seek code.
TEST(ConvertSeek, APausedTaskGoesOnFromTheWholeSecondAsked) {
  AnyTask task(Family::kConvert);
  const Sink sink{TempPath("seek.mkv")};
  ASSERT_TRUE(task.Reach(Stage::kSetUp, {{VideoAudioClip("mp4")}}, sink) && task.Suspend(true) && task.Start());
  for (long long seconds : {10000000000000LL, -10000000000000LL, LLONG_MAX, LLONG_MIN})
    EXPECT_EQ(AVFormat_Convert_Seek(task.handle(), seconds) ? 0 : AVFormat_GetLastError(nullptr),
              ERROR_AVFORMAT_CONVERT_SEEK);
  ASSERT_TRUE(AVFormat_Convert_Seek(task.handle(), 1) && task.Suspend(false) && task.WaitForEnd() && task.Stop());
  const auto calls = task.log.Calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_NEAR(calls.front().seconds, 1.0, 0.03);
  EXPECT_EQ(ProbeOutput(sink).size(), calls.size());
}

}  // namespace
