// The command-line tool as a user meets it: each subcommand on real clips
// (outputs checked by ffprobe), standard input and output, messages and exit
// statuses of bad command lines, and a Ctrl-C in the middle of a conversion.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "Quorvel_AVFormat.h"
#include "support/fixtures.h"
#ifdef QUORVEL_TOOL_CORE
#include "arguments.h"
#include "errors.h"
#endif

extern char** environ;

namespace {

using Args = std::vector<std::string>;

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out, err;
};

// Runs the tool with standard input from `in` and standard output into `out`.
Result RunTool(const Args& args, const std::string& in = "/dev/null", std::string out = "") {
  static int runs = 0;
  const std::string name = "run" + std::to_string(++runs);
  if (out.empty()) out = qtest::TempPath(name + ".out");
  const std::string err = qtest::TempPath(name + ".err");
  std::vector<std::string> argv_strings{QUORVEL_TOOL_FILE};
  argv_strings.insert(argv_strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argv_strings) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = 0;
  Result result;
  if (posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&files);
  const auto text = [](const std::string& path) {
    const auto bytes = qtest::ReadFile(path);
    return std::string(bytes.begin(), bytes.end());
  };
  result.out = text(out);
  result.err = text(err);
  return result;
}

// Every test runs the tool, which a build may leave out.
class Tool : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(QUORVEL_TOOL_FILE).empty()) GTEST_SKIP() << "built without the tool";
  }
};

size_t CountOf(const std::vector<qtest::ProbePacket>& packets, int stream) {
  return qtest::OfStream(packets, stream).size();
}

TEST_F(Tool, ConvertRemuxesFilesAndStandardStreams) {
  const std::string mkv = qtest::VideoAudioClip("mkv"), mp4 = qtest::VideoAudioClip("mp4");
  const size_t video = CountOf(qtest::ProbePackets(mkv), 0), audio = CountOf(qtest::ProbePackets(mkv), 1);
  struct Case {
    Args args;
    std::string in;  // standard input
    std::string out;
  };
  const std::string file = qtest::TempPath("convert.nut"), piped = qtest::TempPath("convert_piped.ts");
  const Case cases[] = {
      {{"convert", mp4, file}, "/dev/null", file},
      {{"convert", mp4, "-", "--format", "mpegts"}, "/dev/null", piped},
      {{"-q", "convert", "-", file}, mkv, file},
      {{"convert", "-", "-", "--format", "matroska"}, mkv, piped},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const Result result = RunTool(c.args, c.in, c.out == piped ? piped : "");
    ASSERT_EQ(result.status, 0) << result.err;
    const auto packets = qtest::ProbePackets(c.out);
    EXPECT_EQ(CountOf(packets, 0), video);
    EXPECT_EQ(CountOf(packets, 1), audio);
  }
}

TEST_F(Tool, ConvertCutKeepsTheSpanAndReportsProgressAsJson) {
  const std::string out = qtest::TempPath("cut.mkv");
  const Result result =
      RunTool({"convert", qtest::VideoAudioClip("mp4"), out, "--start", "0.4", "--end", "1.2", "--progress=json"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto packets = qtest::ProbePackets(out);
  const auto streams = qtest::ProbeStreams(out);
  ASSERT_FALSE(packets.empty());
  for (const auto& p : packets) {
    const double seconds = static_cast<double>(p.pts) * av_q2d(streams[p.stream].time_base);
    EXPECT_GE(seconds, 0.4 - 1e-9);
    EXPECT_LE(seconds, 1.2 + 1e-9);  // the task ended on the video packet at exactly 1.2 s
  }
  // The last line reports the end: every packet read up to the end time.
  std::smatch end;
  ASSERT_TRUE(std::regex_search(result.err, end, std::regex(R"(\{"event":"end","packets":(\d+),"position":([0-9.]+))")))
      << result.err;
  EXPECT_GT(std::stoll(end[1]), static_cast<long long>(packets.size()));  // the ones before the start count too
  EXPECT_DOUBLE_EQ(std::stod(end[2]), 1.2);
  EXPECT_NE(result.err.find("\"outcome\":\"finished\""), std::string::npos);
  EXPECT_NE(result.err.find("\"percent\":100"), std::string::npos) << "the input's length is known";
}

TEST_F(Tool, BadCommandLinesAndFailuresSayWhatAndExitNonZero) {
  const std::string clip = qtest::VideoAudioClip("mp4");
  struct Case {
    Args args;
    int status;
    std::vector<std::string> says;
  };
  const Case cases[] = {
      {{"convert", "missing.mp4", qtest::TempPath("a.mkv")},
       1,
       {"ERROR_AVFORMAT_CONVERT_OPEN", "0x80D0011", "\"missing.mp4\": No such file or directory", "check"}},
      {{"convert", clip, "/no/such/folder/a.mkv"}, 1, {"ERROR_AVFORMAT_CONVERT_OPEN", "folder \"/no/such/folder\""}},
      {{"convert", clip, qtest::TempPath("a.unknown")}, 1, {"ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT", "extension"}},
      {{"convert", clip, qtest::TempPath("a.webm")}, 1, {"ERROR_AVFORMAT_CONVERT_WRITEHEADER", "codecs"}},
      {{"convert", clip, "-", "--format", "mp4"}, 1, {"ERROR_AVFORMAT_CONVERT_WRITEHEADER", "streamed"}},
      {{"convert", clip, "-"}, 2, {"needs --format"}},
      {{"convert", clip, qtest::TempPath("a.mkv"), "--format", "nut"}, 2, {"--format names the container"}},
      {{"convert", clip, qtest::TempPath("a.mkv"), "--end", "soon"}, 2, {"\"soon\" is not a time"}},
      {{"convert", clip}, 2, {"OUT is required"}},
      {{"--progress=loud", "convert", clip, qtest::TempPath("a.mkv")}, 2, {"loud"}},
      {{"transcode", clip}, 2, {"no subcommand \"transcode\""}},
      {{}, 2, {"subcommand is required"}},
      {{"split", clip, "1=a.mka", "1=b.mka"}, 2, {"stream 1 is asked for twice"}},
      {{"split", clip, "audio.mka"}, 2, {"STREAM=OUT"}},
      {{"split", clip, "0=-", "1=-", "--format", "nut"}, 2, {"only one output"}},
      {{"mux", qtest::TempPath("m.mkv"), "-", "-"}, 2, {"only one input"}},
      {{"concat", "-", clip}, 2, {"not standard output"}},
      {{"concat", qtest::TempPath("c.mkv"), "-"}, 2, {"not standard input"}},
      {{"concat", qtest::TempPath("c.mkv"), clip + ",video=x"}, 2, {"\"x\" is not a stream number"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const Result result = RunTool(c.args);
    EXPECT_EQ(result.status, c.status) << result.err;
    for (const std::string& text : c.says) EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
  }
}

TEST_F(Tool, SigintDuringAConversionLeavesAValidFile) {
  // The input arrives through a pipe that stays open after half of the clip,
  // so the conversion is still running when the signal comes.
  const std::string long_clip = qtest::Clip("long.ts", "-f lavfi -i testsrc=d=8:s=160x120:r=25 -c:v mpeg4");
  const auto clip = qtest::ReadFile(long_clip);
  const std::string out = qtest::TempPath("interrupted.mkv");
  int in[2], err[2];
  ASSERT_EQ(pipe(in), 0);
  ASSERT_EQ(pipe(err), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], err[0], err[1]}) close(fd);
    execl(QUORVEL_TOOL_FILE, QUORVEL_TOOL_FILE, "convert", "-", out.c_str(), "--progress=json", nullptr);
    _exit(127);
  }
  close(in[0]);
  close(err[1]);
  ASSERT_EQ(write(in[1], clip.data(), clip.size() / 2), static_cast<ssize_t>(clip.size() / 2));
  std::string progress;
  char buffer[4096];
  ssize_t got;
  while (!std::regex_search(progress, std::regex(R"("packets":[1-9])")) &&
         (got = read(err[0], buffer, sizeof buffer)) > 0)
    progress.append(buffer, got);
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  while ((got = read(err[0], buffer, sizeof buffer)) > 0) progress.append(buffer, got);
  close(in[1]);
  close(err[0]);

  ASSERT_TRUE(WIFEXITED(status)) << progress;
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGINT);
  EXPECT_NE(progress.find("\"outcome\":\"interrupted\""), std::string::npos) << progress;
  const auto written = qtest::ProbePackets(out);  // empty if the trailer is missing or the file is damaged
  EXPECT_GT(written.size(), 0u);
  EXPECT_LT(written.size(), qtest::ProbePackets(long_clip).size());
}

TEST_F(Tool, PacketsAndStreamsMatchFfprobe) {
  const std::string clip = qtest::VideoAudioClip("mkv");
  const auto expected = qtest::ProbePackets(clip);
  for (const std::string& in : {clip, std::string("-")}) {
    const Result csv = RunTool({"packets", in}, clip);
    ASSERT_EQ(csv.status, 0) << csv.err;
    std::vector<std::string> lines;
    for (size_t at = 0, next; (next = csv.out.find('\n', at)) != std::string::npos; at = next + 1)
      lines.push_back(csv.out.substr(at, next - at));
    ASSERT_EQ(lines.size(), expected.size() + 1);
    EXPECT_EQ(lines[0], "stream,size,pts,dts,duration,time_base");
    for (size_t i = 0; i < expected.size(); ++i) {
      const auto& p = expected[i];
      const std::string fields = std::to_string(p.stream) + "," + std::to_string(p.size) + "," + std::to_string(p.pts) +
                                 "," + std::to_string(p.dts) + ",";
      EXPECT_EQ(lines[i + 1].rfind(fields, 0), 0u) << lines[i + 1];
    }
  }
  const Result json = RunTool({"packets", clip, "--json"});
  EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), static_cast<long>(expected.size()));
  EXPECT_NE(json.out.find("\"time_base\":\"1/1000\""), std::string::npos);

  const Result streams = RunTool({"streams", clip});
  ASSERT_EQ(streams.status, 0) << streams.err;
  EXPECT_NE(streams.out.find("stream 0: video mpeg4, 160x120"), std::string::npos) << streams.out;
  EXPECT_NE(streams.out.find("stream 1: audio aac"), std::string::npos) << streams.out;
  const Result missing = RunTool({"streams", "missing.mkv"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("ERROR_AVFORMAT_PACKET_OPEN"), std::string::npos) << missing.err;
}

TEST_F(Tool, SplitGivesEachChosenStreamItsOwnFile) {
  const std::string clip = qtest::VideoAudioClip("mkv");
  const auto in = qtest::ProbePackets(clip);
  const std::string video = qtest::TempPath("split_v.mkv"), audio = qtest::TempPath("split_a.mka");
  const std::string piped = qtest::TempPath("split_piped.mka");
  ASSERT_EQ(RunTool({"split", clip, "0=" + video, "1=" + audio}).status, 0);
  ASSERT_EQ(RunTool({"split", "-", "1=-", "--format", "matroska"}, clip, piped).status, 0);
  const std::pair<std::string, int> outputs[] = {{video, 0}, {audio, 1}, {piped, 1}};
  for (const auto& [path, stream] : outputs) {
    SCOPED_TRACE(path);
    ASSERT_EQ(qtest::ProbeStreams(path).size(), 1u);
    EXPECT_EQ(qtest::ProbePackets(path).size(), CountOf(in, stream));
  }
}

TEST_F(Tool, MuxPutsTheStreamsOfSeveralFilesIntoOne) {
  const std::string out = qtest::TempPath("muxed.mkv");
  const Result result = RunTool({"mux", out, qtest::VideoOnlyClip("mkv"), "-"}, qtest::AudioOnlyClip("mkv"));
  ASSERT_EQ(result.status, 0) << result.err;
  const auto streams = qtest::ProbeStreams(out);
  ASSERT_EQ(streams.size(), 2u);
  EXPECT_EQ(streams[0].codec_type, "video");
  EXPECT_EQ(streams[1].codec_type, "audio");
  EXPECT_GT(CountOf(qtest::ProbePackets(out), 1), 0u);
}

TEST_F(Tool, ConcatJoinsFilesEndToEnd) {
  const std::string clip = qtest::VideoAudioClip("mkv"), out = qtest::TempPath("joined.mkv");
  const Result result = RunTool({"concat", out, clip, clip + ",video=0,audio=-1"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto in = qtest::ProbePackets(clip), joined = qtest::ProbePackets(out);
  EXPECT_EQ(CountOf(joined, 0), 2 * CountOf(in, 0));
  EXPECT_EQ(CountOf(joined, 1), CountOf(in, 1));  // the second input gives no audio
}

#ifdef QUORVEL_TOOL_CORE
TEST(ToolArguments, TimesOutputSettingsAndInputSettings) {
  const std::pair<std::string, double> times[] = {{"90", 90},          {"1.5", 1.5},      {"1:30", 90},
                                                  {"0:01:30.5", 90.5}, {"1:02:03", 3723}, {"0", 0}};
  for (const auto& [text, seconds] : times) EXPECT_EQ(qtool::ParseSeconds(text), seconds) << text;
  for (const char* bad : {"", "abc", "-1", "1:60", "1.5:30", "1:2:3:4", "inf", "1:", "2s"})
    EXPECT_THROW(qtool::ParseSeconds(bad), qtool::UsageError) << bad;

  // Only trailing key=value parts are settings, so names may hold commas.
  const qtool::SplitTarget target = qtool::ParseSplitTarget("0=a,b/v.mkv,start=2,end=1:00");
  EXPECT_EQ(target.stream, 0);
  EXPECT_EQ(target.output, "a,b/v.mkv");
  EXPECT_EQ(target.start, 2.0);
  EXPECT_EQ(target.end, 60.0);
  EXPECT_EQ(qtool::ParseSplitTarget("12=-").output, "-");
  for (const char* bad : {"a.mka", "=a.mka", "1=", "-1=a.mka", "x=a.mka", "1=a.mka,start=2,start=3", "1=a,end=x"})
    EXPECT_THROW(qtool::ParseSplitTarget(bad), qtool::UsageError) << bad;

  const qtool::ConcatInput input = qtool::ParseConcatInput("we,ird.mkv,video=-1,audio=2,start=1.5,end=3");
  EXPECT_EQ(input.path, "we,ird.mkv");
  EXPECT_EQ(input.video, -1);
  EXPECT_EQ(input.audio, 2);
  EXPECT_EQ(input.start, 1.5);
  EXPECT_EQ(input.end, 3.0);
  const qtool::ConcatInput plain = qtool::ParseConcatInput("a.mkv,other=1");
  EXPECT_EQ(plain.path, "a.mkv,other=1");
  EXPECT_FALSE(plain.video.has_value());
  for (const char* bad : {",video=0", "a.mkv,video=x", "a.mkv,audio=-2", "a.mkv,video=1,video=2"})
    EXPECT_THROW(qtool::ParseConcatInput(bad), qtool::UsageError) << bad;
}

TEST(ToolArguments, EveryLibraryErrorCodeHasItsNameAndAnExplanation) {
#define QUORVEL_CODE(name) std::pair<uint64_t, std::string>(name, #name)
  const std::pair<uint64_t, std::string> codes[] = {
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_MALLOC),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_PARAMETER),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_OPEN),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_STREAMINFO),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_NEWSTREAM),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_CODECPAR),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_WRITEHEADER),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_THREAD),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_STATUS),
      QUORVEL_CODE(ERROR_AVFORMAT_CONVERT_SEEK),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_MALLOC),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_PARAMETER),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_READ),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_OPEN),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_OUTPUTFORMAT),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_CODECPAR),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_WRITEHEADER),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_THREAD),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_STATUS),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_SEEK),
      QUORVEL_CODE(ERROR_AVFORMAT_PACKET_WRITEFRAME),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_MALLOC),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_PARAMETER),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_OPEN),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_STREAMINFO),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_OUTPUTFORMAT),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_CODECPAR),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_WRITEHEADER),
      QUORVEL_CODE(ERROR_AVFORMAT_LINK_THREAD),
  };
#undef QUORVEL_CODE
  for (const auto& [code, name] : codes) {
    const qtool::ErrorText text = qtool::DescribeError(code);
    ASSERT_NE(text.name, nullptr) << name;
    EXPECT_EQ(text.name, name);
    EXPECT_GT(std::string(text.what).size(), 20u) << name;
    EXPECT_GT(std::string(text.check).size(), 20u) << name;
  }
  EXPECT_EQ(qtool::DescribeError(0x80D0001).name, nullptr);
}
#endif

}  // namespace
