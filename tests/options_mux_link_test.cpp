// Multiplexing and concatenation with the practical options, against the same
// jobs done by the ffmpeg tool with -c copy, read back with ffprobe.
#include <gtest/gtest.h>

#include <cmath>

#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using namespace qtest;

// libx264 with B-frames and AAC, as real files are made; a key frame each second.
std::string Av(const std::string& name, int seconds, const std::string& tone = "sine") {
  return Clip(name, "-f lavfi -i testsrc=size=160x120:rate=25 -f lavfi -i " + tone + " -t " +
                        std::to_string(seconds) + " -c:v libx264 -bf 2 -g 25 -c:a aac");
}

// Per output stream: its kind, packets, and span (first pts to last pts + duration) in seconds.
struct Shape {
  std::string type;
  int packets = 0;
  double first = 1e9, last = -1e9;
};
std::vector<Shape> Shapes(const std::string& path) {
  const std::vector<ProbeStream> streams = ProbeStreams(path);
  std::vector<Shape> shapes(streams.size());
  for (const ProbeStream& stream : streams) shapes[stream.index].type = stream.codec_type;
  for (const ProbePacket& packet : ProbePackets(path)) {
    Shape& shape = shapes[packet.stream];
    const double base = av_q2d(streams[packet.stream].time_base);
    ++shape.packets;
    shape.first = std::min(shape.first, packet.pts * base);
    shape.last = std::max(shape.last, (packet.pts + packet.duration) * base);
  }
  return shapes;
}

// Video frames that a decoder gets out of `path` (ffprobe -count_frames).
[[maybe_unused]] int DecodedFrames(const std::string& path) {
  std::string out;
  Run(std::string(QUORVEL_FFPROBE_TOOL) + " -v error -count_frames -select_streams v:0 -show_entries "
      "stream=nb_read_frames -of csv=p=0 " + path, &out);
  return std::atoi(out.c_str());
}

// The same kinds and packet counts, spans within `frame` seconds.
void ExpectShapes(const std::string& ours, const std::string& reference, double frame) {
  const std::vector<Shape> got = Shapes(ours), want = Shapes(reference);
  ASSERT_EQ(got.size(), want.size()) << ours;
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].type, want[i].type) << ours << " stream " << i;
    EXPECT_EQ(got[i].packets, want[i].packets) << ours << " stream " << i;
    EXPECT_NEAR(got[i].last - got[i].first, want[i].last - want[i].first, frame) << ours << " stream " << i;
  }
}

void RunFFmpeg(const std::string& arguments, const std::string& out) {
  ASSERT_EQ(Run(std::string(QUORVEL_FFMPEG_TOOL) + " -v error -y " + arguments + " -c copy " + out), 0) << arguments;
}

template <typename Running>
void WaitAndStop(void* task, Running running, bool (*stop)(void*)) {
  EXPECT_TRUE(WaitUntil([&] {
    bool on = true;
    return running(task, &on) && !on;
  }));
  stop(task);
}

// Multiplexing with the practical preset: each input with its stream
// specifier ("" for all its streams), against ffmpeg's -map.
TEST(OptionsMux, PracticalMuxMatchesFFmpegMap) {
  const std::string a = Av("mux_a.mp4", 4), b = Av("mux_b.mkv", 3, "sine=frequency=300");
  const struct {
    std::vector<std::pair<std::string, std::string>> inputs;
    std::string ffmpeg;  // the same job's -i and -map arguments; empty: Input is refused
  } cases[] = {
      {{{"v", a}, {"a", b}}, "-i " + a + " -i " + b + " -map 0:v -map 1:a"},
      {{{"", a}}, "-i " + a + " -map 0"},
      {{{"a:0", a}, {"", b}}, "-i " + a + " -i " + b + " -map 0:a:0 -map 1"},
      {{{"v:0", b}, {"#2", a}}, "-i " + b + " -i " + a + " -map 0:v:0 -map 1:#2"},
      {{{"s", a}}, ""},
  };
  int n = 0;
  for (const auto& job : cases) {
    const std::string ours = TempPath("mux" + std::to_string(++n) + ".mkv"), ref = TempPath("muxref.mkv");
    void* task = AVFormat_Packet_Init(nullptr, nullptr);
    ASSERT_TRUE(AVFormat_Packet_SetOption(task, "mode", "practical"));
    ASSERT_TRUE(AVFormat_Packet_Output(task, ours.c_str(), 0, 0, nullptr, nullptr));
    bool taken = true;
    for (const auto& [streams, file] : job.inputs) {
      taken = taken && (streams.empty() || AVFormat_Packet_SetOption(task, "streams", streams.c_str())) && AVFormat_Packet_Input(task, file.c_str(), nullptr, nullptr);
    }
    EXPECT_EQ(taken, !job.ffmpeg.empty()) << n;
    if (!taken) {
      EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_PARAMETER})) << n;
    }
    if (!taken || !AVFormat_Packet_Start(task)) {
      AVFormat_Packet_Stop(task);
      continue;
    }
    WaitAndStop(task, AVFormat_Packet_GetStatus, AVFormat_Packet_Stop);
    RunFFmpeg(job.ffmpeg, ref);
    ExpectShapes(ours, ref, 0.05);
  }
}

}  // namespace
