// SPDX-License-Identifier: MIT
// Multiplexing and concatenation with the practical options against the ffmpeg tool's -c copy, read by ffprobe.
#include <gtest/gtest.h>

#include "support/families.h"

namespace {

using namespace qtest;

// libx264 with B-frames and AAC, as real files are made; a key frame each second.
std::string Av(const std::string& name, int seconds, const std::string& tone = "sine") {
  return Clip(name, "-f lavfi -i testsrc=size=160x120:rate=25 -f lavfi -i " + tone + " -t " + std::to_string(seconds) +
                        " -c:v libx264 -bf 2 -g 25 -c:a aac");
}

// Multiplexing with the practical preset (one option set back to 0, if named):
// each input with its stream specifier ("" for all), against ffmpeg's -map.
TEST(OptionsMux, PracticalMuxMatchesFFmpegMap) {
  const std::string a = Av("mux_a.mp4", 4), b = Av("mux_b.mkv", 3, "sine=frequency=300");
  const std::string avi =  // video packets with a decode time only, and audio
      Clip("mux.avi", "-f lavfi -i testsrc=d=2:s=160x120 -f lavfi -i sine=d=2 -c:v mpeg4 -bf 2 -c:a mp2");
  const struct {
    std::vector<std::pair<std::string, std::string>> inputs;
    std::string maps;  // ffmpeg's -map arguments for the same job; empty: Input is refused
    std::string off = "";
  } cases[] = {
      {{{"v", a}, {"a", b}}, "-map 0:v -map 1:a"},
      {{{"v", a}, {"a", b}}, "-map 0:v -map 1:a -shortest", "until_all_inputs_end"},
      {{{"", a}}, "-map 0"},
      {{{"a:0", a}, {"", b}}, "-map 0:a:0 -map 1"},
      {{{"v:0", b}, {"#2", a}}, "-map 0:v:0 -map 1:#2"},
      {{{"", avi}, {"a", b}}, "-map 0 -map 1:a"},
      {{{"s", a}}, ""},
  };
  int n = 0;
  for (const auto& job : cases) {
    const std::string ours = TempPath("mux" + std::to_string(++n) + ".mp4"), ref = TempPath("muxref.mp4");
    AnyTask task(Family::kPacket);
    ASSERT_TRUE(task.Set("mode", "practical") && (job.off.empty() || task.Set(job.off.c_str(), "0")));
    std::vector<Source> sources;
    std::string ffmpeg = QUORVEL_FFMPEG_TOOL " -v error -y";
    for (const auto& [streams, file] : job.inputs)
      sources.push_back({file, nullptr, 0, 0, 0, 1, streams}), ffmpeg += " -i " + file;
    const bool taken = task.Reach(Stage::kEnded, sources, {ours});
    EXPECT_EQ(taken, !job.maps.empty()) << n;
    if (!taken) {
      EXPECT_EQ(task.code, ERROR_AVFORMAT_PACKET_PARAMETER) << n;
      continue;
    }
    task.Stop();
    ASSERT_EQ(qtest::Run(ffmpeg + " " + job.maps + " -c copy " + ref), 0) << ffmpeg;
    const std::vector<StreamShape> got = ShapesOf(ours), want = ShapesOf(ref);
    ASSERT_EQ(got.size(), want.size()) << n;
    for (size_t i = 0; i < got.size(); ++i) {  // -shortest ends within a packet of our end
      EXPECT_EQ(got[i].type, want[i].type) << n << " stream " << i;
      EXPECT_NEAR(got[i].packets, want[i].packets, job.off.empty() ? 0 : 1) << n << " stream " << i;
      EXPECT_NEAR(got[i].end - got[i].first, want[i].end - want[i].first, 0.05) << n << " stream " << i;
    }
  }
}

// What a join with in and out points (0: none) holds, as the ffmpeg tool cuts each part alone
// (`-ss IN -i FILE -t LENGTH -c copy`, into Matroska, which keeps the audio from where the seek lands, ahead of the
// key frame): the packets of each stream, and how long the parts last (each from its first time to its last end).
void AddPart(const std::string& file, double in, double out, int packets[2], double& length) {
  const std::string part = TempPath("linkpart.mkv");
  std::string cut = QUORVEL_FFMPEG_TOOL " -v error -y" + (in > 0 ? " -ss " + std::to_string(in) : "") + " -i " + file;
  if (out > 0) cut += " -t " + std::to_string(out - in);
  ASSERT_EQ(qtest::Run(cut + " -c copy " + part), 0) << cut;
  const std::vector<StreamShape> shapes = ShapesOf(part);
  for (int i : {0, 1}) packets[i] += shapes.at(i).packets;
  length += std::max(shapes[0].end, shapes[1].end) - std::min(shapes[0].first, shapes[1].first);
}

// Concatenation with the practical preset: every part joined without a loss
// or a gap, each cut on its own timeline as ffmpeg cuts it; every frame decodes.
TEST(OptionsLink, PracticalJoinKeepsEveryPartWhole) {
  const std::string a = Av("link_a.mp4", 4), b = Av("link_b.mp4", 3, "sine=frequency=300");
  const std::vector<std::tuple<std::string, double, double>> cases[] = {
      {{a, 0, 0}, {b, 0, 0}, {a, 0, 0}}, {{a, 1.5, 3.0}, {b, 0.5, 2.0}}, {{b, 0, 2.2}, {a, 2.2, 0}}};
  int n = 0;
  for (const auto& inputs : cases) {
    const std::string ours = TempPath("link" + std::to_string(++n) + ".mkv");
    AnyTask task(Family::kLink);
    int packets[2] = {0, 0};  // what the parts hold
    double length = 0.0;
    std::vector<Source> sources;
    for (const auto& [file, in, out] : inputs)
      sources.push_back({file, nullptr, in, out}), AddPart(file, in, out, packets, length);
    ASSERT_TRUE(task.Set("mode", "practical") && task.Reach(Stage::kEnded, sources, {ours}) && task.Stop());
    const std::vector<StreamShape> got = ShapesOf(ours);
    const double joins = static_cast<double>(inputs.size() - 1);  // an AAC priming packet overlaps each join
    for (int i : {0, 1}) EXPECT_NEAR(got.at(i).packets, packets[i], i * joins) << n << " stream " << i;
    EXPECT_NEAR(std::max(got[0].end, got[1].end) - std::min(got[0].first, got[1].first), length, 0.05 * joins) << n;
    EXPECT_EQ(got[0].frames, got[0].packets) << n << ": video frames that a decoder gets out of the join";
  }
}

}  // namespace
