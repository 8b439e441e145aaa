// Conversion: remuxing between containers, cuts, made-up timestamps, the
// caller I/O bridge, stream selection, Seek and the family's own refusals.
#include <gtest/gtest.h>

#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using namespace qtest;

bool Running(void* task) {
  bool running = false;
  return AVFormat_Convert_GetStatus(task, &running) && running;
}

void Finish(void* task) {
  EXPECT_TRUE(WaitUntil([&] { return !Running(task); }));
  EXPECT_TRUE(AVFormat_Convert_Stop(task));
}

// Converts `input` (or the reader's bytes) into `output` (or, with a writer, that format) to its end.
void Convert(ProgressLog& log, const std::string& input, const std::string& output, double start = 0, double end = 0,
             MemoryReader* reader = nullptr, MemoryWriter* writer = nullptr) {
  void* task = AVFormat_Convert_Init(ProgressLog::Record, &log);
  ASSERT_TRUE(
      AVFormat_Convert_Output(task, output.c_str(), start, end, writer ? MemoryWriter::Write : nullptr, writer));
  ASSERT_TRUE(
      AVFormat_Convert_Input(task, reader ? nullptr : input.c_str(), reader ? MemoryReader::Read : nullptr, reader));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  Finish(task);
}

// Every packet of both streams arrives, with the same bytes and times where
// the output container keeps the bitstream as it is; one progress call each.
TEST(ConvertRemux, KeepsEveryPacketBetweenContainersAndThroughCallerFunctions) {
  struct Case {
    std::string from, to;
    bool exact, bridged;  // MPEG-TS adds ADTS headers to AAC and its own start delay
  };
  for (const Case& c :
       {Case{"mkv", "mp4", true, false}, Case{"mp4", "mkv", true, false}, Case{"mkv", "nut", true, false},
        Case{"mp4", "ts", false, false}, Case{"mkv", "mkv", true, true}}) {
    SCOPED_TRACE(c.from + " -> " + c.to + (c.bridged ? " through caller functions" : ""));
    const std::string input = VideoAudioClip(c.from), output = TempPath("remux_" + c.from + "." + c.to);
    MemoryReader reader(ReadFile(input));
    MemoryWriter writer;
    ProgressLog log;
    Convert(log, input, c.bridged ? "matroska" : output, 0, 0, c.bridged ? &reader : nullptr,
            c.bridged ? &writer : nullptr);
    if (c.bridged) WriteFile(output, writer.data);
    const auto in = ProbePackets(input), out = ProbePackets(output);
    const auto in_streams = ProbeStreams(input), out_streams = ProbeStreams(output);
    ASSERT_EQ(out_streams.size(), 2u);
    for (int s = 0; s < 2; ++s) {
      EXPECT_EQ(out_streams[s].codec_type, in_streams[s].codec_type);
      const auto a = OfStream(in, s), b = OfStream(out, s);
      ASSERT_EQ(a.size(), b.size()) << "stream " << s;
      // A muxer may shift a whole stream (to avoid negative times): times count from its first packet.
      const double from = av_q2d(in_streams[s].time_base), to = av_q2d(out_streams[s].time_base);
      for (size_t i = 0; c.exact && i < a.size(); ++i) {
        EXPECT_EQ(b[i].hash, a[i].hash) << "stream " << s << " packet " << i;
        EXPECT_NEAR((b[i].pts - b[0].pts) * to, (a[i].pts - a[0].pts) * from, to + 1e-9) << s << " " << i;
      }
    }
    EXPECT_EQ(log.Count(), in.size());
  }
}

// 100 video packets 0.04 s apart (pts 0..99 in 1/25) into Matroska's milliseconds.
TEST(ConvertCut, StartDropsEarlyPacketsAndEndStopsOnlyOnAnExactMatch) {
  WriteSynthetic(TempPath("hundred.nut"), "nut", {SyntheticStream{}});
  struct Case {
    double start, end;
    int64_t first_ms, last_ms;  // written
    size_t reported;            // every packet handled, written or not
  };
  for (const Case& c : {Case{1.0, 2.0, 1000, 2000, 51}, Case{1.0, 2.01, 1000, 3960, 100}, Case{0, 0, 0, 3960, 100},
                        Case{-1.0, 0.4, 0, 400, 11}, Case{3.0, -2.0, 3000, 3960, 100}}) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " end " << c.end);
    ProgressLog log;
    Convert(log, TempPath("hundred.nut"), TempPath("cut.mkv"), c.start, c.end);
    const auto packets = ProbePackets(TempPath("cut.mkv"));
    ASSERT_EQ(packets.size(), static_cast<size_t>((c.last_ms - c.first_ms) / 40 + 1));
    EXPECT_EQ(packets.front().pts, c.first_ms);
    EXPECT_EQ(packets.back().pts, c.last_ms);
    const auto calls = log.Calls();
    ASSERT_EQ(calls.size(), c.reported);
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].reserved, nullptr);
      EXPECT_EQ(calls[i].type, AVMEDIA_TYPE_VIDEO);
      EXPECT_EQ(calls[i].number, static_cast<long long>(i));
      EXPECT_DOUBLE_EQ(calls[i].seconds, 0.04 * i);
    }
  }
}

// A raw H.264 stream has no timestamps: they are made from the task's packet
// counter and the stream's frame rate (as the linked FFmpeg states it), then
// rescaled to the output.
TEST(ConvertTimestamps, RawH264GetsCounterBasedTimes) {
  ProgressLog log;
  Convert(log, RawH264Clip(), TempPath("raw.mkv"));
  const auto packets = ProbePackets(TempPath("raw.mkv"));
  ASSERT_EQ(packets.size(), 25u);
  for (size_t n = 0; n < packets.size(); ++n)
    EXPECT_EQ(packets[n].pts, static_cast<int64_t>(n) * RawH264FrameMs()) << n;
}

// With both a url and a read function the url must open, and then the bridge replaces it.
TEST(ConvertBridge, UrlIsOpenedFirstThenReplacedByTheReadFunction) {
  MemoryReader reader(ReadFile(VideoOnlyClip("mkv")));
  void* task = AVFormat_Convert_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_Convert_Output(task, TempPath("replaced.mkv").c_str(), 0, 0, nullptr, nullptr));
  EXPECT_FALSE(AVFormat_Convert_Input(task, "/nonexistent/input.mkv", MemoryReader::Read, &reader));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_CONVERT_OPEN}));
  EXPECT_EQ(reader.calls, 0);
  ASSERT_TRUE(AVFormat_Convert_Input(task, VideoAudioClip("mkv").c_str(), MemoryReader::Read, &reader));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  Finish(task);
  EXPECT_EQ(ProbeStreams(TempPath("replaced.mkv")).size(), 1u) << "the read function's streams: video only";
}

// Streams other than video, audio and subtitles are dropped, and output
// streams are found by the input stream's index: a kept stream after a
// dropped one has no output stream of its index and loses its packets.
// Progress reports each packet's media type, whatever its stream.
TEST(ConvertStreams, DataStreamsAreDroppedAndLaterStreamsLoseTheirIndex) {
  const SyntheticStream video, audio{AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 25}, 50},
      data{AVMEDIA_TYPE_DATA, AV_CODEC_ID_NONE, {1, 25}, 10, 0, 1, 64, {25, 1}, MKTAG('D', 'A', 'T', 'A')};
  struct Case {
    std::vector<SyntheticStream> layout;
    std::string types;
    size_t audio_packets;
  };
  for (const Case& c : {Case{{video, data, audio}, "videoaudio", 0}, Case{{video, audio, data}, "videoaudio", 50},
                        Case{{audio, video}, "audiovideo", 50}}) {
    SCOPED_TRACE(c.types + std::to_string(c.audio_packets));
    WriteSynthetic(TempPath("layout.nut"), "nut", c.layout);
    ProgressLog log;
    Convert(log, TempPath("layout.nut"), TempPath("layout.mkv"));
    const auto streams = ProbeStreams(TempPath("layout.mkv"));
    const auto packets = ProbePackets(TempPath("layout.mkv"));
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0].codec_type + streams[1].codec_type, c.types);
    const int audio_stream = c.types[0] == 'a' ? 0 : 1;
    EXPECT_EQ(OfStream(packets, 1 - audio_stream).size(), 100u);
    EXPECT_EQ(OfStream(packets, audio_stream).size(), c.audio_packets);
    const auto calls = log.Calls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](auto& call) { return call.type == AVMEDIA_TYPE_AUDIO; }),
              static_cast<long>(c.audio_packets));
  }
}

// Seek takes whole seconds and lands on any frame, key frame or not (MP4
// honours that); here on a task that Start left paused, before any packet moved.
TEST(ConvertSeek, APausedTaskGoesOnFromTheWholeSecondAsked) {
  ProgressLog log;
  void* task = AVFormat_Convert_Init(ProgressLog::Record, &log);
  ASSERT_TRUE(AVFormat_Convert_Output(task, TempPath("seek.mkv").c_str(), 0, 0, nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Input(task, VideoAudioClip("mp4").c_str(), nullptr, nullptr));
  ASSERT_TRUE(AVFormat_Convert_Suspend(task, true));
  ASSERT_TRUE(AVFormat_Convert_Start(task));
  ASSERT_TRUE(AVFormat_Convert_Seek(task, 1));
  ASSERT_TRUE(AVFormat_Convert_Suspend(task, false));
  Finish(task);
  const auto calls = log.Calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_NEAR(calls.front().seconds, 1.0, 0.03);
  EXPECT_EQ(ProbePackets(TempPath("seek.mkv")).size(), calls.size());
}

// The family's own refusals: each row's calls all succeed on a fresh task but
// the last, which fails with the code.
TEST(ConvertErrors, EachRefusalReportsItsCode) {
  using Call = std::function<bool(void*)>;
  MemoryWriter writer;
  const auto output = [&](std::string url) -> Call {  // without a '/': a format for a write function
    const bool bridged = url.find('/') == std::string::npos;
    return [&, url, bridged](void* t) {
      return AVFormat_Convert_Output(t, url.c_str(), 0, 0, bridged ? MemoryWriter::Write : nullptr, &writer);
    };
  };
  const Call out = output(TempPath("errors.mkv")), start = AVFormat_Convert_Start;
  const Call input = [](void* t) { return AVFormat_Convert_Input(t, VideoOnlyClip("mkv").c_str(), nullptr, nullptr); };
  const Call held = [](void* t) { return AVFormat_Convert_Suspend(t, true) && AVFormat_Convert_Start(t); };
  const auto seek = [](long long s) { return [s](void* t) { return AVFormat_Convert_Seek(t, s); }; };
  const std::pair<std::vector<Call>, uint64_t> rows[] = {
      {{input}, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {{out, [](void* t) { return AVFormat_Convert_Input(t, 0, 0, 0); }}, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {{out, start}, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {{[](void* t) { return AVFormat_Convert_GetStatus(t, nullptr); }}, ERROR_AVFORMAT_CONVERT_STATUS},
      {{out, seek(1)}, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {{out, input, seek(100)}, ERROR_AVFORMAT_CONVERT_SEEK},
      {{output(TempPath("video.wav")), input, start}, ERROR_AVFORMAT_CONVERT_WRITEHEADER},
      {{output("mp4"), input, start}, ERROR_AVFORMAT_CONVERT_WRITEHEADER},  // can't seek back in a write function
      {{out, input, held, start}, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {{out, input, held, out}, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {{out, input, held, input}, ERROR_AVFORMAT_CONVERT_PARAMETER},
  };
  for (size_t row = 0; row < std::size(rows); ++row) {
    SCOPED_TRACE(row);
    const auto& [calls, code] = rows[row];
    void* task = AVFormat_Convert_Init(nullptr, nullptr);
    for (size_t i = 0; i + 1 < calls.size(); ++i) ASSERT_TRUE(calls[i](task));
    EXPECT_FALSE(calls.back()(task));
    EXPECT_EQ(LastError(), (ErrorState{true, code})) << ToString(LastError());
    AVFormat_Convert_Stop(task);
  }
}

}  // namespace
