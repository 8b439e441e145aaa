// SPDX-License-Identifier: MIT
// What the library checks and reports. Before FFmpeg sees it: a packet larger
// than the caller's buffer, times and time bases that a muxer can't take
// (from the caller or from a file), calls that would mix up stream indices.
// After: task reports of what every family read, wrote and had refused, and
// the first write error, so that a full disk or a caller write function that
// fails or takes only part of its bytes is never a silent success. Counts are
// checked against ffprobe; reports are read while the worker runs (the thread
// sanitizer lane watches that).
#include <gtest/gtest.h>
#include <unistd.h>

#include <tuple>

#include "support/families.h"

namespace {

using namespace qtest;
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
constexpr uint64_t kRefused = ERROR_AVFORMAT_PACKET_PARAMETER;
const auto Code = [](bool ok) { return ok ? 0 : AVFormat_GetLastError(nullptr); };
const auto Record = [](uint32_t size = sizeof(AVFORMAT_TASK_REPORT)) {
  AVFORMAT_TASK_REPORT report{};
  report.dwSize = size;
  return report;
};
const std::string kFullDisk = TempPath("full.mkv");  // the name gives the container
const int kLinked = symlink("/dev/full", kFullDisk.c_str());

// Two blocks of a track with zlib content compression, a key frame then
// another, that inflate to 256 KiB of zeros each: asked for, then offered too
// little room (kept each time), then delivered whole with ffprobe's key flag.
TEST(SizedRead, AsksKeepsThenDeliversEachInflatedPacketWhole) {
  const std::string path = QUORVEL_CORPUS "zlib-compressed.mkv";
  const std::vector<ProbePacket> expected = ProbePackets(path);
  ASSERT_EQ(expected.size(), 2u);
  void* task = AVFormat_UNPack_Init(nullptr, nullptr);
  ASSERT_TRUE(AVFormat_UNPack_Input(task, path.c_str(), nullptr, nullptr));
  int stream = -1, size = 0, flags = -1;
  const auto read = [&](unsigned char* data, int capacity) {
    return Code(AVFormat_UNPack_ReadSized(task, &stream, data, capacity, &size, &flags, nullptr, nullptr));
  };
  for (const ProbePacket& packet : expected) {
    std::vector<uint8_t> data(packet.size - 1, 0xFF);
    for (int capacity : {0, 4096, packet.size - 1}) {
      EXPECT_EQ(read(capacity ? data.data() : nullptr, capacity), ERROR_AVFORMAT_PACKET_BUFFERSIZE);
      EXPECT_EQ(size, packet.size);
    }
    data.resize(size, 0xFF);
    ASSERT_EQ(read(data.data(), size), 0u);
    EXPECT_EQ(data, std::vector<uint8_t>(256 * 1024, 0));
    EXPECT_EQ((flags & AVFORMAT_PKT_FLAG_KEY) != 0, packet.flags.find('K') != std::string::npos);
  }
  EXPECT_EQ(read(nullptr, 0), ERROR_AVFORMAT_PACKET_READ);
  AVFormat_UNPack_Stop(task);
}

// A multiplexing task writing NUT, which converts each time into the other
// streams' time bases and ends the process when that overflows.
struct Mux {
  void* task = AVFormat_Packet_Init(nullptr, nullptr);
  AVCodecParameters* video = avcodec_parameters_alloc();
  AVCodecParameters* audio = avcodec_parameters_alloc();
  Mux() {
    video->codec_type = AVMEDIA_TYPE_VIDEO, video->codec_id = AV_CODEC_ID_MPEG4, video->width = video->height = 64;
    audio->codec_type = AVMEDIA_TYPE_AUDIO, audio->codec_id = AV_CODEC_ID_PCM_S16LE, audio->sample_rate = 44100;
    audio->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    AVFormat_Packet_Output(task, TempPath("checks.nut").c_str(), 0, 0, nullptr, nullptr);
  }
  ~Mux() { AVFormat_Packet_Stop(task), avcodec_parameters_free(&video), avcodec_parameters_free(&audio); }
  uint64_t Write(int stream, AVCODEC_TIMEBASE base, AVCODEC_PACKETINFO info) {
    return Code(AVFormat_Packet_StreamWrite(task, stream, std::vector<uint8_t>(16).data(), 16, &base, &info));
  }
};

TEST(StreamWrite, RefusesTimeBasesThatAreNoLengthAndTimesBeyondWhatTheMuxerTakes) {
  constexpr int64_t kMax = INT64_MAX, kNone = AV_NOPTS_VALUE, k68Years = int64_t{1} << 31, kHuge = kMax >> 1;
  // clang-format off
  const std::tuple<AVCODEC_TIMEBASE, AVCODEC_PACKETINFO, uint64_t> cases[] = {
      {{1, 25}, {1, 1, 1}, 0}, {{1, 44100}, {kNone, kNone, 0}, 0}, {{1, 1}, {k68Years, k68Years, 0}, 0},
      {{0, 25}, {1, 1, 1}, kRefused}, {{1, 0}, {1, 1, 1}, kRefused}, {{-1, 25}, {1, 1, 1}, kRefused},
      {{1, -25}, {1, 1, 1}, kRefused}, {{1, 25}, {kMax, kMax, 1}, kRefused}, {{1, 25}, {1, kMax - 1, 1}, kRefused},
      {{1, 1}, {k68Years + 1, 1, 1}, kRefused}, {{1, 44100}, {kHuge, kHuge, 1}, kRefused},
      {{1, 25}, {1, 1, -kMax}, kRefused}, {{1, 25}, {-kMax, -kMax, 1}, kRefused}};
  // clang-format on
  for (const auto& [base, info, code] : cases) {
    Mux mux;
    ASSERT_TRUE(AVFormat_Packet_StreamCreate(mux.task, mux.video) && AVFormat_Packet_StreamCreate(mux.task, mux.audio));
    ASSERT_EQ(mux.Write(0, {1, 25}, {0, 0, 1}), 0u);
    EXPECT_EQ(mux.Write(1, base, info), code) << base.num << "/" << base.den << " pts " << info.pts;
  }
}

// The multiplexing worker holds a file's packet at 2^62 ms back from NUT: it
// is refused, and the other input's packets are written.
TEST(WorkerFedMux, RefusesTimesBeyondWhatTheMuxerTakes) {
  AnyTask task(Family::kPacket);
  const Sink sink{TempPath("extreme.nut")};
  ASSERT_TRUE(task.Reach(Stage::kEnded, {{VideoOnlyClip("mkv")}, {QUORVEL_CORPUS "extreme-ts.mkv"}}, sink));
  AVFORMAT_TASK_REPORT report = Record();
  ASSERT_TRUE(AVFormat_Packet_StopWithReport(task.Release(), &report));
  EXPECT_EQ(std::tuple(report.llPacketsRead, report.llPacketsWritten, report.llPacketsRefused), std::tuple(3, 2, 1));
  EXPECT_EQ(ProbeOutput(sink).size(), 2u);
}

// Calls that would mix up stream indices: another output once an Input or
// StreamCreate has put streams in, and an input with no stream to map.
TEST(CallerChecks, AreRefusedWithTheParameterCode) {
  const std::string data_only = TempPath("data.nut");
  WriteSynthetic(data_only, "nut", {{AVMEDIA_TYPE_DATA, AV_CODEC_ID_NONE, {1, 25}, 10, 0, 1, 8, {25, 1}, 0x41544144}});
  for (const bool by_input : {true, false}) {
    Mux mux;
    ASSERT_TRUE(by_input ? AVFormat_Packet_Input(mux.task, VideoAudioClip("mkv").c_str(), 0, 0)
                         : AVFormat_Packet_StreamCreate(mux.task, mux.video));
    EXPECT_EQ(Code(AVFormat_Packet_Output(mux.task, "b.mkv", 0, 0, nullptr, nullptr)), kRefused);
  }
  Mux mux;
  EXPECT_EQ(Code(AVFormat_Packet_Input(mux.task, data_only.c_str(), 0, 0)), kRefused);
}

// Every family to a file, a caller's write function that takes all or fails
// after some bytes, and a full disk. The report is read all along; before
// Stop it has no trailer.
TEST(TaskReport, CountsWhatEachFamilyWroteAndItsFirstWriteError) {
  for (const Family family : kFamilies)
    for (const long long accepted : {-3LL, -2LL, -1LL, 0LL, 3000LL}) {  // -3: a file, -2: all, -1: the full disk
      if (family == Family::kLink && accepted != -3 && accepted != -1) continue;
      SCOPED_TRACE(testing::Message() << Name(family) << ", writes fail after " << accepted << " bytes");
      const std::string clip = family == Family::kPacket ? VideoOnlyClip("mkv") : VideoAudioClip("mkv");
      MemoryWriter writer;
      writer.fail_after = accepted;
      const Sink sink = accepted == -3   ? Sink{TempPath(Name(family) + std::string(".mkv"))}
                        : accepted == -1 ? Sink{kFullDisk}
                                         : Sink{"matroska", &writer};
      AnyTask task(family);
      AVFORMAT_TASK_REPORT report = Record();
      ASSERT_TRUE(task.Reach(Stage::kSetUp, {{clip}}, {sink}) && task.Start());
      for (int64_t read = 0; task.Running(); read = report.llPacketsRead)
        EXPECT_TRUE(task.Report(&report) && report.llPacketsRead >= read);
      EXPECT_TRUE(task.Report(&report) && report.bTrailerWritten == 0);
      EXPECT_TRUE(task.Stop(&report));
      const int error = accepted == -1 ? AVERROR(ENOSPC) : accepted >= 0 ? AVERROR(EIO) : 0;
      EXPECT_EQ(std::tuple(report.nWriteError, report.nTrailerResult, report.bTrailerWritten),
                std::tuple(error, error, 1));
      // Demultiplexing ends at its first refused packet; the others read on.
      const auto read = static_cast<int64_t>(ProbePackets(clip).size());
      EXPECT_TRUE(family == Family::kUnpack && error != 0 ? report.llPacketsRead < read : report.llPacketsRead == read);
      EXPECT_TRUE(error != 0 || report.llPacketsWritten == static_cast<int64_t>(ProbeOutput(sink).size()));
      // A file's buffer holds the whole clip, so only the trailer meets a full disk,
      // unless the header was flushed at once (demultiplexing).
      EXPECT_EQ(report.llPacketsRefused > 0, accepted >= 0 || (accepted == -1 && family == Family::kUnpack));
      // A file's header is written again at its end, through the same count.
      const auto kept = static_cast<int64_t>(accepted == -3 ? Bytes(sink).size() : writer.data.size());
      EXPECT_TRUE(accepted == -3 ? report.llBytesWritten >= kept : report.llBytesWritten == kept) << kept;
    }
}

// A write function that takes all, a part, nothing, or fails: the trailer's
// flush at the latest hands it the bytes, however far the worker got.
TEST(TaskReport, AWriteFunctionThatTakesLessThanItIsGivenFailsTheOutput) {
  using Write = int (*)(void*, unsigned char*, int);
  // clang-format off
  const std::pair<Write, int> cases[] = {
      {[](void*, unsigned char*, int n) { return n; }, 0}, {[](void*, unsigned char*, int n) { return n - 1; }, AVERROR(EIO)},
      {[](void*, unsigned char*, int) { return 0; }, AVERROR(EIO)}, {[](void*, unsigned char*, int) { return AVERROR(EPIPE); }, AVERROR(EPIPE)}};
  // clang-format on
  for (const auto& [write, error] : cases) {
    void* task = AVFormat_Convert_Init(nullptr, nullptr);
    ASSERT_TRUE(AVFormat_Convert_Output(task, "matroska", 0, 0, write, nullptr) &&
                AVFormat_Convert_Input(task, VideoAudioClip("mkv").c_str(), nullptr, nullptr) &&
                AVFormat_Convert_Start(task));
    AVFORMAT_TASK_REPORT report = Record();
    ASSERT_TRUE(AVFormat_Convert_StopWithReport(task, &report));
    EXPECT_EQ(report.nWriteError, error);
  }
}

// A record below the first size is refused with the family's parameter code
// (StopWithReport stops the task all the same); a longer one keeps its tail.
TEST(TaskReport, FillsOnlyTheFieldsOfTheCallersRecord) {
  for (const Family family : kFamilies) {
    AnyTask task(family);
    AVFORMAT_TASK_REPORT small = Record(AVFORMAT_TASK_REPORT_MIN_SIZE - 1),
                         longer[2] = {Record(sizeof longer), Record(42)};
    EXPECT_TRUE(task.Report(longer) && longer[1].dwSize == 42);
    EXPECT_FALSE(task.Stop(&small));
    EXPECT_EQ(LastError(), (ErrorState{true, CodesOf(family).parameter}));
  }
}

}  // namespace
