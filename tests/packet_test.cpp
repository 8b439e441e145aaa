// Multiplexing: input files interleaved by the worker, caller-fed streams,
// control and errors. Outputs are read back with ffprobe or FFmpeg's framecrc muxer.
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>

#include "Quorvel_AVFormat.h"
#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using qtest::OfStream;
using qtest::ProbePacket;
using qtest::ProgressLog;
using qtest::SyntheticStream;

const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

constexpr SyntheticStream kVideo{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, {1, 25}, 100, 0, 1, 64, {25, 1}};
constexpr SyntheticStream kAudio{AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 48000}, 200, 0, 1024, 2048, {0, 1}};

// A synthetic file, made once per process.
std::string Synthetic(const std::string& name, const std::vector<SyntheticStream>& streams) {
  const std::string path = qtest::TempPath(name);
  if (qtest::ReadFile(path).empty()) qtest::WriteSynthetic(path, "nut", streams);
  return path;
}
std::string VideoFile() {
  return Synthetic("video100.nut", {kVideo});
}
std::string AudioFile() {
  return Synthetic("audio200.nut", {kAudio});
}
SyntheticStream With(SyntheticStream stream, AVCodecID codec, int count) {
  stream.codec = codec;
  stream.count = count;
  return stream;
}

struct ParametersFree {
  void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};
using Parameters = std::unique_ptr<AVCodecParameters, ParametersFree>;
Parameters MakeParameters(AVMediaType type, int width = 160) {
  Parameters parameters(avcodec_parameters_alloc());
  parameters->codec_type = type;
  parameters->codec_id = type == AVMEDIA_TYPE_VIDEO ? AV_CODEC_ID_MPEG4 : AV_CODEC_ID_PCM_S16LE;
  parameters->width = width;
  parameters->height = 120;
  parameters->sample_rate = 48000;
  av_channel_layout_default(&parameters->ch_layout, 1);
  return parameters;
}
bool Create(void* task, AVMediaType type, int width = 160) {
  return AVFormat_Packet_StreamCreate(task, MakeParameters(type, width).get());
}

bool Running(void* task) {
  bool running = false;
  return AVFormat_Packet_GetStatus(task, &running) && running;
}

void* MakeTask(const std::string& output, const std::vector<std::string>& inputs, void* log, double start = 0,
               double end = 0, AVFORMAT_PROGRESS_CALLBACK progress = ProgressLog::Record) {
  void* task = AVFormat_Packet_Init(progress, log);
  EXPECT_TRUE(AVFormat_Packet_Output(task, output.c_str(), start, end, nullptr, nullptr)) << output;
  for (const std::string& input : inputs) EXPECT_TRUE(AVFormat_Packet_Input(task, input.c_str(), nullptr, nullptr));
  return task;
}

void RunToEnd(void* task) {
  ASSERT_TRUE(AVFormat_Packet_Start(task)) << qtest::ToString(qtest::LastError());
  EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }));
  EXPECT_TRUE(AVFormat_Packet_Stop(task));
}

std::vector<ProbePacket> Mux(const std::string& output, const std::vector<std::string>& inputs, ProgressLog* log,
                             double start = 0, double end = 0) {
  RunToEnd(MakeTask(output, inputs, log, start, end));
  return qtest::ProbePackets(output);
}

// The packets `out` are the first packets of stream `stream` of `input`: same
// data, times rescaled to `out_base` but not shifted.
void ExpectCarried(const std::string& input, int stream, const std::vector<ProbePacket>& out, AVRational out_base) {
  const std::vector<ProbePacket> in = OfStream(qtest::ProbePackets(input), stream);
  const AVRational in_base = qtest::ProbeStreams(input)[stream].time_base;
  ASSERT_LE(out.size(), in.size());
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(out[i].hash, in[i].hash) << i;
    EXPECT_EQ(out[i].pts, av_rescale_q(in[i].pts, in_base, out_base)) << i;
    EXPECT_EQ(out[i].dts, av_rescale_q(in[i].dts, in_base, out_base)) << i;
  }
}

// 100 video and 200 audio packets: the run ends at the first failed read, so
// the input that runs out first decides how many packets of the other go out.
TEST(PacketMux, FilesInterleaveUntilTheFirstInputRunsOut) {
  struct Case {
    const char* output;
    std::string first, second;
    size_t first_count, second_count;
  };
  for (const Case& c :
       {Case{"va.mkv", VideoFile(), AudioFile(), 100, 100}, Case{"av.mkv", AudioFile(), VideoFile(), 101, 100},
        Case{"va.mp4", qtest::VideoOnlyClip("mkv"), qtest::AudioOnlyClip("mkv"), 50, 50}}) {
    SCOPED_TRACE(c.output);
    ProgressLog log;
    const std::string output = qtest::TempPath(c.output);
    const std::vector<ProbePacket> packets = Mux(output, {c.first, c.second}, &log);
    const std::vector<qtest::ProbeStream> streams = qtest::ProbeStreams(output);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0].codec_type, qtest::ProbeStreams(c.first)[0].codec_type);
    ASSERT_EQ(OfStream(packets, 0).size(), c.first_count);
    ASSERT_EQ(OfStream(packets, 1).size(), c.second_count);
    ExpectCarried(c.first, 0, OfStream(packets, 0), streams[0].time_base);
    ExpectCarried(c.second, 0, OfStream(packets, 1), streams[1].time_base);
    for (size_t i = 1; i < packets.size(); ++i)  // interleaved by time
      EXPECT_LE(av_compare_ts(packets[i - 1].dts, streams[packets[i - 1].stream].time_base, packets[i].dts,
                              streams[packets[i].stream].time_base),
                0);

    // One packet of each input in turn, reported with its input's mapped type and count.
    const auto calls = log.Calls();
    ASSERT_EQ(calls.size(), c.first_count + c.second_count);
    const int first_type = streams[0].codec_type == "video" ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    for (size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].type, i % 2 == 0 ? first_type : 1 - first_type) << i;
      EXPECT_EQ(calls[i].number, static_cast<long long>(i / 2)) << i;
      EXPECT_EQ(calls[i].reserved, nullptr);
    }
    EXPECT_DOUBLE_EQ(calls[first_type == AVMEDIA_TYPE_VIDEO ? 50 : 51].seconds, 1.0);  // video packet 25
  }
}

// Each input has one mapping, its last video or audio stream that is not a
// still picture; every packet of the input goes to that stream's output stream.
TEST(PacketMux, EachInputCarriesAllItsPacketsInItsLastMappedStream) {
  const SyntheticStream video{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, {1, 48000}, 10, 0, 1920, 64, {25, 1}};
  const SyntheticStream audio = With(kAudio, AV_CODEC_ID_PCM_S16LE, 20);
  struct Case {
    std::string input;
    std::vector<std::string> streams;  // of the output
    int carried;                       // packets in its last stream; -1: not checked
    int type;                          // reported media type
  };
  const Case cases[] = {
      {Synthetic("va.nut", {video, audio}), {"video", "audio"}, 30, AVMEDIA_TYPE_AUDIO},
      {Synthetic("av.nut", {audio, video}), {"audio", "video"}, 30, AVMEDIA_TYPE_VIDEO},
      {Synthetic("mjpeg.nut", {With(kVideo, AV_CODEC_ID_MJPEG, 1), audio}), {"audio"}, 21, AVMEDIA_TYPE_AUDIO},
      {Synthetic("j2k.nut", {With(kVideo, AV_CODEC_ID_JPEG2000, 1), audio}), {"audio"}, 21, AVMEDIA_TYPE_AUDIO},
      {Synthetic("png.nut", {With(kVideo, AV_CODEC_ID_PNG, 1), audio}), {"video", "audio"}, 21, AVMEDIA_TYPE_AUDIO},
      {qtest::Clip("cover.mp4",
                   "-f lavfi -i sine=d=1 -f lavfi -i color=s=32x32:d=1 -map 0 -map 1 -frames:v 1 "
                   "-c:a aac -c:v mjpeg -disposition:v attached_pic"),
       {"audio"},
       -1,
       AVMEDIA_TYPE_AUDIO},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    ProgressLog log;
    const std::string output = qtest::TempPath("mapped.mkv");
    const std::vector<ProbePacket> packets = Mux(output, {c.input}, &log);
    std::vector<std::string> types;
    for (const qtest::ProbeStream& stream : qtest::ProbeStreams(output)) types.push_back(stream.codec_type);
    EXPECT_EQ(types, c.streams);
    if (c.carried >= 0) {
      EXPECT_EQ(OfStream(packets, static_cast<int>(types.size()) - 1).size(), size_t(c.carried));
      EXPECT_EQ(packets.size(), log.Count()) << "earlier streams stay empty";
    }
    for (const auto& call : log.Calls()) EXPECT_EQ(call.type, c.type);
  }
}

// Before the start time packets are reported but not written; the end time
// ends the run only on a packet exactly at it (video at 1/25 s per packet).
TEST(PacketMux, StartAndEndTimes) {
  struct Case {
    double start, end;
    int64_t first_ms;
    size_t written, reported;
  };
  for (const Case& c : {Case{0, 0, 0, 100, 100}, Case{2.0, 0, 2000, 50, 100}, Case{0, 3.0, 0, 76, 76},
                        Case{0, 3.01, 0, 100, 100}, Case{1.0, 3.0, 1000, 51, 76}}) {
    SCOPED_TRACE(testing::Message() << c.start << " to " << c.end);
    ProgressLog log;
    const std::vector<ProbePacket> packets = Mux(qtest::TempPath("cut.mkv"), {VideoFile()}, &log, c.start, c.end);
    ASSERT_EQ(packets.size(), c.written);
    EXPECT_EQ(packets.front().pts, c.first_ms);
    ASSERT_EQ(log.Count(), c.reported);
    EXPECT_EQ(log.Calls().back().number, static_cast<long long>(c.reported - 1));
  }
}

// Raw H.264 has no timestamps: they are made from the frame rate and the input's packet count.
TEST(PacketMux, PacketsWithoutTimestampsGetThemFromTheFrameRate) {
  AVFormatContext* input = nullptr;
  ASSERT_GE(avformat_open_input(&input, qtest::RawH264Clip().c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(input, nullptr), 0);
  const int64_t frame_ms = av_rescale_q(1, av_inv_q(input->streams[0]->r_frame_rate), {1, 1000});
  avformat_close_input(&input);
  ProgressLog log;
  const std::vector<ProbePacket> packets = Mux(qtest::TempPath("raw.mkv"), {qtest::RawH264Clip()}, &log);
  ASSERT_EQ(packets.size(), 25u);
  for (size_t i = 0; i < packets.size(); ++i) EXPECT_EQ(packets[i].pts, static_cast<int64_t>(i) * frame_ms) << i;
}

// Inputs and output through caller functions; with both a url and a read
// function the read function's bytes are the input.
TEST(PacketMux, BridgedInputsAndOutput) {
  for (const bool with_url : {false, true}) {
    qtest::MemoryReader video(qtest::ReadFile(VideoFile())), audio(qtest::ReadFile(AudioFile()));
    qtest::MemoryWriter writer;
    ProgressLog log;
    void* task = AVFormat_Packet_Init(ProgressLog::Record, &log);
    ASSERT_TRUE(AVFormat_Packet_Output(task, "matroska", 0, 0, qtest::MemoryWriter::Write, &writer));
    // The urls name the other file.
    EXPECT_TRUE(
        AVFormat_Packet_Input(task, with_url ? AudioFile().c_str() : nullptr, qtest::MemoryReader::Read, &video));
    EXPECT_TRUE(
        AVFormat_Packet_Input(task, with_url ? VideoFile().c_str() : nullptr, qtest::MemoryReader::Read, &audio));
    AVFormat_Packet_Suspend(task, true);  // cleared by Start
    RunToEnd(task);
    const std::string output = qtest::TempPath("bridged.mkv");
    qtest::WriteFile(output, writer.data);
    const std::vector<ProbePacket> packets = qtest::ProbePackets(output);
    ASSERT_EQ(qtest::ProbeStreams(output).size(), 2u);
    EXPECT_EQ(qtest::ProbeStreams(output)[0].codec_type, "video");
    EXPECT_EQ(OfStream(packets, 0).size(), 100u);
    EXPECT_EQ(OfStream(packets, 1).size(), 100u);
    ExpectCarried(AudioFile(), 0, OfStream(packets, 1), qtest::ProbeStreams(output)[1].time_base);
  }
}

// The caller-fed route: one stream per input stream, then every packet, as
// `read` hands them out; the file that comes out holds the input's packets.
using Reader = std::function<bool(int*, uint8_t*, int*, AVCODEC_PACKETINFO*, AVCODEC_TIMEBASE*)>;
void ExpectRebuilt(const std::string& input, const std::function<bool(void*, int)>& create, const Reader& read) {
  const std::string output = qtest::TempPath("rebuilt.mkv");
  const size_t count = qtest::ProbeStreams(input).size();
  void* task = AVFormat_Packet_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_Packet_Output(task, output.c_str(), 0, 0, nullptr, nullptr));
  for (size_t s = 0; s < count; ++s) ASSERT_TRUE(create(task, static_cast<int>(s))) << s;
  std::vector<uint8_t> data(1 << 20);
  int stream = -1, size = 0;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  while (read(&stream, data.data(), &size, &info, &time_base))
    ASSERT_TRUE(AVFormat_Packet_StreamWrite(task, stream, data.data(), size, &time_base, &info));
  EXPECT_TRUE(AVFormat_Packet_Stop(task));

  const std::vector<ProbePacket> packets = qtest::ProbePackets(output);
  EXPECT_EQ(packets.size(), qtest::ProbePackets(input).size());
  for (size_t s = 0; s < count; ++s)
    ExpectCarried(input, static_cast<int>(s), OfStream(packets, static_cast<int>(s)),
                  qtest::ProbeStreams(output)[s].time_base);
}

TEST(PacketStream, RebuildsAFileReadThroughTheDemultiplexingFamily) {
  void* unpack = AVFormat_UNPack_Init(nullptr, nullptr);
  ASSERT_NE(unpack, nullptr);
  const std::string input = qtest::VideoAudioClip("mkv");
  ASSERT_TRUE(AVFormat_UNPack_Input(unpack, input.c_str(), nullptr, nullptr));
  const auto create = [&](void* task, int stream) {
    void* parameters = nullptr;
    const bool created = AVFormat_UNPack_GetAVCodec(unpack, stream, &parameters, nullptr) &&
                         AVFormat_Packet_StreamCreate(task, parameters);
    std::free(parameters);  // a shallow copy: its extradata stays the demuxer's
    return created;
  };
  ExpectRebuilt(input, create,
                [&](int* stream, uint8_t* data, int* size, AVCODEC_PACKETINFO* info, AVCODEC_TIMEBASE* time_base) {
                  return AVFormat_UNPack_Read(unpack, stream, data, size, info, time_base);
                });
  EXPECT_EQ(qtest::LastError().code, uint64_t{ERROR_AVFORMAT_PACKET_READ}) << "read to the end";
  EXPECT_TRUE(AVFormat_UNPack_Stop(unpack));
}

TEST(PacketStream, RebuildsAFileFromPacketsOfLibavformat) {
  const std::string input = qtest::VideoAudioClip("mkv");
  AVFormatContext* demuxer = nullptr;
  ASSERT_GE(avformat_open_input(&demuxer, input.c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(demuxer, nullptr), 0);
  AVPacket* packet = av_packet_alloc();
  const auto create = [&](void* task, int s) {
    return AVFormat_Packet_StreamCreate(task, demuxer->streams[s]->codecpar);
  };
  ExpectRebuilt(input, create,
                [&](int* stream, uint8_t* data, int* size, AVCODEC_PACKETINFO* info, AVCODEC_TIMEBASE* time_base) {
                  av_packet_unref(packet);
                  if (av_read_frame(demuxer, packet) < 0) return false;
                  *stream = packet->stream_index;
                  *size = packet->size;
                  std::memcpy(data, packet->data, packet->size);
                  *info = AVCODEC_PACKETINFO{packet->pts, packet->dts, packet->duration};
                  const AVRational base = demuxer->streams[*stream]->time_base;
                  *time_base = AVCODEC_TIMEBASE{base.num, base.den};
                  return true;
                });
  av_packet_free(&packet);
  avformat_close_input(&demuxer);
}

// A packet of the task's video stream lasts 1/den of the caller's time base in
// whole microseconds; other streams keep the caller's duration, rescaled. With
// no video stream created, stream 0 counts as the video stream. framecrc lists
// the durations in its time bases: 1/90000 for video, the sample rate for audio.
TEST(PacketStream, VideoDurationFollowsTheTimeBaseDenominator) {
  struct Case {
    bool with_video;
    int stream;
    AVCODEC_TIMEBASE time_base;
    bool with_info;
    long long duration;
  };
  const Case cases[] = {
      {true, 0, {1, 25}, true, 3600},    // 40000 us
      {true, 0, {1, 90000}, true, 1},    // 11 us
      {true, 0, {1, 1000}, true, 90},    // 1000 us
      {true, 0, {1, 25}, false, 3600},   // without packet info too
      {true, 1, {1, 48000}, true, 512},  // audio: the caller's duration
      {false, 0, {1, 25}, true, 1920},   // audio as stream 0: 40000 us
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.with_video << " stream " << c.stream << " 1/" << c.time_base.den);
    qtest::MemoryWriter writer;
    void* task = AVFormat_Packet_Init(nullptr, nullptr);
    ASSERT_TRUE(AVFormat_Packet_Output(task, "framecrc", 0, 0, qtest::MemoryWriter::Write, &writer));
    EXPECT_TRUE(!c.with_video || Create(task, AVMEDIA_TYPE_VIDEO));
    EXPECT_TRUE(Create(task, AVMEDIA_TYPE_AUDIO));
    const uint8_t data[16] = {1, 2, 3};
    AVCODEC_TIMEBASE time_base = c.time_base;
    AVCODEC_PACKETINFO info{0, 0, 512};
    EXPECT_TRUE(AVFormat_Packet_StreamWrite(task, c.stream, data, 16, &time_base, c.with_info ? &info : nullptr));
    EXPECT_TRUE(AVFormat_Packet_Stop(task));
    // The last line: "stream, dts, pts, duration, size, checksum".
    const std::string text(writer.data.begin(), writer.data.end());
    long long stream = -1, dts, pts, duration = -1;
    std::sscanf(text.c_str() + text.rfind('\n', text.size() - 2) + 1, "%lld, %lld, %lld, %lld", &stream, &dts, &pts,
                &duration);
    EXPECT_EQ(stream, c.stream);
    EXPECT_EQ(duration, c.duration);
  }
}

// Holds the worker inside its first progress call until released, or until
// the task stops running when `until_stopped` is set.
struct Gate {
  void* task = nullptr;
  bool until_stopped = false;
  std::atomic<bool> held{false}, released{false};
  ProgressLog log;
  static void Hold(void* reserved, int type, long long number, double seconds, void* context) {
    auto* gate = static_cast<Gate*>(context);
    ProgressLog::Record(reserved, type, number, seconds, &gate->log);
    gate->held = true;
    while (!gate->released && !(gate->until_stopped && !Running(gate->task)))
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  void* Start(void* set_up) {
    task = set_up;
    EXPECT_TRUE(AVFormat_Packet_Start(task));
    EXPECT_TRUE(qtest::WaitUntil([&] { return held.load(); }));
    return task;
  }
};

// Each row: the task's stage, then the call that must fail (a null task for kNone).
TEST(PacketErrors, EveryCallerReachableCode) {
  enum Stage { kNone, kInit, kOutput, kInput, kStream, kBadStream, kStarted, kWritten };
  const std::string file = qtest::TempPath("errors.mkv");
  AVCODEC_TIMEBASE time_base{1, 25};
  AVCODEC_PACKETINFO info{0, 0, 1};
  const uint8_t data[8] = {};
  bool status = false;
  qtest::MemoryReader empty(std::vector<uint8_t>{});
  qtest::MemoryWriter writer;
  const auto output = [&](void* t) { return AVFormat_Packet_Output(t, file.c_str(), 0, 0, nullptr, nullptr); };
  const auto bridged = [&](void* t) {
    return AVFormat_Packet_Output(t, "matroska", 0, 0, qtest::MemoryWriter::Write, &writer);
  };
  const auto input = [&](void* t) { return AVFormat_Packet_Input(t, VideoFile().c_str(), nullptr, nullptr); };
  const auto read = [&](void* t) { return AVFormat_Packet_Input(t, nullptr, qtest::MemoryReader::Read, &empty); };
  const auto write = [&](void* t) { return AVFormat_Packet_StreamWrite(t, 0, data, 8, &time_base, &info); };
  const auto StreamWriteAt = [&](void* t, int64_t ticks) {
    AVCODEC_PACKETINFO at{ticks, ticks, 1};
    return AVFormat_Packet_StreamWrite(t, 0, data, 8, &time_base, &at);
  };
  const auto scarce = [](const std::function<bool()>& call) {  // allocations above 1 MiB fail
    av_max_alloc(1 << 20);
    const bool result = call();
    av_max_alloc(INT_MAX);
    return result;
  };
  Parameters big = MakeParameters(AVMEDIA_TYPE_VIDEO);
  big->extradata = static_cast<uint8_t*>(av_mallocz(2 << 20));
  big->extradata_size = 2 << 20;
  struct Case {
    const char* name;
    Stage stage;
    std::function<bool(void*)> call;
    uint64_t code;
  };
  const uint64_t kParameter = ERROR_AVFORMAT_PACKET_PARAMETER, kOpen = ERROR_AVFORMAT_PACKET_OPEN,
                 kMalloc = ERROR_AVFORMAT_PACKET_MALLOC, kFormat = ERROR_AVFORMAT_PACKET_OUTPUTFORMAT,
                 kHeader = ERROR_AVFORMAT_PACKET_WRITEHEADER, kFrame = ERROR_AVFORMAT_PACKET_WRITEFRAME;
  // clang-format off
  const Case cases[] = {
      {"Output", kNone, output, kParameter},
      {"Output: unknown format", kInit, [](void* t) { return AVFormat_Packet_Output(t, "x.nosuch", 0, 0, nullptr, nullptr); }, kFormat},
      {"Output: bridge given a file name", kInit, [&](void* t) { return AVFormat_Packet_Output(t, "x.mkv", 0, 0, qtest::MemoryWriter::Write, &writer); }, kFormat},
      {"Output: can't open", kInit, [](void* t) { return AVFormat_Packet_Output(t, "/nonexistent/x.mkv", 0, 0, nullptr, nullptr); }, kOpen},
      {"Output: no memory", kInit, [&](void* t) { return scarce([&] { return bridged(t); }); }, kMalloc},
      {"Output: after Start", kStarted, output, kParameter},
      {"Input", kNone, input, kParameter},
      {"Input: before Output", kInit, input, kParameter},
      {"Input: nothing to open", kOutput, [](void* t) { return AVFormat_Packet_Input(t, nullptr, nullptr, nullptr); }, kParameter},
      {"Input: missing file", kOutput, [](void* t) { return AVFormat_Packet_Input(t, "/nonexistent.mkv", nullptr, nullptr); }, kOpen},
      {"Input: read function delivers nothing", kOutput, read, kOpen},
      {"Input: no memory", kOutput, [&](void* t) { return scarce([&] { return read(t); }); }, kMalloc},
      {"Input: after Start", kStarted, input, kParameter},
      {"Start", kNone, AVFormat_Packet_Start, kParameter},
      {"Start: before Output", kInit, AVFormat_Packet_Start, kParameter},
      {"Start: no input", kStream, AVFormat_Packet_Start, kParameter},
      {"Start: header refused", kBadStream, [&](void* t) { return input(t) && AVFormat_Packet_Start(t); }, kHeader},
      {"Start: twice", kStarted, AVFormat_Packet_Start, kParameter},
      {"Start: after StreamWrite", kInput, [&](void* t) { return write(t) && AVFormat_Packet_Start(t); }, kParameter},
      {"GetStatus", kNone, [&](void* t) { return AVFormat_Packet_GetStatus(t, &status); }, kParameter},
      {"GetStatus: no place", kInit, [](void* t) { return AVFormat_Packet_GetStatus(t, nullptr); }, ERROR_AVFORMAT_PACKET_STATUS},
      {"Suspend", kNone, [](void* t) { return AVFormat_Packet_Suspend(t, true); }, kParameter},
      {"StreamCreate", kNone, [](void* t) { return Create(t, AVMEDIA_TYPE_VIDEO); }, kParameter},
      {"StreamCreate: null parameters", kOutput, [](void* t) { return AVFormat_Packet_StreamCreate(t, nullptr); }, kParameter},
      {"StreamCreate: before Output", kInit, [](void* t) { return Create(t, AVMEDIA_TYPE_VIDEO); }, kParameter},
      {"StreamCreate: after the header", kWritten, [](void* t) { return Create(t, AVMEDIA_TYPE_VIDEO); }, kParameter},
      {"StreamCreate: copy fails", kOutput, [&](void* t) { return scarce([&] { return AVFormat_Packet_StreamCreate(t, big.get()); }); }, ERROR_AVFORMAT_PACKET_CODECPAR},
      {"StreamWrite", kNone, write, kParameter},
      {"StreamWrite: before Output", kInit, write, kParameter},
      {"StreamWrite: null time base", kStream, [&](void* t) { return AVFormat_Packet_StreamWrite(t, 0, data, 8, nullptr, &info); }, kParameter},
      {"StreamWrite: no such stream", kStream, [&](void* t) { return AVFormat_Packet_StreamWrite(t, 1, data, 8, &time_base, &info); }, kParameter},
      {"StreamWrite: negative stream", kStream, [&](void* t) { return AVFormat_Packet_StreamWrite(t, -1, data, 8, &time_base, &info); }, kParameter},
      {"StreamWrite: header refused", kBadStream, write, kHeader},
      {"StreamWrite: after a refused header", kBadStream, [&](void* t) { return write(t) || write(t); }, kFrame},
      {"StreamWrite: packet refused", kStream, [&](void* t) { return StreamWriteAt(t, 5) && write(t); }, kFrame},
  };
  // clang-format on
  for (const Case& c : cases) {
    void* task = c.stage == kNone ? nullptr : AVFormat_Packet_Init(nullptr, nullptr);
    EXPECT_TRUE(c.stage < kOutput || output(task)) << c.name;
    EXPECT_TRUE((c.stage != kInput && c.stage != kStarted) || input(task)) << c.name;
    EXPECT_TRUE((c.stage != kStream && c.stage != kWritten) || Create(task, AVMEDIA_TYPE_VIDEO)) << c.name;
    EXPECT_TRUE(c.stage != kBadStream || Create(task, AVMEDIA_TYPE_VIDEO, 0)) << c.name;  // no dimensions
    EXPECT_TRUE(c.stage != kStarted || AVFormat_Packet_Start(task)) << c.name;
    EXPECT_TRUE(c.stage != kWritten || write(task)) << c.name;
    EXPECT_FALSE(c.call(task)) << c.name;
    EXPECT_EQ(qtest::LastError(), (qtest::ErrorState{true, c.code})) << c.name << ": " << ToString(qtest::LastError());
    EXPECT_TRUE(AVFormat_Packet_Stop(task));
  }

  // While the worker runs, nothing may be added or written.
  Gate gate;
  void* task = gate.Start(MakeTask(file, {VideoFile()}, &gate, 0, 0, Gate::Hold));
  EXPECT_FALSE(Create(task, AVMEDIA_TYPE_VIDEO));
  EXPECT_EQ(qtest::LastError(), (qtest::ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  EXPECT_FALSE(write(task));
  EXPECT_EQ(qtest::LastError(), (qtest::ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  gate.released = true;
  EXPECT_TRUE(AVFormat_Packet_Stop(task));
}

// Stop ends a task at any stage. The output (through the bridge, which Stop
// releases once) holds one header, only when one was written, and every
// packet reported or fed.
TEST(PacketStop, EndsTheTaskAtEveryStage) {
  enum Stage { kInitOnly, kNeverStarted, kRunning, kPaused, kFinished, kCallerFed, kFedAfterRun };
  for (const Stage stage : {kInitOnly, kNeverStarted, kRunning, kPaused, kFinished, kCallerFed, kFedAfterRun}) {
    SCOPED_TRACE(stage);
    qtest::MemoryWriter writer;
    Gate gate;
    gate.until_stopped = stage == kRunning;
    void* task = AVFormat_Packet_Init(Gate::Hold, &gate);
    if (stage != kInitOnly) {
      ASSERT_TRUE(AVFormat_Packet_Output(task, "matroska", 0, 0, qtest::MemoryWriter::Write, &writer));
      ASSERT_TRUE(AVFormat_Packet_Input(task, VideoFile().c_str(), nullptr, nullptr));
      ASSERT_TRUE(AVFormat_Packet_Input(task, AudioFile().c_str(), nullptr, nullptr));
    }
    if (stage >= kRunning && stage <= kFinished) gate.Start(task);
    EXPECT_TRUE(stage != kPaused || AVFormat_Packet_Suspend(task, true));
    gate.released = stage != kRunning;
    if (stage == kFinished || stage == kFedAfterRun) {
      ASSERT_TRUE(stage != kFedAfterRun || AVFormat_Packet_Start(task));
      EXPECT_TRUE(qtest::WaitUntil([&] { return !Running(task); }));
    }
    const bool stopped_early = stage == kRunning || stage == kPaused;
    EXPECT_TRUE(!stopped_early || Running(task)) << "a paused task still runs";
    AVCODEC_TIMEBASE time_base{1, 25};
    const uint8_t data[8] = {};
    for (int64_t i = 0; stage >= kCallerFed && i < 5; ++i) {
      AVCODEC_PACKETINFO info{100 + i, 100 + i, 1};
      EXPECT_TRUE(AVFormat_Packet_StreamWrite(task, 0, data, sizeof data, &time_base, &info)) << i;
    }
    EXPECT_TRUE(AVFormat_Packet_Stop(task));
    EXPECT_FALSE(AVForamt_IsErrorOccur);

    const uint8_t magic[] = {0x1A, 0x45, 0xDF, 0xA3};  // a Matroska header begins with it
    int headers = 0;
    for (size_t i = 0; i + 4 <= writer.data.size(); ++i) headers += std::memcmp(&writer.data[i], magic, 4) == 0;
    EXPECT_EQ(headers, stage <= kNeverStarted ? 0 : 1);
    if (stage <= kNeverStarted) continue;
    const std::string output = qtest::TempPath("stopped.mkv");
    qtest::WriteFile(output, writer.data);
    const size_t fed = stage >= kCallerFed ? 5 : 0;
    EXPECT_EQ(qtest::ProbePackets(output).size(), gate.log.Count() + fed);
    EXPECT_TRUE(!stopped_early || gate.log.Count() < 200u) << "stopped before the end";
  }
}

}  // namespace
