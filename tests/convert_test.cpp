// Conversion: remuxing real clips, cuts, made-up timestamps, the caller I/O
// bridge, every error a caller can provoke, and the task's life cycle.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "Quorvel_AVFormat.h"
#include "support/caller.h"
#include "support/fixtures.h"
#include "support/server.h"

namespace {

using qtest::ErrorState;
using qtest::LastError;
using qtest::ProbePacket;

constexpr std::chrono::seconds kTimeout{60};

bool Running(void* task) {
  bool running = false;
  EXPECT_TRUE(AVFormat_Convert_GetStatus(task, &running));
  return running;
}

// A conversion from a file to a file, run to its end and stopped.
struct Conversion {
  Conversion(std::string in, std::string out, double start_time = 0.0, double end_time = 0.0)
      : input(std::move(in)), output(std::move(out)), start(start_time), end(end_time) {}
  std::string input, output;
  double start, end;
  qtest::ProgressLog log;

  void Run() {
    void* task = AVFormat_Convert_Init(qtest::ProgressLog::Record, &log);
    ASSERT_NE(task, nullptr);
    ASSERT_TRUE(AVFormat_Convert_Output(task, output.c_str(), start, end, nullptr, nullptr)) << output;
    ASSERT_TRUE(AVFormat_Convert_Input(task, input.c_str(), nullptr, nullptr)) << input;
    ASSERT_TRUE(AVFormat_Convert_Start(task));
    EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }, kTimeout));
    EXPECT_TRUE(AVFormat_Convert_Stop(task));
  }
};

double Seconds(int64_t ticks, AVRational time_base) {
  return static_cast<double>(ticks) * av_q2d(time_base);
}

// Remuxing keeps every packet of every stream: same count, same bytes where
// the output container stores the bitstream as it is, same times.
TEST(ConvertRemux, KeepsEveryPacketBetweenContainers) {
  struct Case {
    std::string from, to;
    bool same_bytes, same_times;
  };
  const Case cases[] = {
      {"mkv", "mp4", true, true}, {"mp4", "mkv", true, true},
      {"mkv", "mkv", true, true}, {"mp4", "ts", false, false},  // MPEG-TS adds ADTS headers and its own start delay
      {"mkv", "nut", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.from + " -> " + c.to);
    Conversion conversion{qtest::VideoAudioClip(c.from), qtest::TempPath("remux_" + c.from + "." + c.to)};
    conversion.Run();

    const auto in_streams = qtest::ProbeStreams(conversion.input);
    const auto out_streams = qtest::ProbeStreams(conversion.output);
    ASSERT_EQ(out_streams.size(), 2u);
    const auto in = qtest::ProbePackets(conversion.input);
    const auto out = qtest::ProbePackets(conversion.output);
    // A muxer may shift the whole file (to avoid negative times): compare
    // times from each file's earliest packet.
    const auto earliest = [](const std::vector<ProbePacket>& packets, const std::vector<qtest::ProbeStream>& streams) {
      double first = 1e300;
      for (const ProbePacket& p : packets) first = std::min(first, Seconds(p.pts, streams[p.stream].time_base));
      return first;
    };
    const double in_origin = earliest(in, in_streams), out_origin = earliest(out, out_streams);
    for (int stream = 0; stream < 2; ++stream) {
      EXPECT_EQ(out_streams[stream].codec_type, in_streams[stream].codec_type);
      const auto a = qtest::OfStream(in, stream), b = qtest::OfStream(out, stream);
      ASSERT_EQ(a.size(), b.size()) << "stream " << stream;
      ASSERT_FALSE(a.empty());
      std::multiset<std::string> a_hashes, b_hashes;
      for (size_t i = 0; i < a.size(); ++i) {
        a_hashes.insert(a[i].hash);
        b_hashes.insert(b[i].hash);
        if (c.same_times) {
          EXPECT_NEAR(Seconds(b[i].pts, out_streams[stream].time_base) - out_origin,
                      Seconds(a[i].pts, in_streams[stream].time_base) - in_origin,
                      av_q2d(out_streams[stream].time_base) + 1e-9)
              << "stream " << stream << " packet " << i;
        }
      }
      if (c.same_bytes) {
        EXPECT_EQ(a_hashes, b_hashes) << "stream " << stream;
      }
    }
    EXPECT_EQ(conversion.log.Count(), in.size()) << "one progress call per packet";
  }
}

// Synthetic input: 100 video packets, time base 1/25, pts 0..99 (0.04 s apart).
std::string HundredFrames() {
  static const std::string path = [] {
    const std::string file = qtest::TempPath("hundred.nut");
    qtest::WriteSynthetic(file, "nut", {qtest::SyntheticStream{}});
    return file;
  }();
  return path;
}

TEST(ConvertCut, StartDropsEarlyPacketsAndEndStopsOnlyOnAnExactMatch) {
  struct Case {
    double start, end;
    int64_t first_ms, last_ms;  // written packets, in the Matroska output's milliseconds
    size_t reported;            // progress calls: every handled packet, written or not
  };
  const Case cases[] = {
      {1.0, 2.0, 1000, 2000, 51},    // end met exactly at pts 50
      {1.0, 2.01, 1000, 3960, 100},  // no packet at 2.01: runs to the end
      {0.0, 0.0, 0, 3960, 100},      // no cut
      {-1.0, 0.4, 0, 400, 11},       // negative start keeps everything
      {3.0, -2.0, 3000, 3960, 100},  // negative end never stops the task
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("start " + std::to_string(c.start) + " end " + std::to_string(c.end));
    Conversion conversion{HundredFrames(), qtest::TempPath("cut.mkv"), c.start, c.end};
    conversion.Run();
    const auto packets = qtest::ProbePackets(conversion.output);
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(packets.front().pts, c.first_ms);
    EXPECT_EQ(packets.back().pts, c.last_ms);
    EXPECT_EQ(packets.size(), static_cast<size_t>((c.last_ms - c.first_ms) / 40 + 1));

    const auto calls = conversion.log.Calls();
    ASSERT_EQ(calls.size(), c.reported);
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].reserved, nullptr);
      EXPECT_EQ(calls[i].type, AVMEDIA_TYPE_VIDEO);
      EXPECT_EQ(calls[i].number, static_cast<long long>(i));
      EXPECT_DOUBLE_EQ(calls[i].seconds, 0.04 * i);
    }
  }
}

// A raw H.264 stream carries no timestamps: they are made from the task-wide
// packet counter and the stream's frame rate and time base, as the linked
// FFmpeg reports them (they differ between versions), then rescaled.
TEST(ConvertTimestamps, RawH264GetsCounterBasedTimes) {
  Conversion conversion{qtest::RawH264Clip(), qtest::TempPath("raw.mkv")};
  conversion.Run();
  AVFormatContext* input = nullptr;
  ASSERT_GE(avformat_open_input(&input, conversion.input.c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(input, nullptr), 0);
  const AVRational frame_rate = input->streams[0]->r_frame_rate, time_base = input->streams[0]->time_base;
  avformat_close_input(&input);
  ASSERT_GT(av_q2d(frame_rate), 0.0);

  const auto packets = qtest::ProbePackets(conversion.output);
  ASSERT_EQ(packets.size(), 25u);
  const auto frame_length = static_cast<int64_t>(1e6 / av_q2d(frame_rate));
  for (size_t n = 0; n < packets.size(); ++n) {
    const auto ticks = static_cast<int64_t>(static_cast<double>(n * frame_length) / (av_q2d(time_base) * 1e6));
    const int64_t expected = av_rescale_q_rnd(ticks, time_base, AVRational{1, 1000}, AV_ROUND_NEAR_INF);
    EXPECT_EQ(packets[n].pts, expected) << "packet " << n;
  }
  EXPECT_GT(packets.back().pts, 0);
}

TEST(ConvertBridge, ReadsAndWritesThroughCallerFunctions) {
  const std::string source = qtest::VideoAudioClip("mkv");
  qtest::MemoryReader reader(qtest::ReadFile(source));
  qtest::MemoryWriter writer;
  void* task = AVFormat_Convert_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_Convert_Output(task, "matroska", 0, 0, qtest::MemoryWriter::Write, &writer));
  ASSERT_TRUE(AVFormat_Convert_Input(task, nullptr, qtest::MemoryReader::Read, &reader));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }, kTimeout));
  EXPECT_TRUE(AVFormat_Convert_Stop(task));

  const std::string output = qtest::TempPath("bridged.mkv");
  qtest::WriteFile(output, writer.data);
  const auto in = qtest::ProbePackets(source), out = qtest::ProbePackets(output);
  ASSERT_EQ(out.size(), in.size());
  for (size_t i = 0; i < in.size(); ++i) EXPECT_EQ(out[i].hash, in[i].hash) << i;
}

// With both a url and a read function, the url is opened first (and must
// open), then the input comes through the bridge.
TEST(ConvertBridge, UrlIsOpenedFirstThenReplacedByTheReadFunction) {
  qtest::MemoryReader reader(qtest::ReadFile(qtest::VideoOnlyClip("mkv")));
  void* task = AVFormat_Convert_Init(nullptr, nullptr);
  const std::string output = qtest::TempPath("replaced.mkv");
  ASSERT_TRUE(AVFormat_Convert_Output(task, output.c_str(), 0, 0, nullptr, nullptr));
  EXPECT_FALSE(AVFormat_Convert_Input(task, "/nonexistent/input.mkv", qtest::MemoryReader::Read, &reader));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_CONVERT_OPEN}));
  EXPECT_EQ(reader.calls, 0) << "a failing url ends the call before the bridge";
  ASSERT_TRUE(AVFormat_Convert_Input(task, qtest::VideoAudioClip("mkv").c_str(), qtest::MemoryReader::Read, &reader));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }, kTimeout));
  AVFormat_Convert_Stop(task);
  EXPECT_EQ(qtest::ProbeStreams(output).size(), 1u) << "the streams are the read function's, video only";
}

// Every failure a caller can provoke, with its code.
TEST(ConvertErrors, EachFailureReportsItsCode) {
  const std::string clip = qtest::VideoAudioClip("mkv");
  const std::string out = qtest::TempPath("errors.mkv");
  qtest::MemoryWriter writer;
  qtest::MemoryReader empty({});
  qtest::MemoryReader garbage(std::vector<uint8_t>(4096, 0x5a));
  bool running;

  // Each step is run on a fresh task set up as far as `setup` says.
  enum Setup { kInit, kOutput, kInput };
  struct Case {
    const char* name;
    Setup setup;
    std::function<bool(void*)> call;
    uint64_t code;
  };
  const Case cases[] = {
      {"output to an unknown extension", kInit,
       [&](void* t) { return AVFormat_Convert_Output(t, "/tmp/x.unknownext", 0, 0, nullptr, nullptr); },
       ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT},
      {"output format name unknown", kInit,
       [&](void* t) { return AVFormat_Convert_Output(t, "nosuchformat", 0, 0, qtest::MemoryWriter::Write, &writer); },
       ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT},
      {"output file name given as format name", kInit,
       [&](void* t) { return AVFormat_Convert_Output(t, "/tmp/x.mp4", 0, 0, qtest::MemoryWriter::Write, &writer); },
       ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT},
      {"output file can't be created", kInit,
       [&](void* t) { return AVFormat_Convert_Output(t, "/nonexistent/dir/x.mkv", 0, 0, nullptr, nullptr); },
       ERROR_AVFORMAT_CONVERT_OPEN},
      {"input before output", kInit, [&](void* t) { return AVFormat_Convert_Input(t, clip.c_str(), nullptr, nullptr); },
       ERROR_AVFORMAT_CONVERT_PARAMETER},
      {"input with neither url nor read function", kOutput,
       [&](void* t) { return AVFormat_Convert_Input(t, nullptr, nullptr, nullptr); }, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {"missing input file", kOutput,
       [&](void* t) { return AVFormat_Convert_Input(t, "/nonexistent/x.mkv", nullptr, nullptr); },
       ERROR_AVFORMAT_CONVERT_OPEN},
      {"read function delivers nothing", kOutput,
       [&](void* t) { return AVFormat_Convert_Input(t, nullptr, qtest::MemoryReader::Read, &empty); },
       ERROR_AVFORMAT_CONVERT_OPEN},
      {"read function delivers no known format", kOutput,
       [&](void* t) { return AVFormat_Convert_Input(t, nullptr, qtest::MemoryReader::Read, &garbage); },
       ERROR_AVFORMAT_CONVERT_OPEN},
      {"start before input", kOutput, [](void* t) { return AVFormat_Convert_Start(t); },
       ERROR_AVFORMAT_CONVERT_PARAMETER},
      {"status without a place", kInit, [](void* t) { return AVFormat_Convert_GetStatus(t, nullptr); },
       ERROR_AVFORMAT_CONVERT_STATUS},
      {"seek without an input", kOutput, [](void* t) { return AVFormat_Convert_Seek(t, 1); },
       ERROR_AVFORMAT_CONVERT_PARAMETER},
      {"seek past the end", kInput, [](void* t) { return AVFormat_Convert_Seek(t, 100); }, ERROR_AVFORMAT_CONVERT_SEEK},
      {"null task", kInit, [&](void*) { return AVFormat_Convert_GetStatus(nullptr, &running); },
       ERROR_AVFORMAT_CONVERT_PARAMETER},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    void* task = AVFormat_Convert_Init(nullptr, nullptr);
    ASSERT_NE(task, nullptr);
    if (c.setup >= kOutput) {
      ASSERT_TRUE(AVFormat_Convert_Output(task, out.c_str(), 0, 0, nullptr, nullptr));
    }
    if (c.setup >= kInput) {
      ASSERT_TRUE(AVFormat_Convert_Input(task, clip.c_str(), nullptr, nullptr));
    }
    EXPECT_FALSE(c.call(task));
    EXPECT_EQ(LastError(), (ErrorState{true, c.code})) << qtest::ToString(LastError());
    EXPECT_TRUE(AVFormat_Convert_Stop(task)) << "a task is released after any failure";
    EXPECT_FALSE(AVForamt_IsErrorOccur);
  }
}

// A container that can't hold the input's streams refuses its header; the
// task then can't start, and a second Start of a running task is refused too.
TEST(ConvertErrors, StartFailsOnARefusedHeaderAndWhenStartedTwice) {
  void* task = AVFormat_Convert_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_Convert_Output(task, qtest::TempPath("video.wav").c_str(), 0, 0, nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Input(task, qtest::VideoOnlyClip("mkv").c_str(), nullptr, nullptr));
  EXPECT_FALSE(AVFormat_Convert_Start(task));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_CONVERT_WRITEHEADER}));
  EXPECT_FALSE(Running(task));
  AVFormat_Convert_Stop(task);

  // A bridged output can't seek back, which plain MP4 needs.
  qtest::MemoryWriter writer;
  task = AVFormat_Convert_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_Convert_Output(task, "mp4", 0, 0, qtest::MemoryWriter::Write, &writer));
  ASSERT_TRUE(AVFormat_Convert_Input(task, qtest::VideoOnlyClip("mkv").c_str(), nullptr, nullptr));
  EXPECT_FALSE(AVFormat_Convert_Start(task));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_CONVERT_WRITEHEADER}));
  AVFormat_Convert_Stop(task);

  task = AVFormat_Convert_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_Convert_Output(task, qtest::TempPath("twice.mkv").c_str(), 0, 0, nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Input(task, qtest::VideoOnlyClip("mkv").c_str(), nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Suspend(task, true));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  EXPECT_FALSE(AVFormat_Convert_Start(task));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_CONVERT_PARAMETER}));
  AVFormat_Convert_Stop(task);
}

// Streams other than video, audio and subtitles are dropped; output streams
// are found by the input stream's index.
TEST(ConvertStreams, DataStreamsAreDroppedAndLaterStreamsLoseTheirIndex) {
  struct Case {
    std::vector<AVMediaType> layout;
    std::vector<std::string> out_types;  // output streams made
    std::vector<int> packets;            // packets written per output stream
  };
  qtest::SyntheticStream video, audio, data;
  audio.type = AVMEDIA_TYPE_AUDIO;
  audio.codec = AV_CODEC_ID_PCM_S16LE;
  audio.count = 50;
  data.type = AVMEDIA_TYPE_DATA;
  data.codec = AV_CODEC_ID_NONE;
  data.tag = MKTAG('D', 'A', 'T', 'A');
  data.count = 10;
  const Case cases[] = {
      {{AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_DATA, AVMEDIA_TYPE_AUDIO}, {"video", "audio"}, {100, 0}},
      {{AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO, AVMEDIA_TYPE_DATA}, {"video", "audio"}, {100, 50}},
  };
  for (const Case& c : cases) {
    std::vector<qtest::SyntheticStream> streams;
    for (AVMediaType type : c.layout)
      streams.push_back(type == AVMEDIA_TYPE_VIDEO ? video : type == AVMEDIA_TYPE_AUDIO ? audio : data);
    const std::string input = qtest::TempPath("layout.nut");
    qtest::WriteSynthetic(input, "nut", streams);
    Conversion conversion{input, qtest::TempPath("layout.mkv")};
    conversion.Run();
    const auto out_streams = qtest::ProbeStreams(conversion.output);
    ASSERT_EQ(out_streams.size(), c.out_types.size());
    const auto packets = qtest::ProbePackets(conversion.output);
    for (size_t i = 0; i < out_streams.size(); ++i) {
      EXPECT_EQ(out_streams[i].codec_type, c.out_types[i]);
      EXPECT_EQ(qtest::OfStream(packets, static_cast<int>(i)).size(), static_cast<size_t>(c.packets[i])) << i;
    }
  }
}

TEST(ConvertControl, PauseHoldsTheWorkerAndResumeFinishesIt) {
  qtest::ProgressLog log;
  void* task = AVFormat_Convert_Init(qtest::ProgressLog::Record, &log);
  const std::string output = qtest::TempPath("paused.mkv");
  ASSERT_TRUE(AVFormat_Convert_Output(task, output.c_str(), 0, 0, nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Input(task, qtest::VideoAudioClip("mkv").c_str(), nullptr, nullptr));
  EXPECT_FALSE(Running(task)) << "not running before Start";
  ASSERT_TRUE(AVFormat_Convert_Suspend(task, true));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(Running(task)) << "a paused task still runs";
  EXPECT_EQ(log.Count(), 0u) << "a paused worker moves no packet";

  ASSERT_TRUE(AVFormat_Convert_Seek(task, 1));  // whole seconds, any frame
  ASSERT_TRUE(AVFormat_Convert_Suspend(task, false));
  EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }, kTimeout));
  EXPECT_FALSE(Running(task)) << "the input ended without Stop";
  AVFormat_Convert_Stop(task);

  const auto calls = log.Calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_GE(calls.front().seconds, 0.9) << "the worker started where Seek put the input";
  EXPECT_EQ(qtest::ProbePackets(output).size(), calls.size());
}

// Stop releases the task at every stage; where a header was written, the
// output gets its trailer and is a valid file.
TEST(ConvertControl, StopIsSafeAtEveryStage) {
  const std::string clip = qtest::VideoAudioClip("mkv");
  enum Stage { kInit, kFailedOutput, kOutput, kFailedInput, kInput, kRunning, kPaused, kFinished };
  for (Stage stage : {kInit, kFailedOutput, kOutput, kFailedInput, kInput, kRunning, kPaused, kFinished}) {
    SCOPED_TRACE(stage);
    const std::string output = qtest::TempPath("stop" + std::to_string(stage) + ".mkv");
    qtest::ProgressLog log;
    void* task = AVFormat_Convert_Init(qtest::ProgressLog::Record, &log);
    if (stage == kFailedOutput) {
      EXPECT_FALSE(AVFormat_Convert_Output(task, "/nonexistent/x.mkv", 0, 0, nullptr, nullptr));
    }
    if (stage >= kOutput) {
      ASSERT_TRUE(AVFormat_Convert_Output(task, output.c_str(), 0, 0, nullptr, nullptr));
    }
    if (stage == kFailedInput) {
      EXPECT_FALSE(AVFormat_Convert_Input(task, "/nonexistent/x.mkv", nullptr, nullptr));
    }
    if (stage >= kInput) {
      ASSERT_TRUE(AVFormat_Convert_Input(task, clip.c_str(), nullptr, nullptr));
    }
    if (stage == kPaused) AVFormat_Convert_Suspend(task, true);
    if (stage >= kRunning) {
      ASSERT_TRUE(AVFormat_Convert_Start(task));
    }
    if (stage == kFinished) {
      EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }, kTimeout));
    }
    EXPECT_TRUE(AVFormat_Convert_Stop(task));
    EXPECT_FALSE(AVForamt_IsErrorOccur);
    if (stage >= kRunning) {
      const auto packets = qtest::ProbePackets(output);
      EXPECT_EQ(packets.size(), log.Count()) << "every reported packet is in a valid file";
      if (stage == kFinished) {
        EXPECT_EQ(packets.size(), qtest::ProbePackets(clip).size());
      }
    }
  }
}

// A network input that goes silent leaves the worker blocked in a read; Stop
// must still end the task, through the input's interrupt callback.
TEST(ConvertControl, StopEndsAReadThatBlocksOnTheNetwork) {
  std::vector<uint8_t> bytes = qtest::ReadFile(qtest::VideoAudioClip("mkv"));
  bytes.resize(bytes.size() * 2 / 3);
  qtest::SilentServer server(bytes);
  qtest::ProgressLog log;
  void* task = AVFormat_Convert_Init(qtest::ProgressLog::Record, &log);
  const std::string output = qtest::TempPath("network.mkv");
  ASSERT_TRUE(AVFormat_Convert_Output(task, output.c_str(), 0, 0, nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Input(task, server.Url().c_str(), nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  // Wait until the worker has taken what was sent and blocks for more.
  size_t seen = 0;
  EXPECT_TRUE(qtest::WaitUntil([&] {
    const size_t now = log.Count();
    const bool settled = now > 0 && now == seen;
    seen = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return settled;
  }));
  EXPECT_TRUE(Running(task));

  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(AVFormat_Convert_Stop(task));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  EXPECT_EQ(qtest::ProbePackets(output).size(), log.Count()) << "the trailer was written";
}

}  // namespace
