// SPDX-License-Identifier: MIT
// Task options: SetOption's refusals in every family, FFmpeg's own options
// reaching the demuxer and muxer, the strict input policy, keep_codec_tag,
// and the error texts and version that the library gives.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <sstream>

#include "support/families.h"

namespace {

using namespace qtest;
using Options = std::vector<std::pair<const char*, const char*>>;
// Each family's five option codes follow one another: OPTION, _VALUE, _LATE, _UNUSED, POLICY.
enum { kUnknown, kValue, kLate, kUnused, kPolicy };
const uint64_t kOptionCodes[] = {ERROR_AVFORMAT_CONVERT_OPTION, ERROR_AVFORMAT_PACKET_OPTION,
                                 ERROR_AVFORMAT_PACKET_OPTION, ERROR_AVFORMAT_LINK_OPTION};

// Sets `options` and runs the task to its end: 0, or the code of the first call that failed.
uint64_t RunWith(Family family, const Options& options, const std::vector<Source>& in,
                 const Sink& out = {TempPath("out.mkv")}) {
  AnyTask task(family);
  for (const auto& [name, value] : options)
    if (!task.Set(name, value)) return task.code;
  return task.Reach(Stage::kEnded, in, out) ? 0 : task.code;
}

std::string Written(const std::string& name, const std::string& text) {
  return WriteFile(TempPath(name), {text.begin(), text.end()}), TempPath(name);
}

// Refused names, values and times (at Init, once set up, once started), then FFmpeg's entries and the policy.
TEST(OptionsSet, EachRefusalHasTheFamilysCode) {
  for (Family family : kFamilies) {
    SCOPED_TRACE(Name(family));
    const uint64_t codes = kOptionCodes[static_cast<int>(family)], parameter = CodesOf(family).parameter;
    const std::vector<Source> clip{{VideoAudioClip("mkv")}};
    AnyTask task(family), stopped(family);
    EXPECT_TRUE(stopped.Stop() && !stopped.Set("mode", "practical") && stopped.code == parameter);
    const std::tuple<int, const char*, const char*, uint64_t> rows[] = {// clang-format off
        {0, nullptr, "1", parameter}, {0, "mode", nullptr, parameter}, {0, "no_such_option", "1", codes + kUnknown},
        {0, "mode", "fast", codes + kValue}, {0, "dts_as_pts", "maybe", codes + kValue},
        {0, "input.format", "nope", codes + kValue}, {0, "mode", "practical", 0}, {0, "dts_as_pts", "off", 0},
        {0, "open_timeout", "-1", codes + kValue}, {0, "open_timeout", "soon", codes + kValue},
        {0, "open_timeout", "1:30.5", 0}, {1, "open_timeout", "2", codes + kLate},
        {1, "input.probesize", "50000", codes + kLate}, {2, "dts_as_pts", "1", codes + kLate}};
    // clang-format on
    int stage = 0;
    for (const auto& [when, name, value, code] : rows) {
      for (; stage < when; ++stage)
        ASSERT_TRUE(stage ? task.Start() : task.Reach(Stage::kSetUp, clip, {TempPath("late.mkv")}));
      EXPECT_EQ(task.Set(name, value) ? 0 : task.code, code) << name;
    }
    EXPECT_EQ(RunWith(family, {{"input.probesize", "100000"}}, clip), 0u);
    EXPECT_EQ(RunWith(family, {{"input.no_such_entry", "1"}}, clip), codes + kUnused);
    EXPECT_EQ(RunWith(family, {{"policy", "strict"}}, {{"concat:" + clip[0].url}}), codes + kPolicy);
  }
}

TEST(OptionsPassThrough, InputFormatAndOutputEntriesReachFFmpeg) {
  MemoryReader raw(ReadFile(RawH264Clip())), wrong(ReadFile(RawH264Clip()));
  EXPECT_EQ(RunWith(Family::kConvert, {{"input.format", "h264"}}, {{"", &raw}}), 0u);
  EXPECT_EQ(ProbePackets(TempPath("out.mkv")).size(), 25u);
  EXPECT_NE(RunWith(Family::kConvert, {{"input.format", "mpegts"}}, {{"", &wrong}}), 0u);
  // The first of an MP4's top-level boxes named m...: the index (moov) comes before the data (mdat) only when asked.
  const auto first_m = [](const std::vector<uint8_t>& b) {
    for (size_t at = 0, size = 8; size >= 8 && at + 8 <= b.size();
         at += size = b[at] << 24 | b[at + 1] << 16 | b[at + 2] << 8 | b[at + 3])
      if (b[at + 4] == 'm') return std::string(b.begin() + at + 4, b.begin() + at + 8);
    return std::string();
  };
  const std::vector<Source> clip{{VideoAudioClip("mkv")}};
  for (const bool faststart : {true, false}) {
    const Options options = faststart ? Options{{"output.movflags", "+faststart"}} : Options{};
    EXPECT_EQ(RunWith(Family::kConvert, options, clip, {TempPath("fast.mp4")}), 0u);
    EXPECT_EQ(first_m(ReadFile(TempPath("fast.mp4"))), faststart ? "moov" : "mdat");
  }
  // One stream: a multiplexing task puts every stream of an input into one output stream.
  for (Family family : {Family::kConvert, Family::kUnpack, Family::kPacket}) {
    MemoryWriter writer;
    EXPECT_EQ(RunWith(family, {{"fragment_bridged_mp4", "1"}}, {{VideoOnlyClip("mkv")}}, {"mp4", &writer}), 0u);
    EXPECT_EQ(ProbeOutput({"mp4", &writer}).size(), ProbePackets(VideoOnlyClip("mkv")).size()) << Name(family);
  }
}

// What the strict policy lists as refused, each by name and (where it has bytes) through a read function.
TEST(OptionsPolicy, StrictRefusesWhatOpensMoreThanItsOwnBytes) {
  const std::string clip = VideoAudioClip("mkv"), ts = VideoAudioClip("ts");
  const std::string hls = Written("list.mp4", "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\n" + ts + "\n");
  const std::string list = Written("list.ffconcat", "ffconcat version 1.0\nfile '" + clip + "'\n");
  const std::string sdp = Written("a.sdp", "v=0\nc=IN IP4 127.0.0.1\nm=video 5004 RTP/AVP 96\n");
  const auto strict = [](const Source& source) { return RunWith(Family::kConvert, {{"policy", "strict"}}, {source}); };
  for (const std::string& url :
       std::vector<std::string>{"http://127.0.0.1:9/a.mkv", "concat:" + clip + "|" + clip,
                                "subfile,,start,0,end,0,,:" + clip, "data:text/plain;base64,AAAA", hls, list, sdp}) {
    // Newer FFmpeg no longer takes a playlist named .mp4 as one: it then fails to open at all.
    const uint64_t code = strict({url});
    EXPECT_TRUE(code == ERROR_AVFORMAT_CONVERT_POLICY || (url == hls && code == ERROR_AVFORMAT_CONVERT_OPEN)) << url;
  }
  for (const std::string& path : {hls, list, clip}) {
    MemoryReader reader(ReadFile(path));
    const uint64_t code = strict({"", &reader});
    EXPECT_TRUE(path == clip ? code == 0 : code == ERROR_AVFORMAT_CONVERT_POLICY || (path == hls && code == ERROR_AVFORMAT_CONVERT_OPEN))
        << "read: " << path << " " << code;
  }
  EXPECT_EQ(strict({clip}), 0u);
}

// mov_text from an MP4 keeps its tag in NUT, which has none of its own for it; AAC's MP4 tag gives way to NUT's.
TEST(OptionsKeepCodecTag, KeepsWhatTheOutputContainerTakes) {
  const std::string mp4 = Clip("subs.mp4", "-f lavfi -i testsrc=d=2:s=160x120:r=25 -f lavfi -i sine=d=2 -i " +
                                               Written("subs.srt", "1\n00:00:00,000 --> 00:00:01,000\nhello\n") +
                                               " -map 0 -map 1 -map 2 -c:v mpeg4 -c:a aac -c:s mov_text");
  EXPECT_EQ(RunWith(Family::kConvert, {}, {{mp4}}, {TempPath("tags.nut")}), ERROR_AVFORMAT_CONVERT_WRITEHEADER);
  EXPECT_EQ(RunWith(Family::kConvert, {{"keep_codec_tag", "1"}}, {{mp4}}, {TempPath("tags.nut")}), 0u);
  std::string tags;
  qtest::Run(QUORVEL_FFPROBE_TOOL " -v error -show_entries stream=codec_tag_string -of csv=p=0 " + TempPath("tags.nut"),
             &tags);
  EXPECT_TRUE(std::regex_match(tags, std::regex("mp4v\n(?!mp4a).+\ntx3g\n"))) << tags;
  EXPECT_EQ(OfStream(ProbePackets(TempPath("tags.nut")), 2).size(), OfStream(ProbePackets(mp4), 2).size());
}

TEST(OptionsErrorTexts, EveryCodeInTheHeaderHasItsNameAndASentence) {
  std::string defines;  // the header beside this file's folder
  ASSERT_EQ(qtest::Run("grep -o '^#define ERROR_AVFORMAT_[A-Z_]* 0x[0-9A-F]*' \"$(dirname " __FILE__
                       ")/../include/Quorvel_AVFormat.h\"",
                       &defines),
            0);
  std::istringstream lines(defines);
  int count = 0;
  for (std::string define, name, value; lines >> define >> name >> value; ++count) {
    const uint64_t code = std::stoull(value, nullptr, 16);
    EXPECT_STREQ(AVFormat_GetErrorName(code), name.c_str());
    EXPECT_STRNE(AVFormat_GetErrorText(code), AVFormat_GetErrorText(0)) << name;
    EXPECT_GT(std::strlen(AVFormat_GetErrorText(code)), 40u) << name;
  }
  EXPECT_EQ(count, 46);
  EXPECT_EQ(AVFormat_GetErrorName(0x80D0001), nullptr);
  EXPECT_EQ(AVFormat_GetVersion(), unsigned{QUORVEL_AVFORMAT_VERSION});
  EXPECT_EQ(QUORVEL_AVFORMAT_VERSION, QUORVEL_AVFORMAT_VERSION_MAJOR << 16 | QUORVEL_AVFORMAT_VERSION_MINOR << 8 |
                                          QUORVEL_AVFORMAT_VERSION_PATCH);
}

}  // namespace
