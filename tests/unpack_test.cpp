// Demultiplexing: splitting by stream on the worker, pulling packets and
// codec parameters, cuts, seeking, errors and Stop at every stage. What the
// library writes or hands out is checked against ffprobe's view of the files.
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/md5.h>
}

#include <cstdlib>
#include <cstring>
#include <functional>

#include "Quorvel_AVFormat.h"
#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using namespace qtest;

// The synthetic file's made-up video data makes the decoder that probes it complain.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
constexpr uint64_t kParameter = ERROR_AVFORMAT_PACKET_PARAMETER, kSeek = ERROR_AVFORMAT_PACKET_SEEK;

AVCODEC_FORMATINFO Out(const std::string& name, int stream, double start = 0, double end = 0,
                       MemoryWriter* writer = nullptr) {
  AVCODEC_FORMATINFO record{};
  std::snprintf(record.szName, sizeof record.szName, "%s", name.c_str());
  record.dlStartTime = start;
  record.dlEndTime = end;
  record.nStreamIndex = stream;
  record.pWriteFunc = writer != nullptr ? MemoryWriter::Write : nullptr;
  record.pWriteContext = writer;
  return record;
}

// A packet as Read handed it out, its data as ffprobe hashes it.
struct Pulled {
  int stream, size;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  std::string hash;
};

// A task that is stopped however the test ends.
struct Task {
  explicit Task(AVFORMAT_PROGRESS_CALLBACK progress = ProgressLog::Record, void* context = nullptr)
      : handle(AVFormat_UNPack_Init(progress, context != nullptr ? context : &log)) {}
  ~Task() { AVFormat_UNPack_Stop(handle); }
  bool Input(const std::string& path) { return AVFormat_UNPack_Input(handle, path.c_str(), nullptr, nullptr); }
  bool Output(std::vector<AVCODEC_FORMATINFO> records) {
    std::vector<AVCODEC_FORMATINFO*> pointers;
    for (AVCODEC_FORMATINFO& record : records) pointers.push_back(&record);
    AVCODEC_FORMATINFO** array = pointers.data();
    return AVFormat_UNPack_Output(handle, &array, static_cast<int>(records.size()));
  }
  bool Running() {
    bool running = false;
    EXPECT_TRUE(AVFormat_UNPack_GetStatus(handle, &running));
    return running;
  }
  bool RunToEnd() {
    return AVFormat_UNPack_Start(handle) && WaitUntil([this] { return !Running(); });
  }
  void Stop() { AVFormat_UNPack_Stop(handle), handle = nullptr; }
  bool Read(Pulled& packet) {
    static unsigned char data[1 << 20];
    if (!AVFormat_UNPack_Read(handle, &packet.stream, data, &packet.size, &packet.info, &packet.time_base))
      return false;
    uint8_t sum[16];
    av_md5_sum(sum, data, static_cast<size_t>(packet.size));
    char text[40] = "MD5:";
    for (int i = 0; i < 16; ++i) std::snprintf(text + 4 + 2 * i, 3, "%02x", sum[i]);
    packet.hash = text;
    return true;
  }
  std::vector<int64_t> CallsOf(int stream) const {  // packet numbers reported for one output
    std::vector<int64_t> numbers;
    for (const auto& call : log.Calls())
      if (call.type == stream) numbers.push_back(call.number);
    return numbers;
  }
  ProgressLog log;
  void* handle;
};

// Holds the worker inside its first progress call until opened, so that a
// test meets a running worker for certain.
struct Gate {
  static void Hold(void*, int, long long, double, void* context) {
    auto* gate = static_cast<Gate*>(context);
    gate->entered = true;
    while (!gate->open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ++gate->calls;
  }
  std::atomic<bool> entered{false}, open{false};
  std::atomic<int> calls{0};
};

// Video every 40 ms and audio every 30 ms, 4 s, in Matroska's 1/1000: a
// packet's time in seconds is exactly pts / 1000.
std::string Synthetic() {
  static const std::string path = [] {
    SyntheticStream video, audio;
    video.time_base = audio.time_base = AVRational{1, 1000};
    video.codec = AV_CODEC_ID_MJPEG;  // intra only: no decoding delay to guess
    video.step = 40;
    audio.type = AVMEDIA_TYPE_AUDIO;
    audio.codec = AV_CODEC_ID_PCM_S16LE;
    audio.step = 30;
    audio.count = 133;
    WriteSynthetic(TempPath("synthetic.mkv"), "matroska", {video, audio});
    return TempPath("synthetic.mkv");
  }();
  return path;
}

// ffprobe opens the file without complaint: QuickTime only once its trailer is written.
bool Accepted(const std::string& path) {
  return Run(std::string(QUORVEL_FFPROBE_TOOL) + " -v quiet '" + path + "'") == 0;
}

std::vector<int64_t> PtsOf(const std::vector<ProbePacket>& packets) {
  std::vector<int64_t> pts;
  for (const ProbePacket& packet : packets) pts.push_back(packet.pts);
  return pts;
}

std::vector<int64_t> Steps(int64_t first, int64_t last, int64_t step) {
  std::vector<int64_t> pts;
  for (int64_t value = first; value <= last; value += step) pts.push_back(value);
  return pts;
}

TEST(UNPackSplit, EachStreamLandsWholeInItsOwnContainer) {
  struct Case {
    const char* format;  // with writers: the format's short name; without: the files' extension
    bool writers, by_reader, same_time_base;
  };
  const std::string input = VideoAudioClip("mkv");
  const std::vector<ProbePacket> source = ProbePackets(input);
  for (const Case& c : {Case{"mkv", false, false, true}, Case{"matroska", true, false, true},
                        Case{"mkv", false, true, true}, Case{"nut", true, false, false}}) {
    SCOPED_TRACE(std::string(c.format) + (c.by_reader ? " by reader" : ""));
    MemoryWriter writers[2];
    MemoryReader reader(ReadFile(input));
    const std::string paths[2] = {TempPath(std::string("split0.") + c.format),
                                  TempPath(std::string("split1.") + c.format)};
    Task task;
    ASSERT_TRUE(c.by_reader ? AVFormat_UNPack_Input(task.handle, "ignored.none", MemoryReader::Read, &reader)
                            : task.Input(input));
    ASSERT_TRUE(task.Output({Out(c.writers ? c.format : paths[0], 0, 0, 0, c.writers ? &writers[0] : nullptr),
                             Out(c.writers ? c.format : paths[1], 1, 0, 0, c.writers ? &writers[1] : nullptr)}));
    if (!c.writers) {
      EXPECT_EQ(ReadFile(paths[0]).at(0), 0x1A) << "the header is out before any packet";
    }
    ASSERT_TRUE(task.RunToEnd());
    task.Stop();
    for (int i = 0; i < 2; ++i) {
      if (c.writers) WriteFile(paths[i], writers[i].data);
      const std::vector<ProbePacket> want = OfStream(source, i), got = ProbePackets(paths[i]);
      ASSERT_EQ(got.size(), want.size()) << "stream " << i;
      for (size_t p = 0; p < got.size(); ++p) {
        EXPECT_EQ(got[p].hash, want[p].hash) << "stream " << i << " packet " << p;
        if (c.same_time_base) {
          EXPECT_EQ(got[p].pts, want[p].pts) << "stream " << i << " packet " << p;
        }
      }
      EXPECT_EQ(task.CallsOf(i), Steps(0, static_cast<int64_t>(want.size()) - 1, 1)) << "from 0, per output";
    }
    for (const auto& call : task.log.Calls()) EXPECT_EQ(call.reserved, nullptr);
  }
}

TEST(UNPackSplit, StartAndEndTimesCutEveryOutput) {
  struct Case {
    const char* name;
    double video_start, video_end, audio_end;
    int64_t video_first, video_last, audio_last;  // pts written
  };
  for (const Case& c :
       {Case{"start only", 2.0, 0, 0, 2000, 3960, 3960}, Case{"video end met: both stop", 0, 2.0, 0, 0, 2000, 1980},
        Case{"audio end met: both stop", 0, 0, 0.99, 0, 960, 990}, Case{"end never met", 0, 2.01, 0, 0, 3960, 3960},
        Case{"start and end", 1.0, 3.0, 0, 1000, 3000, 2970}}) {
    SCOPED_TRACE(c.name);
    const std::string video = TempPath("cut_v.mkv"), audio = TempPath("cut_a.mkv");
    Task task;
    ASSERT_TRUE(task.Input(Synthetic()));
    ASSERT_TRUE(task.Output({Out(video, 0, c.video_start, c.video_end), Out(audio, 1, 0, c.audio_end)}));
    ASSERT_TRUE(task.RunToEnd());
    task.Stop();
    // Packets before the start are still reported and counted.
    EXPECT_EQ(task.CallsOf(0), Steps(0, c.video_last / 40, 1));
    EXPECT_EQ(task.CallsOf(1), Steps(0, c.audio_last / 30, 1));
    for (const auto& call : task.log.Calls()) EXPECT_DOUBLE_EQ(call.seconds, call.number * (call.type ? 0.03 : 0.04));
    EXPECT_EQ(PtsOf(ProbePackets(video)), Steps(c.video_first, c.video_last, 40));
    EXPECT_EQ(PtsOf(ProbePackets(audio)), Steps(0, c.audio_last, 30));
  }
}

TEST(UNPackSplit, OutputsThatClaimNoStreamReceiveNothing) {
  for (const int count : {0, 2}) {
    const std::string paths[2] = {TempPath("none0.mov"), TempPath("none1.mov")};
    Task task;
    ASSERT_TRUE(task.Input(VideoAudioClip("mkv")));
    std::vector<AVCODEC_FORMATINFO> records = {Out(paths[0], 7), Out(paths[1], -1)};
    records.resize(count);
    ASSERT_TRUE(task.Output(records));
    ASSERT_TRUE(task.RunToEnd());
    EXPECT_EQ(task.log.Count(), 0u);
    Pulled packet;
    EXPECT_FALSE(task.Read(packet)) << "the worker read the input to its end";
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
    task.Stop();
    for (int i = 0; i < count; ++i) EXPECT_TRUE(Accepted(paths[i]) && ProbePackets(paths[i]).empty()) << paths[i];
  }
}

TEST(UNPackRead, DeliversEveryPacketAsFfprobeListsIt) {
  for (const std::string& input : {VideoAudioClip("mkv"), VideoAudioClip("avi"), RawH264Clip(), Synthetic()}) {
    SCOPED_TRACE(input);
    const std::vector<ProbeStream> streams = ProbeStreams(input);
    Task task;
    ASSERT_TRUE(task.Input(input));
    Pulled got;
    for (const ProbePacket& packet : ProbePackets(input)) {
      ASSERT_TRUE(task.Read(got));
      EXPECT_EQ(got.stream, packet.stream);
      EXPECT_EQ(got.size, packet.size);
      EXPECT_EQ(got.hash, packet.hash);
      EXPECT_EQ(got.info.pts, packet.pts);
      EXPECT_EQ(got.info.dts, packet.dts);
      EXPECT_EQ(got.info.duration, packet.duration == AV_NOPTS_VALUE ? 0 : packet.duration) << "N/A: 0";
      EXPECT_EQ(av_cmp_q(AVRational{got.time_base.num, got.time_base.den}, streams.at(got.stream).time_base), 0);
    }
    EXPECT_FALSE(task.Read(got)) << "past the last packet";
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
  }
}

TEST(UNPackRead, RefusedWhileTheWorkerRunsThenGoesOnWhereItStopped) {
  Gate gate;
  Task task(Gate::Hold, &gate);
  ASSERT_TRUE(task.Input(Synthetic()));
  ASSERT_TRUE(task.Output({Out(TempPath("gate.mkv"), 0, 0, 2.0)}));
  ASSERT_TRUE(AVFormat_UNPack_Start(task.handle));
  ASSERT_TRUE(WaitUntil([&] { return gate.entered.load(); }));
  Pulled packet;
  EXPECT_FALSE(task.Read(packet));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  // Seeking under a running worker is allowed: it starts over from the beginning.
  EXPECT_TRUE(AVFormat_UNPack_Seek(task.handle, 0, 0));
  EXPECT_TRUE(AVFormat_UNPack_Suspend(task.handle, true));
  gate.open = true;
  ASSERT_TRUE(WaitUntil([&] { return gate.calls == 1; }));
  EXPECT_TRUE(task.Running()) << "paused, not ended";
  EXPECT_FALSE(task.Read(packet));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  EXPECT_TRUE(AVFormat_UNPack_Suspend(task.handle, false));
  ASSERT_TRUE(WaitUntil([&] { return !task.Running(); }));
  EXPECT_EQ(gate.calls, 1 + 51) << "the first packet, then 0 to 2000 again after the seek";
  do ASSERT_TRUE(task.Read(packet));
  while (packet.stream != 0);
  EXPECT_EQ(packet.info.pts, 2040) << "the video packet after the end time";
}

TEST(UNPackSeek, ReadGoesOnFromTheKeyFrameAtOrBeforeTheTarget) {
  struct Case {
    std::string input;
    int stream;
    unsigned long long target;  // stream -1: microseconds, else the stream's 1/1000
  };
  const std::string clip = VideoAudioClip("mkv");  // a key frame every 10 video frames
  for (const Case& c : {Case{Synthetic(), 0, 2000}, Case{Synthetic(), 0, 2010}, Case{Synthetic(), -1, 2000000},
                        Case{clip, 0, 1000}, Case{clip, 1, 1500}, Case{clip, -1, 1000000}}) {
    SCOPED_TRACE(c.input + " stream " + std::to_string(c.stream) + " at " + std::to_string(c.target));
    const int stream = c.stream < 0 ? 0 : c.stream;
    const int64_t target = c.stream < 0 ? c.target / 1000 : c.target;
    int64_t key = AV_NOPTS_VALUE;
    for (const ProbePacket& packet : OfStream(ProbePackets(c.input), stream))
      if (packet.flags[0] == 'K' && packet.pts <= target) key = packet.pts;
    Task task;
    ASSERT_TRUE(task.Input(c.input));
    ASSERT_TRUE(AVFormat_UNPack_Seek(task.handle, c.stream, c.target));
    Pulled packet;
    do ASSERT_TRUE(task.Read(packet));
    while (packet.stream != stream);
    EXPECT_EQ(packet.info.pts, key);
  }
}

TEST(UNPackGetAVCodec, HandsOutAShallowCopyAndTheTimeBase) {
  const std::string input = VideoAudioClip("mkv");
  AVFormatContext* own = nullptr;  // the same file, opened independently
  ASSERT_EQ(avformat_open_input(&own, input.c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(own, nullptr), 0);
  const std::vector<ProbeStream> streams = ProbeStreams(input);
  Task task;
  ASSERT_TRUE(task.Input(input));
  for (int stream = 0; stream < 2; ++stream) {
    for (const int asked : {0, 1, 2, 3}) {  // bit 0: codec parameters, bit 1: time base
      SCOPED_TRACE(testing::Message() << "stream " << stream << " asking " << asked);
      void* block = nullptr;
      AVCODEC_TIMEBASE time_base{-1, -1};
      ASSERT_TRUE(AVFormat_UNPack_GetAVCodec(task.handle, stream, asked & 1 ? &block : nullptr,
                                             asked & 2 ? &time_base : nullptr));
      EXPECT_EQ(time_base.num, asked & 2 ? streams[stream].time_base.num : -1);
      EXPECT_EQ(time_base.den, asked & 2 ? streams[stream].time_base.den : -1);
      ASSERT_EQ(block != nullptr, (asked & 1) != 0);
      if (block == nullptr) continue;
      const auto* copy = static_cast<const AVCodecParameters*>(block);
      const AVCodecParameters* par = own->streams[stream]->codecpar;
      EXPECT_EQ(copy->codec_type, par->codec_type);
      EXPECT_EQ(copy->codec_id, par->codec_id);
      EXPECT_EQ(copy->width, par->width);
      EXPECT_EQ(copy->sample_rate, par->sample_rate);
      ASSERT_EQ(copy->extradata_size, par->extradata_size);
      ASSERT_GT(copy->extradata_size, 0);
      EXPECT_EQ(std::memcmp(copy->extradata, par->extradata, par->extradata_size), 0);
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 11, 100)
      // An unset frame rate (numerator 0) becomes the stream's guess: 25/1 for the video, 0/0 for the audio.
      const AVRational rate = par->framerate.num != 0 ? par->framerate : own->streams[stream]->r_frame_rate;
      EXPECT_EQ(copy->framerate.num, rate.num);
      EXPECT_EQ(copy->framerate.den, rate.den);
      EXPECT_EQ(copy->framerate.num, stream == 0 ? 25 : 0);
#endif
      std::free(block);
    }
  }
  avformat_close_input(&own);
}

// Every code a caller can meet, at the stage where it meets it.
TEST(UNPackErrors, EachFailureReportsItsCode) {
  enum Stage { kNull, kInit, kInput, kStarted };
  struct Case {
    std::vector<Stage> stages;
    const char* name;
    std::function<bool(Task&)> call;
    uint64_t code;
  };
  static MemoryWriter writer;
  static MemoryReader empty({});
  static unsigned char data[1 << 20];
  int index = 0, size = 0;
  bool running = false;
  void* block = nullptr;
#define CALL(expression) [&](Task& t) { return expression; }
  const Case cases[] = {
      {{kNull, kInit}, "Start", CALL(AVFormat_UNPack_Start(t.handle)), kParameter},
      {{kNull, kInit}, "Read", CALL(AVFormat_UNPack_Read(t.handle, &index, data, &size, 0, 0)), kParameter},
      {{kNull, kInit}, "Seek", CALL(AVFormat_UNPack_Seek(t.handle, 0, 0)), kParameter},
      {{kNull, kInit}, "Output", CALL(t.Output({Out(TempPath("e.mkv"), 0)})), kParameter},
      {{kNull, kInit}, "GetAVCodec", CALL(AVFormat_UNPack_GetAVCodec(t.handle, 0, &block, 0)), kSeek},
      {{kNull}, "Input", CALL(t.Input(VideoAudioClip("mkv"))), kParameter},
      {{kNull}, "GetStatus", CALL(AVFormat_UNPack_GetStatus(t.handle, &running)), kParameter},
      {{kNull}, "Suspend", CALL(AVFormat_UNPack_Suspend(t.handle, true)), kParameter},
      {{kInit}, "GetStatus without place", CALL(AVFormat_UNPack_GetStatus(t.handle, 0)), ERROR_AVFORMAT_PACKET_STATUS},
      {{kInit}, "Input of nothing", CALL(AVFormat_UNPack_Input(t.handle, 0, 0, 0)), kParameter},
      {{kInit}, "Input missing file", CALL(t.Input("/nonexistent.mkv")), ERROR_AVFORMAT_PACKET_OPEN},
      {{kInit},
       "Input empty reader",
       CALL(AVFormat_UNPack_Input(t.handle, 0, MemoryReader::Read, &empty)),
       ERROR_AVFORMAT_PACKET_OPEN},
      {{kInput},
       "Output above the stream count",
       CALL(t.Output({Out("a.mkv", 0), Out("b.mkv", 1), Out("c.mkv", 2)})),
       kParameter},
      {{kInput}, "Output null array", CALL(AVFormat_UNPack_Output(t.handle, nullptr, 1)), kParameter},
      {{kInput},
       "Output unknown format",
       CALL(t.Output({Out("no-such-format", 0, 0, 0, &writer)})),
       ERROR_AVFORMAT_PACKET_OUTPUTFORMAT},
      {{kInput},
       "Output unknown extension",
       CALL(t.Output({Out(TempPath("x.nosuch"), 0)})),
       ERROR_AVFORMAT_PACKET_OUTPUTFORMAT},
      {{kInput}, "Output unwritable file", CALL(t.Output({Out("/nonexistent/x.mkv", 0)})), ERROR_AVFORMAT_PACKET_OPEN},
      {{kInput},
       "Output header refused",
       CALL(t.Output({Out("mp4", 0, 0, 0, &writer)})),
       ERROR_AVFORMAT_PACKET_WRITEHEADER},
      {{kInput}, "Read without data", CALL(AVFormat_UNPack_Read(t.handle, &index, 0, &size, 0, 0)), kParameter},
      {{kInput}, "GetAVCodec past the streams", CALL(AVFormat_UNPack_GetAVCodec(t.handle, 2, &block, 0)), kSeek},
      {{kInput}, "GetAVCodec below 0", CALL(AVFormat_UNPack_GetAVCodec(t.handle, -1, 0, 0)), kSeek},
      {{kInput}, "Seek past the streams", CALL(AVFormat_UNPack_Seek(t.handle, 2, 0)), kSeek},
      {{kInput}, "Seek below -1", CALL(AVFormat_UNPack_Seek(t.handle, -2, 0)), kSeek},
      {{kStarted}, "second Start", CALL(AVFormat_UNPack_Start(t.handle)), kParameter},
      {{kStarted}, "Output after Start", CALL(t.Output({Out(TempPath("late.mkv"), 0)})), kParameter},
      {{kStarted}, "Input after Start", CALL(t.Input(VideoAudioClip("mkv"))), kParameter},
  };
#undef CALL
  for (const Case& c : cases) {
    for (const Stage stage : c.stages) {
      SCOPED_TRACE(testing::Message() << c.name << " at stage " << stage);
      Task task;
      if (stage == kNull) task.Stop();
      ASSERT_TRUE(stage < kInput || task.Input(VideoAudioClip("mkv")));
      ASSERT_TRUE(stage < kStarted || AVFormat_UNPack_Start(task.handle));
      block = &block;
      EXPECT_FALSE(c.call(task));
      EXPECT_EQ(LastError(), (ErrorState{true, c.code})) << ToString(LastError());
      EXPECT_EQ(block, &block) << "no codec parameters handed out";
    }
  }
}

// Stop ends the task at any moment with each output finished: the QuickTime
// output is unreadable without the trailer that Stop writes.
TEST(UNPackStop, FinishesTheOutputsAtEveryStage) {
  enum Stage { kInit, kFailedInput, kInput, kFailedOutput, kRunning, kPaused, kFinished };
  for (const Stage stage : {kInit, kFailedInput, kInput, kFailedOutput, kRunning, kPaused, kFinished}) {
    SCOPED_TRACE(stage);
    const std::string path = TempPath("stop" + std::to_string(stage) + ".mov");
    Gate gate;
    MemoryWriter refused;
    Task task(stage == kPaused ? Gate::Hold : ProgressLog::Record, stage == kPaused ? &gate : nullptr);
    if (stage >= kFailedInput) {
      ASSERT_EQ(task.Input(stage == kFailedInput ? "/nonexistent.mkv" : VideoAudioClip("mkv")), stage != kFailedInput);
    }
    if (stage >= kFailedOutput) {
      // The second output's header is refused; the first stays in the task.
      ASSERT_FALSE(task.Output({Out(path, 0), Out("mp4", 1, 0, 0, &refused)}));
      // A pause asked for before Start does not hold the worker.
      if (stage == kFinished) AVFormat_UNPack_Suspend(task.handle, true);
      ASSERT_TRUE(stage < kRunning || AVFormat_UNPack_Start(task.handle));
    }
    if (stage == kPaused) {
      ASSERT_TRUE(WaitUntil([&] { return gate.entered.load(); }));
      AVFormat_UNPack_Suspend(task.handle, true);
      gate.open = true;
      ASSERT_TRUE(WaitUntil([&] { return gate.calls == 1; }));
    }
    ASSERT_TRUE(stage != kFinished || WaitUntil([&] { return !task.Running(); }));
    AVFormat_UNPack_Stop(task.handle);
    EXPECT_FALSE(AVForamt_IsErrorOccur);
    task.handle = nullptr;
    if (stage < kFailedOutput) continue;
    const size_t written = stage == kPaused ? 1 : task.CallsOf(0).size();
    EXPECT_TRUE(Accepted(path));
    EXPECT_EQ(ProbePackets(path).size(), written);
    EXPECT_TRUE(stage != kFinished || written == 50u) << "every video packet";
  }
}

}  // namespace
