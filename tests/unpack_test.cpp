// SPDX-License-Identifier: MIT
// Demultiplexing: splitting by stream on the worker with cuts, pulling packets
// and codec parameters, and seeking, checked against ffprobe's view of the
// files. Its refusals are in the lifecycle suite's table.
#include <gtest/gtest.h>

#include "support/families.h"

namespace {

using namespace qtest;

// The synthetic file's made-up video data makes the decoder that probes it complain.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

// A packet as Read hands it out, its data hashed as ffprobe hashes it.
struct Pulled {
  int stream, size;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  std::string hash;
  bool From(void* task) {
    static unsigned char data[1 << 20];
    const bool read = AVFormat_UNPack_Read(task, &stream, data, &size, &info, &time_base);
    hash = read ? Md5(data, static_cast<size_t>(size)) : "";
    return read;
  }
};

// Video every 40 ms and audio every 30 ms, 4 s, in Matroska's 1/1000: a
// packet's time in seconds is exactly pts / 1000. MJPEG is intra only: no
// decoding delay to guess.
std::string Synthetic() {
  static const std::string path = [] {
    WriteSynthetic(TempPath("synthetic.mkv"), "matroska",
                   {{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MJPEG, {1, 1000}, 100, 0, 40},
                    {AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_S16LE, {1, 1000}, 133, 0, 30}});
    return TempPath("synthetic.mkv");
  }();
  return path;
}

// Each stream lands in its own container, header first, with packet numbers
// of its own from 0 and its input times counted in the output's time base. A
// start drops an output's earlier packets (still reported); an end met exactly
// by any output ends them all. A read function wins over the url beside it.
TEST(UNPackSplit, EachStreamInItsOwnContainerCutByStartAndEndTimes) {
  // With writers the format's short name, else the files' extension; by a read function; video start and end,
  // audio end; the video's first and last pts and the audio's last pts written.
  const std::tuple<std::string, bool, double, double, double, int64_t, int64_t, int64_t> cases[] = {
      {"nut", false, 0, 0, 0, 0, 3960, 3960},
      {"matroska", false, 0, 0, 0.99, 0, 960, 990},
      {"mkv", true, 1.0, 3.0, 0, 1000, 3000, 2970}};
  const std::vector<ProbePacket> source = ProbePackets(Synthetic());
  for (const auto& [format, by_reader, video_start, video_end, audio_end, video_first, video_last, audio_last] :
       cases) {
    SCOPED_TRACE(format);
    const bool writers = format != "mkv";
    MemoryWriter written[2];
    MemoryReader reader(ReadFile(Synthetic()));
    const std::string paths[2] = {TempPath("v." + format), TempPath("a." + format)};
    AnyTask task(Family::kUnpack);
    ASSERT_TRUE(task.Input({by_reader ? Source{"ignored.none", &reader} : Source{Synthetic()}}));
    ASSERT_TRUE(task.Outputs({{writers ? format : paths[0], writers ? &written[0] : nullptr, video_start, video_end},
                              {writers ? format : paths[1], writers ? &written[1] : nullptr, 0, audio_end, 1}}));
    EXPECT_TRUE(writers || ReadFile(paths[0]).at(0) == 0x1A) << "the header is out before any packet";
    ASSERT_TRUE(task.Start() && task.WaitForEnd() && task.Stop());
    const int64_t first[] = {video_first, 0}, last[] = {video_last, audio_last}, step[] = {40, 30};
    double tick[2];
    for (int s = 0; s < 2; ++s) {
      if (writers) WriteFile(paths[s], written[s].data);
      tick[s] = av_q2d(ProbeStreams(paths[s]).at(0).time_base);
      std::vector<std::string> want, got;
      for (const ProbePacket& p : OfStream(source, s))
        if (p.pts >= first[s] && p.pts <= last[s]) want.push_back(p.hash + std::to_string(p.pts));
      for (const ProbePacket& p : ProbePackets(paths[s])) got.push_back(p.hash + std::to_string(p.pts));
      EXPECT_EQ(got, want) << s;
    }
    std::vector<long long> next = {0, 0};
    for (const auto& call : task.log.Calls()) {
      ASSERT_TRUE((call.type == 0 || call.type == 1) && call.reserved == nullptr);
      EXPECT_EQ(call.number, next[call.type]++);
      EXPECT_DOUBLE_EQ(call.seconds, static_cast<double>(call.number * step[call.type]) * tick[call.type]);
    }
    EXPECT_EQ(next, (std::vector<long long>{video_last / 40 + 1, audio_last / 30 + 1}));
  }
}

// GetAVCodec hands out each stream's codec parameters (a shallow copy in a
// block the caller frees) and time base, each only when asked for; Read then
// every packet: data, stream, and times in the stream's own time base.
TEST(UNPackRead, CodecParametersAndEveryPacketAsFfprobeListsThem) {
  for (const std::string& input : {VideoAudioClip("mkv"), VideoAudioClip("avi"), RawH264Clip(), Synthetic()}) {
    SCOPED_TRACE(input);
    const std::vector<ProbeStream> streams = ProbeStreams(input);
    AnyTask task(Family::kUnpack);
    ASSERT_TRUE(task.Input({{input}}));
    for (int s = 0; s < static_cast<int>(streams.size()); ++s) {
      void* block = nullptr;
      AVCODEC_TIMEBASE time_base{};
      ASSERT_TRUE(AVFormat_UNPack_GetAVCodec(task.handle(), s, &block, nullptr));
      ASSERT_TRUE(AVFormat_UNPack_GetAVCodec(task.handle(), s, nullptr, &time_base));
      EXPECT_EQ(av_cmp_q({time_base.num, time_base.den}, streams[s].time_base), 0);
      const auto* copy = static_cast<const AVCodecParameters*>(block);
      EXPECT_EQ(avcodec_get_name(copy->codec_id), streams[s].codec_name);
      // A raw stream's extradata is what the linked FFmpeg's parser extracts, and ffprobe may be another version.
      EXPECT_TRUE(input == RawH264Clip() ||
                  (copy->extradata_size > 0 ? Md5(copy->extradata, static_cast<size_t>(copy->extradata_size)) : "") ==
                      streams[s].extradata_hash);
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 11, 100)
      // An unset frame rate becomes the stream's guess: 25 fps for the video, 0/0 for the audio.
      EXPECT_EQ(copy->codec_type == AVMEDIA_TYPE_VIDEO ? av_q2d(copy->framerate) : copy->framerate.num,
                copy->codec_type == AVMEDIA_TYPE_VIDEO ? 25 : 0);
#endif
      std::free(block);
    }
    Pulled got;
    for (const ProbePacket& want : ProbePackets(input)) {
      ASSERT_TRUE(got.From(task.handle()));
      EXPECT_EQ(std::tie(got.stream, got.size, got.hash, got.info.pts, got.info.dts),
                std::tie(want.stream, want.size, want.hash, want.pts, want.dts));
      EXPECT_EQ(got.info.duration, want.duration == AV_NOPTS_VALUE ? 0 : want.duration);
      EXPECT_EQ(av_cmp_q({got.time_base.num, got.time_base.den}, streams.at(got.stream).time_base), 0);
    }
    EXPECT_FALSE(got.From(task.handle())) << "past the last packet";
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
  }
}

// Read is refused while the worker runs, even paused; a Seek under the
// worker makes it start over; once it ends, Read goes on where it stopped.
TEST(UNPackRead, RefusedWhileTheWorkerRunsThenGoesOnWhereItStopped) {
  AnyTask task(Family::kUnpack);
  Pulled packet;
  ASSERT_TRUE(task.Reach(Stage::kPaused, {{Synthetic()}}, {TempPath("gate.mkv"), nullptr, 0, 2.0}));
  EXPECT_TRUE(task.Running()) << "paused, not ended";
  EXPECT_FALSE(packet.From(task.handle()));
  EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD}));
  EXPECT_TRUE(AVFormat_UNPack_Seek(task.handle(), 0, 0));
  ASSERT_TRUE(task.Suspend(false) && task.WaitForEnd());
  EXPECT_EQ(task.log.Count(), 1 + 51u) << "the first packet, then 0 to 2000 again after the seek";
  do ASSERT_TRUE(packet.From(task.handle()));
  while (packet.stream != 0);
  EXPECT_EQ(packet.info.pts, 2040) << "the video packet after the end time";
}

// Stream -1 takes microseconds, a stream its own time base (here 1/1000).
TEST(UNPackSeek, ReadGoesOnFromTheKeyFrameAtOrBeforeTheTarget) {
  const std::string clip = VideoAudioClip("mkv");  // a key frame every 10 video frames
  const std::tuple<std::string, int, unsigned long long> cases[] = {
      {Synthetic(), 0, 2010}, {Synthetic(), -1, 2000000}, {clip, 0, 1000}, {clip, 1, 1500}, {clip, -1, 1000000}};
  for (const auto& [input, stream, target] : cases) {
    SCOPED_TRACE(input + " stream " + std::to_string(stream) + " at " + std::to_string(target));
    const auto at = static_cast<int64_t>(stream < 0 ? target / 1000 : target);
    int64_t key = AV_NOPTS_VALUE;
    for (const ProbePacket& packet : OfStream(ProbePackets(input), std::max(stream, 0)))
      if (packet.flags[0] == 'K' && packet.pts <= at) key = packet.pts;
    AnyTask task(Family::kUnpack);
    ASSERT_TRUE(task.Input({{input}}) && AVFormat_UNPack_Seek(task.handle(), stream, target));
    Pulled packet;
    do ASSERT_TRUE(packet.From(task.handle()));
    while (packet.stream != std::max(stream, 0));
    EXPECT_EQ(packet.info.pts, key);
  }
}

}  // namespace
