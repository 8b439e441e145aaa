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

// Each subcommand once, with files and standard input and output ("-"): the
// streams of what it wrote as ffprobe sees them, or the text it printed. Then
// failures, which exit with 1 and name the library's code or the system's
// reason (a full disk), and bad command lines, which exit with 2 and say what
// is wrong.
TEST(Tool, SubcommandsWriteWhatFfprobeSeesAndFailuresSayWhy) {
  if (!*QUORVEL_TOOL_FILE) GTEST_SKIP() << "built without the tool";
  const std::string mp4 = VideoAudioClip("mp4"), mkv = VideoAudioClip("mkv"), full = TempPath("full.mkv");
  ASSERT_EQ(symlink("/dev/full", full.c_str()), 0);
  const std::vector<ProbePacket> packets = ProbePackets(mkv);
  const ProbePacket& p = packets.back();
  const size_t v = OfStream(packets, 0).size(), a = OfStream(packets, 1).size();
  const std::string va = "v" + std::to_string(v) + " a" + std::to_string(a), no_space = "No space left on device";
  const std::string out = TempPath("tool.out"), s = TempPath("s.mka"), m = TempPath("m.mkv"), j = TempPath("j.mkv");
  // clang-format off
  const std::tuple<Args, std::string, int, std::string, std::string> cases[] = {  // standard input, exit status, file, what
      {{"convert", mp4, "-", "--format", "nut"}, "", 0, out, va},
      {{"split", "-", "0=" + TempPath("s.mkv"), "1=" + s}, mkv, 0, s, "a" + std::to_string(a)},
      {{"mux", m, VideoOnlyClip("mkv"), "-"}, AudioOnlyClip("mkv"), 0, m, "v50 a" + std::to_string(ProbePackets(AudioOnlyClip("mkv")).size())},
      {{"concat", j, mkv, mkv + ",video=0,audio=-1"}, "", 0, j, "v" + std::to_string(2 * v) + " a" + std::to_string(a)},
      {{"packets", "-"}, mkv, 0, out, "\n" + std::to_string(p.stream) + "," + std::to_string(p.size) + "," + std::to_string(p.pts) + ","},
      {{"streams", mkv}, "", 0, out, "stream 0: video mpeg4, 160x120"},
      {{"convert", mkv, full}, "", 1, "", no_space}, {{"split", mkv, "0=" + full}, "", 1, "", no_space},
      {{"mux", full, VideoOnlyClip("mkv")}, "", 1, "", no_space}, {{"concat", full, mkv}, "", 1, "", no_space},
      {{"convert", "missing.mp4", m}, "", 1, "", "ERROR_AVFORMAT_CONVERT_OPEN"}, {{"streams", "missing.mkv"}, "", 1, "", "ERROR_AVFORMAT_PACKET_OPEN"},
      {{"convert", mp4, TempPath("a.unknown")}, "", 1, "", "ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT"},
      {{"convert", mp4, TempPath("a.webm")}, "", 1, "", "ERROR_AVFORMAT_CONVERT_WRITEHEADER"},
      {{"convert", mp4, "-"}, "", 2, "", "needs --format"}, {{"convert", mp4, m, "--end", "soon"}, "", 2, "", "\"soon\" is not a time"},
      {{"transcode", mp4}, "", 2, "", "no subcommand \"transcode\""}, {{"concat", m, "-"}, "", 2, "", "not standard input"},
      {{"split", mp4, "1=a.mka", "1=b.mka"}, "", 2, "", "stream 1 is asked for twice"}};
  // clang-format on
  for (const auto& [args, in, status, file, what] : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    const auto [exit, err] = RunTool(args, out, in.empty() ? "/dev/null" : in);
    EXPECT_EQ(exit, status) << err;
    const bool printed = file.empty() || args[0] == "packets" || args[0] == "streams";
    const std::string text = file.empty() ? err : Text(file);
    EXPECT_TRUE(printed ? text.find(what) != std::string::npos : Shape(file) == what) << (printed ? text : Shape(file));
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
