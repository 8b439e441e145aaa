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

// The synthetic file's made-up video data makes the decoder that probes it complain.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

using qtest::ErrorState;
using qtest::LastError;
using qtest::MemoryWriter;
using qtest::ProbePacket;

std::string Md5(const unsigned char* data, int size) {
  uint8_t sum[16];
  av_md5_sum(sum, data, static_cast<size_t>(size));
  char text[40] = "MD5:";
  for (int i = 0; i < 16; ++i) std::snprintf(text + 4 + 2 * i, 3, "%02x", sum[i]);
  return text;
}

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

// A packet as Read handed it out.
struct Pulled {
  int stream;
  int size;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  std::string hash;
};

// A task that is stopped however the test ends.
struct Task {
  explicit Task(AVFORMAT_PROGRESS_CALLBACK progress = qtest::ProgressLog::Record, void* context = nullptr)
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
  bool RunToEnd() { return AVFormat_UNPack_Start(handle) && qtest::WaitUntil([this] { return !Running(); }); }
  bool Read(Pulled& packet) {
    static unsigned char data[1 << 20];
    if (!AVFormat_UNPack_Read(handle, &packet.stream, data, &packet.size, &packet.info, &packet.time_base))
      return false;
    packet.hash = Md5(data, packet.size);
    return true;
  }
  std::vector<long long> CallsOf(int stream) const {  // packet numbers reported for one output
    std::vector<long long> numbers;
    for (const auto& call : log.Calls())
      if (call.type == stream) numbers.push_back(call.number);
    return numbers;
  }
  qtest::ProgressLog log;
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
  const std::string path = qtest::TempPath("synthetic.mkv");
  qtest::SyntheticStream video, audio;
  video.time_base = audio.time_base = AVRational{1, 1000};
  video.codec = AV_CODEC_ID_MJPEG;  // intra only: no decoding delay to guess
  video.step = 40;
  audio.type = AVMEDIA_TYPE_AUDIO;
  audio.codec = AV_CODEC_ID_PCM_S16LE;
  audio.step = 30;
  audio.count = 133;
  qtest::WriteSynthetic(path, "matroska", {video, audio});
  return path;
}

// ffprobe opens the file without complaint: for QuickTime, only once the trailer is written.
bool Accepted(const std::string& path) { return qtest::Run(std::string(QUORVEL_FFPROBE_TOOL) + " -v quiet '" + path + "'") == 0; }

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
    const char* input;
    const char* format;  // with writers: the format's short name; without: the files' extension
    bool writers, by_reader, same_time_base;
  };
  for (const Case& c : {Case{"mkv", "mkv", false, false, true}, Case{"mkv", "matroska", true, false, true},
                        Case{"mkv", "mkv", false, true, true}, Case{"mkv", "nut", true, false, false}}) {
    SCOPED_TRACE(std::string(c.input) + " to " + c.format + (c.by_reader ? " by reader" : ""));
    const std::string input = qtest::VideoAudioClip(c.input);
    const std::vector<ProbePacket> source = qtest::ProbePackets(input);
    MemoryWriter writers[2];
    qtest::MemoryReader reader(qtest::ReadFile(input));
    std::string paths[2];
    Task task;
    ASSERT_TRUE(c.by_reader ? AVFormat_UNPack_Input(task.handle, "ignored.none", qtest::MemoryReader::Read, &reader)
                            : task.Input(input));
    std::vector<AVCODEC_FORMATINFO> records;
    for (int i = 0; i < 2; ++i) {
      paths[i] = qtest::TempPath("split" + std::to_string(i) + "." + c.format);
      records.push_back(Out(c.writers ? c.format : paths[i].c_str(), i, 0, 0, c.writers ? &writers[i] : nullptr));
    }
    ASSERT_TRUE(task.Output(records));
    if (!c.writers) {
      EXPECT_EQ(qtest::ReadFile(paths[0]).at(0), 0x1A) << "the header is out before any packet";
    }
    ASSERT_TRUE(task.RunToEnd());
    AVFormat_UNPack_Stop(task.handle);
    task.handle = nullptr;

    for (int i = 0; i < 2; ++i) {
      if (c.writers) qtest::WriteFile(paths[i], writers[i].data);
      const std::vector<ProbePacket> want = qtest::OfStream(source, i), got = qtest::ProbePackets(paths[i]);
      ASSERT_EQ(got.size(), want.size()) << "stream " << i;
      for (size_t p = 0; p < got.size(); ++p) {
        EXPECT_EQ(got[p].hash, want[p].hash) << "stream " << i << " packet " << p;
        if (c.same_time_base) {
          EXPECT_EQ(got[p].pts, want[p].pts) << "stream " << i << " packet " << p;
        }
      }
      const std::vector<long long> numbers = task.CallsOf(i);
      ASSERT_EQ(numbers.size(), want.size());
      for (size_t n = 0; n < numbers.size(); ++n) EXPECT_EQ(numbers[n], static_cast<long long>(n));
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
  const std::string input = Synthetic();
  for (const Case& c : {Case{"start only", 2.0, 0, 0, 2000, 3960, 3960},
                        Case{"video end met: both stop", 0, 2.0, 0, 0, 2000, 1980},
                        Case{"audio end met: both stop", 0, 0, 0.99, 0, 960, 990},
                        Case{"end never met", 0, 2.01, 0, 0, 3960, 3960},
                        Case{"start and end", 1.0, 3.0, 0, 1000, 3000, 2970}}) {
    SCOPED_TRACE(c.name);
    const std::string video = qtest::TempPath("cut_v.mkv"), audio = qtest::TempPath("cut_a.mkv");
    {
      Task task;
      ASSERT_TRUE(task.Input(input));
      ASSERT_TRUE(task.Output({Out(video, 0, c.video_start, c.video_end), Out(audio, 1, 0, c.audio_end)}));
      ASSERT_TRUE(task.RunToEnd());
      // Packets before the start are still reported and counted.
      EXPECT_EQ(task.CallsOf(0).size(), static_cast<size_t>(c.video_last / 40 + 1));
      EXPECT_EQ(task.CallsOf(1).size(), static_cast<size_t>(c.audio_last / 30 + 1));
      for (const auto& call : task.log.Calls())
        if (call.type == 0) {
          EXPECT_DOUBLE_EQ(call.seconds, static_cast<double>(call.number * 40) / 1000);
        }
    }
    EXPECT_EQ(PtsOf(qtest::ProbePackets(video)), Steps(c.video_first, c.video_last, 40));
    EXPECT_EQ(PtsOf(qtest::ProbePackets(audio)), Steps(0, c.audio_last, 30));
  }
}

TEST(UNPackSplit, OutputsThatClaimNoStreamReceiveNothing) {
  for (const int count : {0, 2}) {
    SCOPED_TRACE(count);
    const std::string paths[2] = {qtest::TempPath("none0.mov"), qtest::TempPath("none1.mov")};
    {
      Task task;
      ASSERT_TRUE(task.Input(qtest::VideoAudioClip("mkv")));
      std::vector<AVCODEC_FORMATINFO> records = {Out(paths[0], 7), Out(paths[1], -1)};
      records.resize(count);
      ASSERT_TRUE(task.Output(records));
      ASSERT_TRUE(task.RunToEnd());
      EXPECT_EQ(task.log.Count(), 0u);
      Pulled packet;
      EXPECT_FALSE(task.Read(packet)) << "the worker read the input to its end";
      EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
    }
    for (int i = 0; i < count; ++i) {
      EXPECT_TRUE(Accepted(paths[i]));
      EXPECT_TRUE(qtest::ProbePackets(paths[i]).empty());
    }
  }
}

TEST(UNPackRead, DeliversEveryPacketAsFfprobeListsIt) {
  for (const std::string& input : {qtest::VideoAudioClip("mkv"),
                                   qtest::VideoAudioClip("avi"), qtest::RawH264Clip(), Synthetic()}) {
    SCOPED_TRACE(input);
    const std::vector<ProbePacket> want = qtest::ProbePackets(input);
    const std::vector<qtest::ProbeStream> streams = qtest::ProbeStreams(input);
    Task task;
    ASSERT_TRUE(task.Input(input));
    Pulled got;
    for (const ProbePacket& packet : want) {
      ASSERT_TRUE(task.Read(got));
      EXPECT_EQ(got.stream, packet.stream);
      EXPECT_EQ(got.size, packet.size);
      EXPECT_EQ(got.hash, packet.hash);
      EXPECT_EQ(got.info.pts, packet.pts);
      EXPECT_EQ(got.info.dts, packet.dts);
      EXPECT_EQ(got.info.duration, packet.duration == AV_NOPTS_VALUE ? 0 : packet.duration) << "N/A: 0";
      EXPECT_EQ(got.time_base.num, streams.at(got.stream).time_base.num);
      EXPECT_EQ(got.time_base.den, streams.at(got.stream).time_base.den);
    }
    EXPECT_FALSE(task.Read(got)) << "past the last packet";
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
  }
}

TEST(UNPackRead, RefusedWhileTheWorkerRunsThenGoesOnWhereItStopped) {
  Gate gate;
  Task task(Gate::Hold, &gate);
  ASSERT_TRUE(task.Input(Synthetic()));
  ASSERT_TRUE(task.Output({Out(qtest::TempPath("gate.mkv"), 0, 0, 2.0)}));
  ASSERT_TRUE(AVFormat_UNPack_Start(task.handle));
  ASSERT_TRUE(qtest::WaitUntil([&] { return gate.entered.load(); }));
  Pulled packet;
  EXPECT_FALSE(task.Read(packet));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  // Seeking under a running worker is allowed: it starts over from the beginning.
  EXPECT_TRUE(AVFormat_UNPack_Seek(task.handle, 0, 0));
  EXPECT_TRUE(AVFormat_UNPack_Suspend(task.handle, true));
  gate.open = true;
  ASSERT_TRUE(qtest::WaitUntil([&] { return gate.calls == 1; }));
  EXPECT_TRUE(task.Running()) << "paused, not ended";
  EXPECT_FALSE(task.Read(packet));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  EXPECT_TRUE(AVFormat_UNPack_Suspend(task.handle, false));
  ASSERT_TRUE(qtest::WaitUntil([&] { return !task.Running(); }));
  EXPECT_EQ(gate.calls, 1 + 51) << "the first packet, then 0 to 2000 again after the seek";
  do ASSERT_TRUE(task.Read(packet));
  while (packet.stream != 0);
  EXPECT_EQ(packet.info.pts, 2040) << "the video packet after the end time";
}

TEST(UNPackSeek, ReadGoesOnFromTheKeyFrameAtOrBeforeTheTarget) {
  struct Case {
    std::string input;
    int stream;
    unsigned long long target;
    int64_t key_pts;  // -1: the last key frame of the stream at or before target ms
  };
  const std::string clip = qtest::VideoAudioClip("mkv");
  for (const Case& c : {Case{Synthetic(), 0, 2000, 2000}, Case{Synthetic(), 0, 2010, 2000},
                        Case{Synthetic(), -1, 2000000, 2000}, Case{clip, 0, 1000, -1}, Case{clip, 1, 1500, -1},
                        Case{clip, -1, 1000000, -1}}) {
    SCOPED_TRACE(c.input + " stream " + std::to_string(c.stream) + " at " + std::to_string(c.target));
    const int stream = c.stream < 0 ? 0 : c.stream;
    int64_t key = c.key_pts;
    const uint64_t target_ms = c.stream < 0 ? c.target / 1000 : c.target;
    for (const ProbePacket& packet : qtest::OfStream(qtest::ProbePackets(c.input), stream))
      if (c.key_pts < 0 && packet.flags[0] == 'K' && packet.pts <= static_cast<int64_t>(target_ms)) key = packet.pts;
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
  const std::string input = qtest::VideoAudioClip("mkv");
  AVFormatContext* own = nullptr;  // the same file, opened independently
  ASSERT_EQ(avformat_open_input(&own, input.c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(own, nullptr), 0);
  const std::vector<qtest::ProbeStream> streams = qtest::ProbeStreams(input);
  Task task;
  ASSERT_TRUE(task.Input(input));
  for (int stream = 0; stream < 2; ++stream) {
    for (const bool want_codec : {true, false}) {
      for (const bool want_time_base : {true, false}) {
        SCOPED_TRACE(testing::Message() << stream << want_codec << want_time_base);
        void* block = nullptr;
        AVCODEC_TIMEBASE time_base{-1, -1};
        ASSERT_TRUE(AVFormat_UNPack_GetAVCodec(task.handle, stream, want_codec ? &block : nullptr,
                                               want_time_base ? &time_base : nullptr));
        EXPECT_EQ(time_base.num, want_time_base ? streams[stream].time_base.num : -1);
        EXPECT_EQ(time_base.den, want_time_base ? streams[stream].time_base.den : -1);
        ASSERT_EQ(block != nullptr, want_codec);
        if (!want_codec) continue;
        const auto* copy = static_cast<const AVCodecParameters*>(block);
        const AVStream* expected = own->streams[stream];
        const AVCodecParameters* par = expected->codecpar;
        EXPECT_EQ(copy->codec_type, par->codec_type);
        EXPECT_EQ(copy->codec_id, par->codec_id);
        EXPECT_EQ(copy->width, par->width);
        EXPECT_EQ(copy->sample_rate, par->sample_rate);
        ASSERT_EQ(copy->extradata_size, par->extradata_size);
        ASSERT_GT(copy->extradata_size, 0);
        EXPECT_EQ(std::memcmp(copy->extradata, par->extradata, par->extradata_size), 0);
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 11, 100)
        const AVRational rate = par->framerate.num != 0 ? par->framerate : expected->r_frame_rate;
        EXPECT_EQ(copy->framerate.num, rate.num);
        EXPECT_EQ(copy->framerate.den, rate.den);
        if (stream == 0) {
          EXPECT_EQ(av_cmp_q(copy->framerate, AVRational{25, 1}), 0);
        }
#endif
        std::free(block);
      }
    }
  }
  avformat_close_input(&own);
}

// Every code a caller can meet, at the stage where it meets it.
TEST(UNPackErrors, EachFailureReportsItsCode) {
  enum Stage { kNull, kInit, kInput, kStarted };
  struct Case {
    const char* name;
    Stage stage;
    std::function<bool(Task&)> call;
    uint64_t code;
  };
  static MemoryWriter writer;
  static qtest::MemoryReader empty({});
  static unsigned char data[1 << 20];
  int index = 0, size = 0;
  bool running = false;
  void* block = nullptr;
  const std::vector<Case> cases = {
      {"Input null", kNull, [](Task& t) { return t.Input("x.mkv"); }, ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Output null", kNull, [](Task& t) { return t.Output({}); }, ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Start null", kNull, [](Task& t) { return AVFormat_UNPack_Start(t.handle); }, ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Read null", kNull, [&](Task& t) { return AVFormat_UNPack_Read(t.handle, &index, data, &size, 0, 0); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"GetStatus null", kNull, [&](Task& t) { return AVFormat_UNPack_GetStatus(t.handle, &running); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Suspend null", kNull, [](Task& t) { return AVFormat_UNPack_Suspend(t.handle, true); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Seek null", kNull, [](Task& t) { return AVFormat_UNPack_Seek(t.handle, 0, 0); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"GetAVCodec null", kNull, [&](Task& t) { return AVFormat_UNPack_GetAVCodec(t.handle, 0, &block, 0); },
       ERROR_AVFORMAT_PACKET_SEEK},
      {"Input of nothing", kInit, [](Task& t) { return AVFormat_UNPack_Input(t.handle, 0, 0, 0); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Input missing file", kInit, [](Task& t) { return t.Input("/nonexistent.mkv"); }, ERROR_AVFORMAT_PACKET_OPEN},
      {"Input empty reader", kInit,
       [](Task& t) { return AVFormat_UNPack_Input(t.handle, 0, qtest::MemoryReader::Read, &empty); },
       ERROR_AVFORMAT_PACKET_OPEN},
      {"Output before Input", kInit, [](Task& t) { return t.Output({Out(qtest::TempPath("e.mkv"), 0)}); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Start before Input", kInit, [](Task& t) { return AVFormat_UNPack_Start(t.handle); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Read before Input", kInit, [&](Task& t) { return AVFormat_UNPack_Read(t.handle, &index, data, &size, 0, 0); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Seek before Input", kInit, [](Task& t) { return AVFormat_UNPack_Seek(t.handle, 0, 0); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"GetAVCodec before Input", kInit, [&](Task& t) { return AVFormat_UNPack_GetAVCodec(t.handle, 0, &block, 0); },
       ERROR_AVFORMAT_PACKET_SEEK},
      {"GetStatus no place", kInit, [](Task& t) { return AVFormat_UNPack_GetStatus(t.handle, nullptr); },
       ERROR_AVFORMAT_PACKET_STATUS},
      {"Output count above streams", kInput,
       [](Task& t) { return t.Output({Out("a.mkv", 0), Out("b.mkv", 1), Out("c.mkv", 2)}); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Output null array", kInput, [](Task& t) { return AVFormat_UNPack_Output(t.handle, nullptr, 1); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Output unknown format", kInput, [](Task& t) { return t.Output({Out("no-such-format", 0, 0, 0, &writer)}); },
       ERROR_AVFORMAT_PACKET_OUTPUTFORMAT},
      {"Output unknown extension", kInput, [](Task& t) { return t.Output({Out(qtest::TempPath("x.nosuch"), 0)}); },
       ERROR_AVFORMAT_PACKET_OUTPUTFORMAT},
      {"Output unwritable file", kInput, [](Task& t) { return t.Output({Out("/nonexistent/x.mkv", 0)}); },
       ERROR_AVFORMAT_PACKET_OPEN},
      {"Output header refused", kInput, [](Task& t) { return t.Output({Out("mp4", 0, 0, 0, &writer)}); },
       ERROR_AVFORMAT_PACKET_WRITEHEADER},
      {"Read without data", kInput, [&](Task& t) { return AVFormat_UNPack_Read(t.handle, &index, 0, &size, 0, 0); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"GetAVCodec no such stream", kInput,
       [&](Task& t) { return AVFormat_UNPack_GetAVCodec(t.handle, 2, &block, 0); }, ERROR_AVFORMAT_PACKET_SEEK},
      {"GetAVCodec negative stream", kInput,
       [&](Task& t) { return AVFormat_UNPack_GetAVCodec(t.handle, -1, 0, 0); }, ERROR_AVFORMAT_PACKET_SEEK},
      {"Seek no such stream", kInput, [](Task& t) { return AVFormat_UNPack_Seek(t.handle, 2, 0); },
       ERROR_AVFORMAT_PACKET_SEEK},
      {"Seek below -1", kInput, [](Task& t) { return AVFormat_UNPack_Seek(t.handle, -2, 0); },
       ERROR_AVFORMAT_PACKET_SEEK},
      {"second Start", kStarted, [](Task& t) { return AVFormat_UNPack_Start(t.handle); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Output after Start", kStarted, [](Task& t) { return t.Output({Out(qtest::TempPath("late.mkv"), 0)}); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Input after Start", kStarted, [](Task& t) { return t.Input(qtest::VideoAudioClip("mkv")); },
       ERROR_AVFORMAT_PACKET_PARAMETER},
  };
  for (const Case& c : cases) {
    Task task;
    if (c.stage == kNull) {
      AVFormat_UNPack_Stop(task.handle);
      task.handle = nullptr;
    }
    if (c.stage >= kInput) {
      ASSERT_TRUE(task.Input(qtest::VideoAudioClip("mkv"))) << c.name;
    }
    if (c.stage >= kStarted) {
      ASSERT_TRUE(AVFormat_UNPack_Start(task.handle)) << c.name;
    }
    block = reinterpret_cast<void*>(1);
    EXPECT_FALSE(c.call(task)) << c.name;
    EXPECT_EQ(LastError(), (ErrorState{true, c.code})) << c.name << ": " << qtest::ToString(LastError());
    if (block != reinterpret_cast<void*>(1)) std::free(block);
  }
}

// Stop ends the task at any moment, with each output finished: the QuickTime output
// is unreadable without the trailer that Stop writes.
TEST(UNPackStop, FinishesTheOutputsAtEveryStage) {
  enum Stage { kInit, kFailedInput, kInput, kFailedOutput, kReady, kRunning, kPaused, kFinished };
  for (const Stage stage : {kInit, kFailedInput, kInput, kFailedOutput, kReady, kRunning, kPaused, kFinished}) {
    SCOPED_TRACE(stage);
    const std::string path = qtest::TempPath("stop" + std::to_string(stage) + ".mov");
    Gate gate;
    MemoryWriter refused;
    size_t written = 0;
    {
      Task task(stage == kPaused ? Gate::Hold : qtest::ProgressLog::Record, stage == kPaused ? &gate : nullptr);
      if (stage == kInit) continue;
      ASSERT_EQ(task.Input(stage == kFailedInput ? "/nonexistent.mkv" : qtest::VideoAudioClip("mkv")),
                stage != kFailedInput);
      if (stage <= kInput) continue;
      ASSERT_EQ(task.Output({Out(path, 0), Out("mp4", 1, 0, 0, &refused)}), false) << "the second header is refused";
      ASSERT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_WRITEHEADER}));
      // A pause asked for before Start does not hold the worker.
      if (stage == kFinished) AVFormat_UNPack_Suspend(task.handle, true);
      if (stage >= kRunning) {
        ASSERT_TRUE(AVFormat_UNPack_Start(task.handle));
      }
      if (stage == kPaused) {
        ASSERT_TRUE(qtest::WaitUntil([&] { return gate.entered.load(); }));
        AVFormat_UNPack_Suspend(task.handle, true);
        gate.open = true;
        ASSERT_TRUE(qtest::WaitUntil([&] { return gate.calls == 1; }));
      }
      if (stage == kFinished) {
        ASSERT_TRUE(qtest::WaitUntil([&] { return !task.Running(); }));
      }
      EXPECT_TRUE(AVFormat_UNPack_Stop(task.handle));
      EXPECT_FALSE(AVForamt_IsErrorOccur);
      task.handle = nullptr;
      written = stage == kPaused ? 1 : task.CallsOf(0).size();
    }
    EXPECT_TRUE(Accepted(path));
    EXPECT_EQ(qtest::ProbePackets(path).size(), written);
    if (stage == kFinished) {
      EXPECT_EQ(written, 50u);
    }
  }
}

}  // namespace
