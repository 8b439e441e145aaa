// SPDX-License-Identifier: MIT
// Concatenation: files joined end to end, checked with ffprobe. Its refusals
// are in the lifecycle suite's table.
#include <gtest/gtest.h>

#include "support/families.h"

namespace {

using namespace qtest;

// Synthetic packets are not decodable; their decoders' complaints are noise here.
const int kQuietLog = (av_log_set_level(AV_LOG_FATAL), 0);

// Matroska, whose time base of 1/1000 keeps 1/25 and 1/1000 exact; intra-only
// video, so that no reader guesses a decoding delay for the undecodable packets.
// `other` adds a second video stream after the audio stream.
std::string Synthetic(const std::string& name, int video, int audio, int other, int64_t step = 1,
                      AVRational base = {1, 25}) {
  std::vector<SyntheticStream> streams;
  if (video > 0) streams.push_back({AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MJPEG, base, video, 0, step});
  if (audio > 0) streams.push_back({AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 25}, audio});
  if (other > 0) streams.push_back({AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_FFV1, base, other});
  const std::string path = TempPath(name + ".mkv");
  WriteSynthetic(path, "matroska", streams);
  return path;
}

// 100 timestamps first, first + step, ... per input, one input after another.
std::vector<int64_t> Ramps(const std::vector<std::pair<int64_t, int64_t>>& ramps) {
  std::vector<int64_t> all;
  for (const auto& [first, step] : ramps)
    for (int64_t k = 0; k < 100; ++k) all.push_back(first + k * step);
  return all;
}

// The codec of the first stream of `type` in the first input that has one.
std::string DescribedFrom(const std::vector<Source>& inputs, const std::string& type) {
  for (const Source& in : inputs)
    for (const auto& stream : ProbeStreams(in.url))
      if (stream.codec_type == type) return stream.codec_name;
  return "";
}

// Whole joins, read back with ffprobe:
//  - each input's video and audio stream as the caller names them, audio
//    first; output streams described from the first input with each kind;
//  - the cut on the output timeline, keeping what lies at or before the start
//    bound (and the end bound);
//  - each input shifted by the last timestamp plus last / count in the inputs'
//    time base, so with a spacing of 1 the next input repeats the last time;
//  - one progress call per routed packet, cut or not, numbered per kind from 1
//    over all inputs; and the task ending by itself.
TEST(LinkJoin, WritesWhatTheCallerAsks) {
  const std::string clip = VideoAudioClip("mkv");
  const auto source = ProbePackets(clip);
  const size_t v = OfStream(source, 0).size(), a = OfStream(source, 1).size();
  const std::string av = Synthetic("av", 40, 30, 0), audio_only = Synthetic("a", 0, 30, 0);
  const std::string two_videos = Synthetic("ava", 40, 30, 20), four_seconds = Synthetic("four", 100, 0, 0);
  const std::string ones = Synthetic("ones", 100, 0, 0, 1, {1, 1000}),
                    twos = Synthetic("twos", 100, 0, 0, 2, {1, 1000});
  const std::vector<std::string> both{"video", "audio"}, video{"video"};
  struct Case {
    const char* name;
    std::string container;
    std::vector<Source> inputs;
    std::vector<std::string> types;  // output streams in order
    std::vector<size_t> packets;     // per output stream
    size_t calls;
    std::vector<int64_t> pts = {};  // of output stream 0 in 1/1000, when given
  } const cases[] = {
      {"two clips", "mkv", {{clip}, {clip}}, both, {2 * v, 2 * a}, 2 * (v + a)},
      {"three clips", "mp4", {{clip}, {clip}, {clip}}, both, {3 * v, 3 * a}, 3 * (v + a)},
      {"audio-only first input", "mkv", {{audio_only, nullptr, 0, 0, 0, 0}, {av}}, {"audio", "video"}, {60, 40}, 100},
      {"video index -1", "mkv", {{av, nullptr, 0, 0, -1, 1}, {av}}, both, {40, 60}, 100},
      {"audio index -1", "mkv", {{av, nullptr, 0, 0, 0, -1}}, both, {40, 0}, 40},
      {"index outside the input", "mkv", {{av, nullptr, 0, 0, 7, 1}}, both, {0, 30}, 30},
      {"other streams stay out", "mkv", {{two_videos}}, both, {40, 30}, 70},
      {"second video stream", "mkv", {{two_videos, nullptr, 0, 0, 2, 1}}, both, {20, 30}, 50},
      {"named as both kinds", "mkv", {{av, nullptr, 0, 0, 1, 1}}, both, {0, 30}, 30},
      {"cut", "mkv", {{four_seconds, nullptr, 1.01, 2.01}}, video, {26}, 100},
      {"cut, start 0 or less", "mkv", {{four_seconds, nullptr, -1.0, 2.01}}, video, {100}, 100},
      {"cut, end 0 or less", "mkv", {{four_seconds, nullptr, 1.01, 0.0}}, video, {100}, 100},
      {"cut, end before start", "mkv", {{four_seconds, nullptr, 3.01, 2.01}}, video, {51}, 100},
      {"cut on the output timeline", "mkv", {{four_seconds}, {four_seconds, nullptr, 5.01, 10.0}}, video, {126}, 200},
      {"equal spacing", "mkv", {{ones}, {ones}}, video, {200}, 200, Ramps({{0, 1}, {99, 1}})},
      {"double spacing", "mp4", {{twos}, {ones}}, video, {200}, 200, Ramps({{0, 2}, {199, 1}})},
      {"three inputs", "mkv", {{ones}, {ones}, {ones}}, video, {300}, 300, Ramps({{0, 1}, {99, 1}, {199, 1}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " into " + c.container);
    const std::string output = TempPath("joined." + c.container);
    AnyTask task(Family::kLink);
    ASSERT_TRUE(task.Reach(Stage::kEnded, c.inputs, {output}) && task.Stop());

    const auto streams = ProbeStreams(output);
    const auto packets = ProbePackets(output);
    ASSERT_EQ(streams.size(), c.types.size());
    for (size_t s = 0; s < streams.size(); ++s) {
      EXPECT_EQ(streams[s].codec_type, c.types[s]) << s;
      EXPECT_EQ(streams[s].codec_name, DescribedFrom(c.inputs, c.types[s])) << s;
      const auto written = OfStream(packets, static_cast<int>(s));
      EXPECT_EQ(written.size(), c.packets[s]) << s;
      std::vector<int64_t> pts;
      for (size_t i = 0; i < written.size(); ++i) {
        ASSERT_TRUE(i == 0 || written[i].dts >= written[i - 1].dts) << s << " #" << i;
        pts.push_back(av_rescale_q(written[i].pts, streams[s].time_base, {1, 1000}));
      }
      EXPECT_EQ(s == 0 && !c.pts.empty() ? pts : c.pts, c.pts);
    }
    const auto calls = task.log.Calls();
    EXPECT_EQ(calls.size(), c.calls);
    long long next[2] = {1, 1};
    for (const auto& call : calls) EXPECT_EQ(call.number, next[call.type == AVMEDIA_TYPE_VIDEO ? 0 : 1]++);
  }
}

}  // namespace
