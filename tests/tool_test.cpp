// The command-line tool as a user meets it today: each subcommand once, its
// output read by ffprobe; the exit status of failures (1) and of bad command
// lines (2); a Ctrl-C in the middle of a conversion. A build without the tool
// skips these.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <tuple>

#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using namespace qtest;
using Args = std::vector<std::string>;

std::string Text(const std::string& path) {
  const std::vector<uint8_t> bytes = ReadFile(path);
  return {bytes.begin(), bytes.end()};
}

// The tool's exit status and standard error; standard input comes from `in`,
// standard output goes to `out`. `before` runs first in the shell that then
// becomes the tool.
std::pair<int, std::string> RunTool(const Args& args, const std::string& out, const std::string& in = "/dev/null",
                                    const std::string& before = "") {
  std::string command = before + "exec '" QUORVEL_TOOL_FILE "'";
  for (const std::string& arg : args) command += " '" + arg + "'";
  const int status = Run(command + " <'" + in + "' >'" + out + "' 2>'" + out + ".err'");
  return {status, Text(out + ".err")};
}

// A file's streams as ffprobe sees them: type letter and packet count ("v50 a87").
std::string Shape(const std::string& file) {
  std::string shape;
  for (const ProbeStream& s : ProbeStreams(file))
    shape += (shape.empty() ? "" : " ") + s.codec_type.substr(0, 1) +
             std::to_string(OfStream(ProbePackets(file), s.index).size());
  return shape;
}

// Each subcommand once, with files and standard input and output ("-");
// `packets` lists what ffprobe lists, `streams` describes each stream.
TEST(Tool, EachSubcommandWritesWhatFfprobeSees) {
  if (!*QUORVEL_TOOL_FILE) GTEST_SKIP() << "built without the tool";
  const std::string mkv = VideoAudioClip("mkv"), out = TempPath("tool.out");
  const std::vector<ProbePacket> packets = ProbePackets(mkv);
  const std::string v = std::to_string(OfStream(packets, 0).size()), a = std::to_string(OfStream(packets, 1).size());
  const std::string s0 = TempPath("s.mkv"), s1 = TempPath("s.mka"), m = TempPath("m.mkv"), j = TempPath("j.mkv");
  // clang-format off
  const std::tuple<Args, std::string, std::vector<std::pair<std::string, std::string>>> cases[] = {
      {{"convert", VideoAudioClip("mp4"), "-", "--format", "nut"}, "/dev/null", {{out, "v" + v + " a" + a}}},
      {{"split", "-", "0=" + s0, "1=" + s1}, mkv, {{s0, "v" + v}, {s1, "a" + a}}},
      {{"mux", m, VideoOnlyClip("mkv"), "-"}, AudioOnlyClip("mkv"), {{m, "v50 a50"}}},
      {{"concat", j, mkv, mkv + ",video=0,audio=-1"}, "/dev/null", {{j, "v" + std::to_string(2 * std::stoi(v)) + " a" + a}}}};
  // clang-format on
  for (const auto& [args, in, files] : cases) {
    ASSERT_EQ(RunTool(args, out, in).first, 0) << testing::PrintToString(args);
    for (const auto& [file, shape] : files) EXPECT_EQ(Shape(file), shape) << testing::PrintToString(args);
  }
  ASSERT_EQ(RunTool({"packets", "-"}, out, mkv).first, 0);
  std::string expected = "stream,size,pts,dts,duration,time_base\n";
  for (const ProbePacket& p : packets) {
    for (const int64_t field : {int64_t{p.stream}, int64_t{p.size}, p.pts, p.dts, std::max<int64_t>(p.duration, 0)})
      expected += std::to_string(field) + ",";
    expected += "1/1000\n";
  }
  EXPECT_EQ(Text(out), expected);
  ASSERT_EQ(RunTool({"streams", mkv}, out).first, 0);
  EXPECT_NE(Text(out).find("stream 0: video mpeg4, 160x120"), std::string::npos) << Text(out);
}

// A failure names the library's code; a usage error says what is wrong.
TEST(Tool, FailuresExitWith1AndBadCommandLinesWith2) {
  if (!*QUORVEL_TOOL_FILE) GTEST_SKIP() << "built without the tool";
  const std::string clip = VideoAudioClip("mp4"), mkv = TempPath("a.mkv");
  const std::tuple<Args, int, std::string> cases[] = {
      {{"convert", "missing.mp4", mkv}, 1, "ERROR_AVFORMAT_CONVERT_OPEN"},
      {{"convert", clip, TempPath("a.unknown")}, 1, "ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT"},
      {{"convert", clip, TempPath("a.webm")}, 1, "ERROR_AVFORMAT_CONVERT_WRITEHEADER"},
      {{"streams", "missing.mkv"}, 1, "ERROR_AVFORMAT_PACKET_OPEN"},
      {{"convert", clip, "-"}, 2, "needs --format"},
      {{"convert", clip, mkv, "--end", "soon"}, 2, "\"soon\" is not a time"},
      {{"transcode", clip}, 2, "no subcommand \"transcode\""},
      {{"split", clip, "1=a.mka", "1=b.mka"}, 2, "stream 1 is asked for twice"},
      {{"concat", TempPath("c.mkv"), "-"}, 2, "not standard input"}};
  for (const auto& [args, status, says] : cases) {
    const auto [exit, err] = RunTool(args, TempPath("bad.out"));
    EXPECT_EQ(exit, status) << testing::PrintToString(args) << err;
    EXPECT_NE(err.find(says), std::string::npos) << err;
  }
}

// The input is a FIFO kept open after half of a clip, so the conversion still
// runs when the signal comes; the output must still be a whole file.
TEST(Tool, SigintDuringAConversionLeavesAValidFile) {
  if (!*QUORVEL_TOOL_FILE) GTEST_SKIP() << "built without the tool";
  const std::string clip = Clip("long.ts", "-f lavfi -i testsrc=d=8:s=160x120:r=25 -c:v mpeg4");
  const std::string fifo = TempPath("sigint.fifo"), out = TempPath("interrupted.mkv"), log = TempPath("sigint");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int feed = open(fifo.c_str(), O_RDWR);  // open at both ends: the input never ends
  auto run = std::async(std::launch::async, [&] {
    return RunTool({"convert", "-", out, "--progress=json"}, log, fifo, "echo $$ >'" + log + ".pid'; ");
  });
  const std::vector<uint8_t> bytes = ReadFile(clip);
  EXPECT_EQ(write(feed, bytes.data(), bytes.size() / 2), static_cast<ssize_t>(bytes.size() / 2));
  EXPECT_TRUE(WaitUntil([&] { return Text(log + ".err").find("\"event\":\"progress\"") != std::string::npos; }));
  kill(std::stoi(Text(log + ".pid")), SIGINT);
  const auto [status, err] = run.get();
  close(feed);
  EXPECT_EQ(status, 128 + SIGINT) << err;
  EXPECT_NE(err.find("\"outcome\":\"interrupted\""), std::string::npos) << err;
  const size_t written = ProbePackets(out).size();  // 0 if the trailer is missing or the file is damaged
  EXPECT_TRUE(written > 0 && written < ProbePackets(clip).size()) << written;
}

}  // namespace
