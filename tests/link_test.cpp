// Concatenation: files joined end to end, checked with ffprobe.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Quorvel_AVFormat.h"
#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using qtest::ProgressLog;
using qtest::SyntheticStream;

// Synthetic packets are not decodable; their decoders' complaints are noise here.
const int kQuietLog = (av_log_set_level(AV_LOG_FATAL), 0);

struct LinkInput {
  std::string file;
  double start = 0.0, end = 0.0;
  int video = 0, audio = 1;
};

// A fresh task with its output and inputs; null when a call fails.
void* Prepare(const std::string& output, const std::vector<LinkInput>& inputs, AVFORMAT_PROGRESS_CALLBACK progress,
              void* context) {
  void* task = AVFormat_Link_Init(progress, context);
  bool ok = task != nullptr && AVFormat_Link_Output(task, output.c_str());
  for (const LinkInput& in : inputs)
    ok = ok && AVFormat_Link_Input(task, in.file.c_str(), in.start, in.end, in.video, in.audio);
  if (ok) return task;
  ADD_FAILURE() << "set-up failed: " << qtest::ToString(qtest::LastError());
  AVFormat_Link_Stop(task);
  return nullptr;
}

// Intra-only video, so that no reader guesses a decoding delay for the undecodable packets.
SyntheticStream Video(int count, int64_t step = 1, AVRational time_base = {1, 25}) {
  return SyntheticStream{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MJPEG, time_base, count, 0, step};
}
SyntheticStream Audio(int count) {
  return SyntheticStream{AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 25}, count};
}

// Matroska: its time base of 1/1000 keeps 1/25 and 1/1000 exact.
std::string Synthetic(const std::string& name, const std::vector<SyntheticStream>& streams) {
  const std::string path = qtest::TempPath(name + ".mkv");
  qtest::WriteSynthetic(path, "matroska", streams);
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
std::string DescribedFrom(const std::vector<LinkInput>& inputs, const std::string& type) {
  static std::map<std::string, std::vector<qtest::ProbeStream>> probed;
  for (const LinkInput& in : inputs) {
    auto& streams = probed[in.file];
    if (streams.empty()) streams = qtest::ProbeStreams(in.file);
    for (const auto& stream : streams)
      if (stream.codec_type == type) return stream.codec_name;
  }
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
  const std::string clip = qtest::VideoAudioClip("mkv");
  const auto source = qtest::ProbePackets(clip);
  const size_t v = qtest::OfStream(source, 0).size(), a = qtest::OfStream(source, 1).size();
  const std::string av = Synthetic("av", {Video(40), Audio(30)}), audio_only = Synthetic("a", {Audio(30)});
  SyntheticStream other = Video(20);
  other.codec = AV_CODEC_ID_FFV1;
  const std::string two_videos = Synthetic("ava", {Video(40), Audio(30), other});
  const std::string four_seconds = Synthetic("four", {Video(100)});  // a packet per 0.04 s
  const std::string ones = Synthetic("ones", {Video(100, 1, {1, 1000})}),
                    twos = Synthetic("twos", {Video(100, 2, {1, 1000})});
  const std::vector<std::string> both{"video", "audio"}, video{"video"};
  struct Case {
    const char* name;
    std::string container;
    std::vector<LinkInput> inputs;
    std::vector<std::string> types;  // output streams in order
    std::vector<size_t> packets;     // per output stream
    size_t calls;
    std::vector<int64_t> pts = {};  // of output stream 0 in 1/1000, when given
  } const cases[] = {
      {"two clips", "mkv", {{clip}, {clip}}, both, {2 * v, 2 * a}, 2 * (v + a)},
      {"three clips", "mkv", {{clip}, {clip}, {clip}}, both, {3 * v, 3 * a}, 3 * (v + a)},
      {"two clips", "mp4", {{clip}, {clip}}, both, {2 * v, 2 * a}, 2 * (v + a)},
      {"three clips", "mp4", {{clip}, {clip}, {clip}}, both, {3 * v, 3 * a}, 3 * (v + a)},
      {"audio-only first input", "mkv", {{audio_only, 0, 0, 0, 0}, {av}}, {"audio", "video"}, {60, 40}, 100},
      {"video index -1", "mkv", {{av, 0, 0, -1, 1}, {av}}, both, {40, 60}, 100},
      {"audio index -1", "mkv", {{av, 0, 0, 0, -1}}, both, {40, 0}, 40},
      {"index outside the input", "mkv", {{av, 0, 0, 7, 1}}, both, {0, 30}, 30},
      {"other streams stay out", "mkv", {{two_videos}}, both, {40, 30}, 70},
      {"second video stream", "mkv", {{two_videos, 0, 0, 2, 1}}, both, {20, 30}, 50},
      {"named as both kinds", "mkv", {{av, 0, 0, 1, 1}}, both, {0, 30}, 30},
      {"cut", "mkv", {{four_seconds, 1.01, 2.01}}, video, {26}, 100},
      {"cut, start 0 or less", "mkv", {{four_seconds, -1.0, 2.01}}, video, {100}, 100},
      {"cut, end 0 or less", "mkv", {{four_seconds, 1.01, 0.0}}, video, {100}, 100},
      {"cut, end before start", "mkv", {{four_seconds, 3.01, 2.01}}, video, {51}, 100},
      {"cut on the output timeline", "mkv", {{four_seconds}, {four_seconds, 5.01, 10.0}}, video, {126}, 200},
      {"equal spacing", "mkv", {{ones}, {ones}}, video, {200}, 200, Ramps({{0, 1}, {99, 1}})},
      {"double spacing", "mkv", {{twos}, {ones}}, video, {200}, 200, Ramps({{0, 2}, {199, 1}})},
      {"three inputs", "mkv", {{ones}, {ones}, {ones}}, video, {300}, 300, Ramps({{0, 1}, {99, 1}, {199, 1}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " into " + c.container);
    const std::string output = qtest::TempPath("joined." + c.container);
    ProgressLog log;
    void* task = Prepare(output, c.inputs, ProgressLog::Record, &log);
    ASSERT_NE(task, nullptr);
    ASSERT_TRUE(AVFormat_Link_Start(task));
    bool running = true;
    EXPECT_TRUE(qtest::WaitUntil([&] { return AVFormat_Link_GetStatus(task, &running) && !running; }));
    EXPECT_TRUE(AVFormat_Link_Stop(task));

    const auto streams = qtest::ProbeStreams(output);
    const auto packets = qtest::ProbePackets(output);
    ASSERT_EQ(streams.size(), c.types.size());
    for (size_t s = 0; s < streams.size(); ++s) {
      EXPECT_EQ(streams[s].codec_type, c.types[s]) << s;
      EXPECT_EQ(streams[s].codec_name, DescribedFrom(c.inputs, c.types[s])) << s;
      const auto written = qtest::OfStream(packets, static_cast<int>(s));
      EXPECT_EQ(written.size(), c.packets[s]) << s;
      for (size_t i = 1; i < written.size(); ++i) ASSERT_GE(written[i].dts, written[i - 1].dts) << s << " #" << i;
      std::vector<int64_t> pts;
      for (const auto& packet : written) pts.push_back(av_rescale_q(packet.pts, streams[s].time_base, {1, 1000}));
      EXPECT_EQ(s == 0 && !c.pts.empty() ? pts : c.pts, c.pts);
    }
    const auto calls = log.Calls();
    EXPECT_EQ(calls.size(), c.calls);
    long long next[2] = {1, 1};
    for (const auto& call : calls) EXPECT_EQ(call.number, next[call.type == AVMEDIA_TYPE_VIDEO ? 0 : 1]++);
  }
}

// Every refused call and its code; GetStatus and Suspend answer with the
// multiplexing range's codes. Each task is then stopped, whatever state the
// failure left it in (never started, header refused, worker running).
TEST(LinkErrors, RefusedCallsGiveTheirCodes) {
  const std::string clip = qtest::VideoAudioClip("mkv"), out = qtest::TempPath("refused.mkv");
  const auto output = [&](void* t) { return AVFormat_Link_Output(t, out.c_str()); };
  const auto input = [&](void* t) { return AVFormat_Link_Input(t, clip.c_str(), 0, 0, 0, 1); };
  const auto start = [](void* t) { return AVFormat_Link_Start(t); };
  bool running = false;
  const struct {
    const char* name;
    std::function<bool(void*)> call;
    uint64_t code;
  } cases[] = {
      {"Output null name", [](void* t) { return AVFormat_Link_Output(t, nullptr); }, ERROR_AVFORMAT_LINK_PARAMETER},
      {"Output unknown container", [](void* t) { return AVFormat_Link_Output(t, "x.unknown"); },
       ERROR_AVFORMAT_LINK_OUTPUTFORMAT},
      {"Output not writable", [](void* t) { return AVFormat_Link_Output(t, "/nonexistent/x.mkv"); },
       ERROR_AVFORMAT_LINK_OPEN},
      {"Output after Input", [&](void* t) { return output(t) && input(t) && output(t); },
       ERROR_AVFORMAT_LINK_PARAMETER},
      {"Input null name", [&](void* t) { return output(t) && AVFormat_Link_Input(t, nullptr, 0, 0, 0, 1); },
       ERROR_AVFORMAT_LINK_PARAMETER},
      {"Input before Output", input, ERROR_AVFORMAT_LINK_PARAMETER},
      {"Input missing file", [&](void* t) { return output(t) && AVFormat_Link_Input(t, "/no.mkv", 0, 0, 0, 1); },
       ERROR_AVFORMAT_LINK_OPEN},
      {"Input after Start", [&](void* t) { return output(t) && input(t) && start(t) && input(t); },
       ERROR_AVFORMAT_LINK_PARAMETER},
      {"Start without Output", start, ERROR_AVFORMAT_LINK_PARAMETER},
      {"Start without streams", [&](void* t) { return output(t) && start(t); }, ERROR_AVFORMAT_LINK_WRITEHEADER},
      {"Start twice", [&](void* t) { return output(t) && input(t) && start(t) && start(t); },
       ERROR_AVFORMAT_LINK_PARAMETER},
      {"Start after a refused header", [&](void* t) { return output(t) && (start(t) || start(t)); },
       ERROR_AVFORMAT_LINK_PARAMETER},
      {"GetStatus null task", [&](void*) { return AVFormat_Link_GetStatus(nullptr, &running); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"GetStatus null result", [](void* t) { return AVFormat_Link_GetStatus(t, nullptr); },
       ERROR_AVFORMAT_PACKET_STATUS},
      {"Suspend null task", [](void*) { return AVFormat_Link_Suspend(nullptr, true); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
  };
  for (const auto& c : cases) {
    void* task = AVFormat_Link_Init(nullptr, nullptr);
    EXPECT_FALSE(c.call(task)) << c.name;
    EXPECT_EQ(qtest::LastError(), (qtest::ErrorState{true, c.code})) << c.name;
    EXPECT_TRUE(AVFormat_Link_Stop(task)) << c.name;
  }
}

// The callback pauses the task at its first packet.
struct Pausing {
  void* task = nullptr;
  std::atomic<int> calls{0};
  std::atomic<bool> paused{false};
  static void Progress(void*, int, long long, double, void* context) {
    auto* self = static_cast<Pausing*>(context);
    if (++self->calls > 1) return;
    AVFormat_Link_Suspend(self->task, true);
    self->paused = true;
  }
};

// A paused worker handles no packet, and Stop does not wake it: Stop returns
// once another thread resumes the task. The packet held during the pause is
// still copied; the next read ends its input, and each later input ends at
// its first read.
TEST(LinkStop, OnAPausedTaskReturnsOnlyAfterResume) {
  const std::string clip = Synthetic("pause", {Video(30)}), output = qtest::TempPath("stopped.mkv");
  Pausing run;
  run.task = Prepare(output, {{clip}, {clip}, {clip}}, Pausing::Progress, &run);
  ASSERT_NE(run.task, nullptr);
  EXPECT_TRUE(AVFormat_Link_Suspend(run.task, true));  // accepted before Start, which runs the task regardless
  ASSERT_TRUE(AVFormat_Link_Start(run.task));
  ASSERT_TRUE(qtest::WaitUntil([&] { return run.paused.load(); }));
  std::atomic<bool> stopped{false};
  std::thread stopper([&] { stopped = AVFormat_Link_Stop(run.task); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(stopped);
  EXPECT_EQ(run.calls, 1);
  AVFormat_Link_Suspend(run.task, false);
  stopper.join();
  EXPECT_EQ(run.calls, 2);
  EXPECT_EQ(qtest::ProbePackets(output).size(), 2u) << "trailer written, both packets in";
}

// Stopped while it runs, the task leaves a complete file (MP4 is only
// readable once its trailer is written).
TEST(LinkStop, WhileRunningLeavesAPlayableFile) {
  const std::string clip = qtest::VideoAudioClip("mkv"), output = qtest::TempPath("interrupted.mp4");
  ProgressLog log;
  void* task = Prepare(output, {{clip}, {clip}, {clip}}, ProgressLog::Record, &log);
  ASSERT_NE(task, nullptr);
  ASSERT_TRUE(AVFormat_Link_Start(task));
  EXPECT_TRUE(qtest::WaitUntil([&] { return log.Count() > 0; }));
  EXPECT_TRUE(AVFormat_Link_Stop(task));
  const size_t packets = qtest::ProbePackets(output).size();
  EXPECT_GE(packets, 1u);
  EXPECT_LE(packets, log.Count());
}

}  // namespace
