// SPDX-License-Identifier: MIT
// The practical cut options of conversion and demultiplexing, each against
// the same job done by the ffmpeg tool with -c copy: packets per stream,
// frames that ffprobe decodes, and the span of the presentation times (within
// one frame); plus rows that show the defined behaviour without the option.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "support/families.h"

using namespace qtest;

namespace {

// One output of a job: our file, the input stream it takes (demultiplexing),
// and the reference's ffmpeg arguments: input options|output options ("": none).
struct Out {
  std::string name;
  int stream;
  std::string reference;
};

struct Row {
  const char* what;
  bool unpack;
  std::string input;
  double start, end;
  std::string options;  // names of the options set to 1
  std::vector<Out> outs;
  double first;  // the earliest packet's time in our output (NaN: not checked)
  bool matches;  // packets, frames and span as the reference's; false: fewer packets
  bool refused;  // the task's report counts refused packets
};

// Runs the row's job through the library; returns the task's report.
AVFORMAT_TASK_REPORT RunJob(const Row& row) {
  AnyTask task(row.unpack ? Family::kUnpack : Family::kConvert);
  std::istringstream names(row.options);
  for (std::string name; names >> name;) EXPECT_TRUE(task.Set(name.c_str(), "1"));
  std::vector<Sink> sinks;
  for (const Out& out : row.outs) sinks.push_back({TempPath(out.name), nullptr, row.start, row.end, out.stream});
  const std::vector<Source> sources(1, Source{row.input});
  EXPECT_TRUE(row.unpack ? task.Input(sources) && task.Outputs(sinks) && task.Start() && task.WaitForEnd()
                         : task.Reach(Stage::kEnded, sources, sinks[0]));
  AVFORMAT_TASK_REPORT report{};
  report.dwSize = sizeof report;
  task.Stop(&report);
  return report;
}

TEST(OptionsCut, EachOptionMatchesFfmpegStreamCopy) {
  const std::string lavfi = "-f lavfi -i testsrc=s=160x120:r=25:d=";
  const std::string clip = Clip("cut.mp4", lavfi + "10 -f lavfi -i sine=d=10 -c:v libx264 -bf 2 -g 50 -c:a aac");
  const std::string avi = Clip("gen.avi", lavfi + "2 -f lavfi -i sine=d=2 -c:v mpeg4 -bf 2 -c:a mp2");
  const std::string layered = TempPath("layered.nut");  // streams [data, video, audio]
  WriteSynthetic(layered, "nut",
                 {{AVMEDIA_TYPE_DATA, AV_CODEC_ID_NONE, {1, 25}, 10, 0, 1, 64, {25, 1}, MKTAG('D', 'A', 'T', 'A')},
                  {},
                  {AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 25}, 50}});
  const std::string cut = "-ss 5|-t 3.5 -c copy -avoid_negative_ts make_zero ", v = "|-map 0:v -c copy ",
                    a = "|-map 0:a -c copy ", va = "|-map 0:v -map 0:a -c copy ",
                    cuts = "keyframe_start end_exclusive zero_start", apart = "outputs_independent rescale_times";
  const double no = std::nan("");
  const Row rows[] = {
      {"convert cut", false, clip, 5, 8.5, cuts, {{"cut.mkv", 0, cut}}, 0, true, false},
      {"convert cut, defined", false, clip, 5, 8.5, "", {{"cut0.mkv", 0, "-ss 5|-c copy "}}, 5, false, false},
      {"dense", false, layered, 0, 0, "dense_streams", {{"dense.mkv", 0, va}}, no, true, false},
      {"dts as pts", false, avi, 0, 0, "dts_as_pts", {{"avi.mp4", 0, "|-c copy "}}, no, true, false},
      {"split, rescaled", true, clip, 0, 0, "rescale_times", {{"v.mkv", 0, v}, {"a.mka", 1, a}}, no, true, false},
      {"split cut", true, clip, 5, 8.5, cuts + " rescale_times", {{"vc.mkv", 0, cut + "-map 0:v "}}, 0, true, false},
      // The Matroska output refuses every video packet: they have no presentation time.
      {"split, independent", true, avi, 0, 0, apart, {{"vi.mkv", 0, ""}, {"ai.mka", 1, a}}, no, true, true},
      {"split, defined", true, avi, 0, 0, "", {{"v0.mkv", 0, ""}, {"a0.mka", 1, a}}, no, false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(RunJob(row).llPacketsRefused > 0, row.refused);
    double first = 1e9;
    for (const Out& out : row.outs) {
      const std::vector<StreamShape> ours = ShapesOf(TempPath(out.name));
      for (const StreamShape& stats : ours) first = std::min(first, stats.first);
      if (out.reference.empty()) continue;
      const std::string reference = TempPath("ref-" + out.name);
      const size_t bar = out.reference.find('|');
      ASSERT_EQ(qtest::Run(std::string(QUORVEL_FFMPEG_TOOL) + " -v error -y " + out.reference.substr(0, bar) + " -i '" +
                           row.input + "' " + out.reference.substr(bar + 1) + "'" + reference + "'"),
                0);
      const std::vector<StreamShape> theirs = ShapesOf(reference);
      ASSERT_EQ(ours.size(), row.matches ? theirs.size() : ours.size()) << out.name;
      for (size_t i = 0; i < theirs.size(); ++i) {
        SCOPED_TRACE(out.name + " stream " + std::to_string(i));
        const StreamShape mine = i < ours.size() ? ours[i] : StreamShape{};
        EXPECT_TRUE(row.matches ? mine.packets == theirs[i].packets : mine.packets < theirs[i].packets)
            << mine.packets << " packets, ffmpeg " << theirs[i].packets;
        if (!row.matches) continue;
        EXPECT_EQ(mine.frames, theirs[i].frames);
        EXPECT_NEAR(mine.last - mine.first, theirs[i].last - theirs[i].first, 0.041);
      }
    }
    EXPECT_TRUE(std::isnan(row.first) || std::fabs(first - row.first) < 0.041) << "first time " << first;
  }
}

}  // namespace
