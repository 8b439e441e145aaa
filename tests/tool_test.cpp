// The command-line tool as a user meets it: each subcommand on real clips
// (outputs checked by ffprobe), standard input and output, messages and exit
// statuses of bad command lines, and a Ctrl-C in the middle of a conversion.
// A build without the tool has no tests here.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <optional>
#include <regex>
#include <sstream>
#include <tuple>

#include "support/caller.h"
#include "support/fixtures.h"

#ifdef QUORVEL_TOOL_CORE
#include "arguments.h"
#include "errors.h"

namespace {

using namespace qtest;
using Args = std::vector<std::string>;

std::string Text(const std::string& path) {
  const std::vector<uint8_t> bytes = ReadFile(path);
  return std::string(bytes.begin(), bytes.end());
}

struct Result {
  int status;  // the exit status; -1 when a signal ended the tool
  std::string out, err;
};

// Runs the tool through the shell with standard input from `in` and standard
// output into `out` (a scratch file unless given), standard error beside it.
// `before` runs first in the same shell, which then becomes the tool.
Result RunTool(const Args& args, const std::string& in = "/dev/null", std::string out = "",
               const std::string& before = "") {
  static std::atomic<int> runs{0};
  if (out.empty()) out = TempPath("run" + std::to_string(++runs));
  std::string command = before + "exec '" QUORVEL_TOOL_FILE "'";
  for (const std::string& arg : args) command += " '" + arg + "'";
  const int status = Run(command + " <'" + in + "' >'" + out + "' 2>'" + out + ".err'");
  return {status, Text(out), Text(out + ".err")};
}

bool Says(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Each subcommand on files and on standard input and output; every output
// holds the streams asked for (types as "va") with every packet, or with as
// many as the rules of the family behind it give.
TEST(ToolCommands, WriteWhatFfprobeSees) {
  const std::string mkv = VideoAudioClip("mkv"), mp4 = VideoAudioClip("mp4");
  const std::vector<ProbePacket> packets = ProbePackets(mkv);
  const size_t v = OfStream(packets, 0).size(), a = OfStream(packets, 1).size();
  const auto path = [](const char* name) { return TempPath(name); };
  struct Case {
    Args args;
    std::string in, out;  // standard input, and standard output's file when it is used
    std::vector<std::tuple<std::string, std::string, std::vector<size_t>>> files;
  };
  // clang-format off
  const Case cases[] = {
      {{"convert", mp4, path("c.nut")}, "/dev/null", "", {{path("c.nut"), "va", {v, a}}}},
      {{"convert", mp4, "-", "--format", "mpegts"}, "/dev/null", path("c.ts"), {{path("c.ts"), "va", {v, a}}}},
      {{"-q", "convert", "-", path("q.nut")}, mkv, "", {{path("q.nut"), "va", {v, a}}}},
      {{"convert", "-", "-", "--format", "matroska"}, mkv, path("p.mkv"), {{path("p.mkv"), "va", {v, a}}}},
      {{"split", mkv, "0=" + path("s.mkv"), "1=" + path("s.mka")}, "/dev/null", "", {{path("s.mkv"), "v", {v}}, {path("s.mka"), "a", {a}}}},
      {{"split", "-", "1=-", "--format", "matroska"}, mkv, path("sp.mka"), {{path("sp.mka"), "a", {a}}}},
      {{"mux", path("m.mkv"), VideoOnlyClip("mkv"), "-"}, AudioOnlyClip("mkv"), "", {{path("m.mkv"), "va", {50, 50}}}},
      {{"concat", path("j.mkv"), mkv, mkv + ",video=0,audio=-1"}, "/dev/null", "", {{path("j.mkv"), "va", {2 * v, a}}}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const Result tool = RunTool(c.args, c.in, c.out);
    ASSERT_EQ(tool.status, 0) << tool.err;
    for (const auto& [file, types, counts] : c.files) {
      const std::vector<ProbeStream> streams = ProbeStreams(file);
      const std::vector<ProbePacket> written = ProbePackets(file);
      ASSERT_EQ(streams.size(), types.size()) << file;
      for (size_t s = 0; s < streams.size(); ++s) {
        EXPECT_EQ(streams[s].codec_type[0], types[s]) << file;
        EXPECT_EQ(OfStream(written, static_cast<int>(s)).size(), counts[s]) << file;
      }
    }
  }
}

TEST(ToolCommands, ConvertCutKeepsTheSpanAndReportsProgressAsJson) {
  const std::string out = TempPath("cut.mkv");
  const Result tool =
      RunTool({"convert", VideoAudioClip("mp4"), out, "--start", "0.4", "--end", "1.2", "--progress=json"});
  ASSERT_EQ(tool.status, 0) << tool.err;
  const auto packets = ProbePackets(out);
  const auto streams = ProbeStreams(out);
  ASSERT_FALSE(packets.empty());
  for (const auto& p : packets) {  // the task ended on the video packet at exactly 1.2 s
    EXPECT_GE(static_cast<double>(p.pts) * av_q2d(streams[p.stream].time_base), 0.4 - 1e-9);
    EXPECT_LE(static_cast<double>(p.pts) * av_q2d(streams[p.stream].time_base), 1.2 + 1e-9);
  }
  // The last line reports the end: every packet read up to the end time, those before the start too.
  std::smatch end;
  ASSERT_TRUE(std::regex_search(tool.err, end, std::regex(R"(\{"event":"end","packets":(\d+),"position":([0-9.]+))")))
      << tool.err;
  EXPECT_GT(std::stoll(end[1]), static_cast<long long>(packets.size()));
  EXPECT_DOUBLE_EQ(std::stod(end[2]), 1.2);
  EXPECT_TRUE(Says(tool.err, "\"outcome\":\"finished\"")) << tool.err;
  EXPECT_TRUE(Says(tool.err, "\"percent\":100")) << "the input's length is known";
}

// Usage errors exit with 2, failures with 1; the message names the library's
// code and says what to check.
TEST(ToolCommands, BadCommandLinesAndFailuresSayWhatAndExitNonZero) {
  const std::string clip = VideoAudioClip("mp4"), mkv = TempPath("a.mkv");
  // clang-format off
  const std::tuple<Args, int, std::vector<std::string>> cases[] = {
      {{"convert", "missing.mp4", mkv}, 1, {"ERROR_AVFORMAT_CONVERT_OPEN", "0x80D0011", "\"missing.mp4\": No such file or directory", "check"}},
      {{"convert", clip, "/no/such/folder/a.mkv"}, 1, {"ERROR_AVFORMAT_CONVERT_OPEN", "folder \"/no/such/folder\""}},
      {{"convert", clip, TempPath("a.unknown")}, 1, {"ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT", "extension"}},
      {{"convert", clip, TempPath("a.webm")}, 1, {"ERROR_AVFORMAT_CONVERT_WRITEHEADER", "codecs"}},
      {{"convert", clip, "-", "--format", "mp4"}, 1, {"ERROR_AVFORMAT_CONVERT_WRITEHEADER", "streamed"}},
      {{"streams", "missing.mkv"}, 1, {"ERROR_AVFORMAT_PACKET_OPEN"}},
      {{"convert", clip, "-"}, 2, {"needs --format"}},
      {{"convert", clip, mkv, "--format", "nut"}, 2, {"--format names the container"}},
      {{"convert", clip, mkv, "--end", "soon"}, 2, {"\"soon\" is not a time"}},
      {{"convert", clip}, 2, {"OUT is required"}},
      {{"--progress=loud", "convert", clip, mkv}, 2, {"loud"}},
      {{"transcode", clip}, 2, {"no subcommand \"transcode\""}},
      {{}, 2, {"subcommand is required"}},
      {{"split", clip, "1=a.mka", "1=b.mka"}, 2, {"stream 1 is asked for twice"}},
      {{"split", clip, "audio.mka"}, 2, {"STREAM=OUT"}},
      {{"split", clip, "0=-", "1=-", "--format", "nut"}, 2, {"only one output"}},
      {{"mux", TempPath("m.mkv"), "-", "-"}, 2, {"only one input"}},
      {{"concat", "-", clip}, 2, {"not standard output"}},
      {{"concat", TempPath("c.mkv"), "-"}, 2, {"not standard input"}},
      {{"concat", TempPath("c.mkv"), clip + ",video=x"}, 2, {"\"x\" is not a stream number"}},
  };
  // clang-format on
  for (const auto& [args, status, says] : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    const Result tool = RunTool(args);
    EXPECT_EQ(tool.status, status) << tool.err;
    for (const std::string& text : says) EXPECT_TRUE(Says(tool.err, text)) << tool.err;
  }
}

// The input comes through a FIFO that this test keeps open after half of the
// clip, so the conversion is still running when the signal comes; the output
// must still be a whole file.
TEST(ToolCommands, SigintDuringAConversionLeavesAValidFile) {
  const std::string clip = Clip("long.ts", "-f lavfi -i testsrc=d=8:s=160x120:r=25 -c:v mpeg4");
  const std::string fifo = TempPath("sigint.fifo"), out = TempPath("interrupted.mkv");
  const std::string log = TempPath("sigint");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int feed = open(fifo.c_str(), O_RDWR);  // open at both ends: the input never ends
  std::future<Result> run = std::async(std::launch::async, [&] {
    return RunTool({"convert", "-", out, "--progress=json"}, fifo, log, "echo $$ >'" + log + ".pid'; ");
  });
  const std::vector<uint8_t> bytes = ReadFile(clip);
  EXPECT_EQ(write(feed, bytes.data(), bytes.size() / 2), static_cast<ssize_t>(bytes.size() / 2));
  EXPECT_TRUE(WaitUntil([&] { return std::regex_search(Text(log + ".err"), std::regex(R"("packets":[1-9])")); }));
  kill(std::stoi(Text(log + ".pid")), SIGINT);
  const Result result = run.get();
  close(feed);
  EXPECT_EQ(result.status, 128 + SIGINT) << result.err;
  EXPECT_TRUE(Says(result.err, "\"outcome\":\"interrupted\"")) << result.err;
  const size_t written = ProbePackets(out).size();  // 0 if the trailer is missing or the file is damaged
  EXPECT_GT(written, 0u);
  EXPECT_LT(written, ProbePackets(clip).size());
}

// `packets` lists what ffprobe lists, as CSV or JSON lines, from a file or
// standard input; `streams` describes each stream.
TEST(ToolCommands, PacketsAndStreamsMatchFfprobe) {
  const std::string clip = VideoAudioClip("mkv");
  const auto expected = ProbePackets(clip);
  for (const std::string& in : {clip, std::string("-")}) {
    const Result csv = RunTool({"packets", in}, clip);
    ASSERT_EQ(csv.status, 0) << csv.err;
    std::istringstream lines(csv.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "stream,size,pts,dts,duration,time_base");
    for (const ProbePacket& p : expected) {
      ASSERT_TRUE(std::getline(lines, line));
      std::string fields;
      for (const int64_t value : {int64_t{p.stream}, int64_t{p.size}, p.pts, p.dts})
        fields += std::to_string(value) + ",";
      EXPECT_EQ(line.rfind(fields, 0), 0u) << line;
    }
    EXPECT_FALSE(std::getline(lines, line)) << line;
  }
  const Result json = RunTool({"packets", clip, "--json"});
  EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), static_cast<long>(expected.size()));
  EXPECT_TRUE(Says(json.out, "\"time_base\":\"1/1000\""));
  const Result streams = RunTool({"streams", clip});
  ASSERT_EQ(streams.status, 0) << streams.err;
  EXPECT_TRUE(Says(streams.out, "stream 0: video mpeg4, 160x120")) << streams.out;
  EXPECT_TRUE(Says(streams.out, "stream 1: audio aac")) << streams.out;
}

TEST(ToolArguments, TimesOutputSettingsAndInputSettings) {
  const std::pair<std::string, double> times[] = {{"90", 90},          {"1.5", 1.5},      {"1:30", 90},
                                                  {"0:01:30.5", 90.5}, {"1:02:03", 3723}, {"0", 0}};
  for (const auto& [text, seconds] : times) EXPECT_EQ(qtool::ParseSeconds(text), seconds) << text;
  for (const char* bad : {"", "abc", "-1", "1:60", "1.5:30", "1:2:3:4", "inf", "1:", "2s"})
    EXPECT_THROW(qtool::ParseSeconds(bad), qtool::UsageError) << bad;

  // Only trailing key=value parts are settings, so names may hold commas.
  const qtool::SplitTarget target = qtool::ParseSplitTarget("0=a,b/v.mkv,start=2,end=1:00");
  EXPECT_EQ(std::tie(target.stream, target.output, target.start, target.end),
            std::make_tuple(0, std::string("a,b/v.mkv"), 2.0, 60.0));
  EXPECT_EQ(qtool::ParseSplitTarget("12=-").output, "-");
  for (const char* bad : {"a.mka", "=a.mka", "1=", "-1=a.mka", "x=a.mka", "1=a.mka,start=2,start=3", "1=a,end=x"})
    EXPECT_THROW(qtool::ParseSplitTarget(bad), qtool::UsageError) << bad;

  const qtool::ConcatInput input = qtool::ParseConcatInput("we,ird.mkv,video=-1,audio=2,start=1.5,end=3");
  EXPECT_EQ(std::tie(input.path, input.video, input.audio, input.start, input.end),
            std::make_tuple(std::string("we,ird.mkv"), std::optional<int>(-1), std::optional<int>(2), 1.5, 3.0));
  const qtool::ConcatInput plain = qtool::ParseConcatInput("a.mkv,other=1");
  EXPECT_EQ(std::tie(plain.path, plain.video), std::make_tuple(std::string("a.mkv,other=1"), std::optional<int>()));
  for (const char* bad : {",video=0", "a.mkv,video=x", "a.mkv,audio=-2", "a.mkv,video=1,video=2"})
    EXPECT_THROW(qtool::ParseConcatInput(bad), qtool::UsageError) << bad;
}

TEST(ToolArguments, EveryLibraryErrorCodeHasItsNameAndAnExplanation) {
#define CODE(name) std::pair<uint64_t, std::string>(ERROR_AVFORMAT_##name, "ERROR_AVFORMAT_" #name)
  // clang-format off
  const std::pair<uint64_t, std::string> codes[] = {
      CODE(CONVERT_MALLOC), CODE(CONVERT_PARAMETER), CODE(CONVERT_OPEN), CODE(CONVERT_STREAMINFO),
      CODE(CONVERT_OUTPUTFORMAT), CODE(CONVERT_NEWSTREAM), CODE(CONVERT_CODECPAR), CODE(CONVERT_WRITEHEADER),
      CODE(CONVERT_THREAD), CODE(CONVERT_STATUS), CODE(CONVERT_SEEK),
      CODE(PACKET_MALLOC), CODE(PACKET_PARAMETER), CODE(PACKET_READ), CODE(PACKET_OPEN), CODE(PACKET_OUTPUTFORMAT),
      CODE(PACKET_CODECPAR), CODE(PACKET_WRITEHEADER), CODE(PACKET_THREAD), CODE(PACKET_STATUS), CODE(PACKET_SEEK),
      CODE(PACKET_WRITEFRAME), CODE(PACKET_BUFFERSIZE),
      CODE(LINK_MALLOC), CODE(LINK_PARAMETER), CODE(LINK_OPEN), CODE(LINK_STREAMINFO), CODE(LINK_OUTPUTFORMAT),
      CODE(LINK_CODECPAR), CODE(LINK_WRITEHEADER), CODE(LINK_THREAD),
  };
  // clang-format on
#undef CODE
  for (const auto& [code, name] : codes) {
    const qtool::ErrorText text = qtool::DescribeError(code);
    ASSERT_NE(text.name, nullptr) << name;
    EXPECT_EQ(text.name, name);
    EXPECT_GT(std::string(text.what).size(), 20u) << name;
    EXPECT_GT(std::string(text.check).size(), 20u) << name;
  }
  EXPECT_EQ(qtool::DescribeError(0x80D0001).name, nullptr);
}

}  // namespace
#endif
