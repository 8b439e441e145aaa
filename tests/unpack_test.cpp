// Demultiplexing: splitting by stream on the worker with cuts, pulling packets
// and codec parameters, seeking and the family's own refusals, checked against
// ffprobe's view of the files.
#include <gtest/gtest.h>

#include "support/caller.h"
#include "support/fixtures.h"

namespace {

using namespace qtest;

// The synthetic file's made-up video data makes the decoder that probes it complain.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

AVCODEC_FORMATINFO Out(const std::string& name, int stream, double start = 0, double end = 0,
                       MemoryWriter* writer = nullptr) {
  AVCODEC_FORMATINFO record{{}, start, end, stream, 0, writer ? MemoryWriter::Write : nullptr, writer};
  std::snprintf(record.szName, sizeof record.szName, "%s", name.c_str());
  return record;
}

// A packet as Read hands it out, its data hashed as ffprobe hashes it.
struct Pulled {
  int stream, size;
  AVCODEC_PACKETINFO info;
  AVCODEC_TIMEBASE time_base;
  std::string hash;
};

// A task that is stopped however the test ends.
struct Task {
  explicit Task(AVFORMAT_PROGRESS_CALLBACK progress = ProgressLog::Record, void* context = nullptr)
      : handle(AVFormat_UNPack_Init(progress, context ? context : &log)) {}
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
    return AVFormat_UNPack_GetStatus(handle, &running) && running;
  }
  bool RunToEnd() {
    return AVFormat_UNPack_Start(handle) && WaitUntil([this] { return !Running(); });
  }
  void Stop() { AVFormat_UNPack_Stop(handle), handle = nullptr; }
  bool Read(Pulled& packet) {
    static unsigned char data[1 << 20];
    if (!AVFormat_UNPack_Read(handle, &packet.stream, data, &packet.size, &packet.info, &packet.time_base))
      return false;
    packet.hash = Md5(data, static_cast<size_t>(packet.size));
    return true;
  }
  ProgressLog log;
  void* handle;
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
// by any output ends them all.
TEST(UNPackSplit, EachStreamInItsOwnContainerCutByStartAndEndTimes) {
  struct Case {
    const char* format;       // with writers: the format's short name; without: the files' extension
    bool writers, by_reader;  // a read function wins over the url beside it
    double video_start, video_end, audio_end;
    int64_t video_first, video_last, audio_last;  // pts written
  };
  const std::vector<ProbePacket> source = ProbePackets(Synthetic());
  for (const Case& c :
       {Case{"nut", true, false, 0, 0, 0, 0, 3960, 3960}, Case{"matroska", true, false, 0, 0, 0.99, 0, 960, 990},
        Case{"mkv", false, true, 1.0, 3.0, 0, 1000, 3000, 2970}, Case{"mkv", false, false, 2.0, 0, 0, 2000, 3960, 3960},
        Case{"mkv", false, false, 0, 2.0, 0, 0, 2000, 1980}, Case{"mkv", false, false, 0, 2.01, 0, 0, 3960, 3960}}) {
    SCOPED_TRACE(testing::Message() << c.format << " " << c.video_start << " " << c.video_end << " " << c.audio_end);
    MemoryWriter writers[2];
    MemoryReader reader(ReadFile(Synthetic()));
    const std::string paths[2] = {TempPath(std::string("v.") + c.format), TempPath(std::string("a.") + c.format)};
    const auto name = [&](int s) { return c.writers ? c.format : paths[s]; };
    Task task;
    ASSERT_TRUE(c.by_reader ? AVFormat_UNPack_Input(task.handle, "ignored.none", MemoryReader::Read, &reader)
                            : task.Input(Synthetic()));
    ASSERT_TRUE(task.Output({Out(name(0), 0, c.video_start, c.video_end, c.writers ? &writers[0] : nullptr),
                             Out(name(1), 1, 0, c.audio_end, c.writers ? &writers[1] : nullptr)}));
    EXPECT_TRUE(c.writers || ReadFile(paths[0]).at(0) == 0x1A) << "the header is out before any packet";
    ASSERT_TRUE(task.RunToEnd());
    task.Stop();
    const int64_t first[] = {c.video_first, 0}, last[] = {c.video_last, c.audio_last}, step[] = {40, 30};
    double tick[2];
    for (int s = 0; s < 2; ++s) {
      SCOPED_TRACE(s);
      if (c.writers) WriteFile(paths[s], writers[s].data);
      tick[s] = av_q2d(ProbeStreams(paths[s]).at(0).time_base);
      std::vector<std::string> want, got;
      for (const ProbePacket& p : OfStream(source, s))
        if (p.pts >= first[s] && p.pts <= last[s]) want.push_back(p.hash + std::to_string(p.pts));
      for (const ProbePacket& p : ProbePackets(paths[s])) got.push_back(p.hash + std::to_string(p.pts));
      EXPECT_EQ(got, want);
    }
    std::vector<long long> next = {0, 0};
    for (const auto& call : task.log.Calls()) {
      ASSERT_TRUE(call.type == 0 || call.type == 1);
      EXPECT_EQ(call.number, next[call.type]++);
      EXPECT_DOUBLE_EQ(call.seconds, static_cast<double>(call.number * step[call.type]) * tick[call.type]);
      EXPECT_EQ(call.reserved, nullptr);
    }
    EXPECT_EQ(next, (std::vector<long long>{c.video_last / 40 + 1, c.audio_last / 30 + 1}));
  }
}

// Outputs that claim no stream get a header and a trailer but no packet; an
// output whose header is refused fails Output and leaves the ones before it.
// Either way the worker reads the input to its end.
TEST(UNPackOutput, OnlyMadeOutputsThatClaimAStreamReceiveIt) {
  MemoryWriter refused;
  const std::string a = TempPath("claim0.mov"), b = TempPath("claim1.mov");
  const std::pair<std::vector<AVCODEC_FORMATINFO>, uint64_t> rows[] = {
      {{}, 0},
      {{Out(a, 7), Out(b, -1)}, 0},
      {{Out(a, 0), Out("mp4", 1, 0, 0, &refused)}, ERROR_AVFORMAT_PACKET_WRITEHEADER}};
  for (const auto& [records, refusal] : rows) {
    SCOPED_TRACE(records.size());
    Task task;
    ASSERT_TRUE(task.Input(VideoAudioClip("mkv")));
    EXPECT_EQ(task.Output(records), refusal == 0);
    EXPECT_TRUE(refusal == 0 || LastError() == (ErrorState{true, refusal})) << ToString(LastError());
    ASSERT_TRUE(task.RunToEnd());
    EXPECT_EQ(task.log.Count(), refusal ? 50u : 0u);
    Pulled packet;
    EXPECT_FALSE(task.Read(packet));
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
    task.Stop();
    for (const AVCODEC_FORMATINFO& record : records) {
      if (record.pWriteFunc) continue;
      EXPECT_EQ(qtest::Run(std::string(QUORVEL_FFPROBE_TOOL) + " -v quiet " + record.szName), 0) << "a trailer";
      EXPECT_EQ(ProbePackets(record.szName).size(), record.nStreamIndex == 0 ? 50u : 0u);
    }
  }
}

// GetAVCodec hands out each stream's codec parameters (a shallow copy in a
// block the caller frees) and time base, each only when asked for; Read then
// every packet: data, stream, and times in the stream's own time base.
TEST(UNPackRead, CodecParametersAndEveryPacketAsFfprobeListsThem) {
  for (const std::string& input : {VideoAudioClip("mkv"), VideoAudioClip("avi"), RawH264Clip(), Synthetic()}) {
    SCOPED_TRACE(input);
    const std::vector<ProbeStream> streams = ProbeStreams(input);
    Task task;
    ASSERT_TRUE(task.Input(input));
    for (int s = 0; s < static_cast<int>(streams.size()); ++s) {
      void* block = nullptr;
      AVCODEC_TIMEBASE time_base{};
      ASSERT_TRUE(AVFormat_UNPack_GetAVCodec(task.handle, s, &block, nullptr));
      ASSERT_TRUE(AVFormat_UNPack_GetAVCodec(task.handle, s, nullptr, &time_base));
      EXPECT_EQ(av_cmp_q({time_base.num, time_base.den}, streams[s].time_base), 0);
      const auto* copy = static_cast<const AVCodecParameters*>(block);
      EXPECT_EQ(avcodec_get_name(copy->codec_id), streams[s].codec_name);
      // A raw stream's extradata is what the linked FFmpeg's parser extracts, and ffprobe may be another version.
      if (input != RawH264Clip()) {
        EXPECT_EQ(copy->extradata_size > 0 ? Md5(copy->extradata, static_cast<size_t>(copy->extradata_size)) : "",
                  streams[s].extradata_hash);
      }
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 11, 100)
      // An unset frame rate becomes the stream's guess: 25 fps for the video, 0/0 for the audio.
      EXPECT_EQ(copy->codec_type == AVMEDIA_TYPE_VIDEO ? av_q2d(copy->framerate) : copy->framerate.num,
                copy->codec_type == AVMEDIA_TYPE_VIDEO ? 25 : 0);
#endif
      std::free(block);
    }
    Pulled got;
    for (const ProbePacket& want : ProbePackets(input)) {
      ASSERT_TRUE(task.Read(got));
      EXPECT_EQ(std::tie(got.stream, got.size, got.hash, got.info.pts, got.info.dts),
                std::tie(want.stream, want.size, want.hash, want.pts, want.dts));
      EXPECT_EQ(got.info.duration, want.duration == AV_NOPTS_VALUE ? 0 : want.duration);
      EXPECT_EQ(av_cmp_q({got.time_base.num, got.time_base.den}, streams.at(got.stream).time_base), 0);
    }
    EXPECT_FALSE(task.Read(got)) << "past the last packet";
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
  }
}

// Holds the worker inside its first progress call until opened.
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

// Read is refused while the worker runs, even paused; a Seek under the
// worker makes it start over; once it ends, Read goes on where it stopped.
TEST(UNPackRead, RefusedWhileTheWorkerRunsThenGoesOnWhereItStopped) {
  Gate gate;
  Task task(Gate::Hold, &gate);
  Pulled packet;
  const auto refused = [&] {
    return !task.Read(packet) && LastError() == ErrorState{true, ERROR_AVFORMAT_PACKET_THREAD};
  };
  ASSERT_TRUE(task.Input(Synthetic()));
  ASSERT_TRUE(task.Output({Out(TempPath("gate.mkv"), 0, 0, 2.0)}));
  ASSERT_TRUE(AVFormat_UNPack_Start(task.handle));
  ASSERT_TRUE(WaitUntil([&] { return gate.entered.load(); }));
  EXPECT_TRUE(refused());
  EXPECT_TRUE(AVFormat_UNPack_Seek(task.handle, 0, 0));
  EXPECT_TRUE(AVFormat_UNPack_Suspend(task.handle, true));
  gate.open = true;
  ASSERT_TRUE(WaitUntil([&] { return gate.calls == 1; }));
  EXPECT_TRUE(task.Running()) << "paused, not ended";
  EXPECT_TRUE(refused());
  EXPECT_TRUE(AVFormat_UNPack_Suspend(task.handle, false));
  ASSERT_TRUE(WaitUntil([&] { return !task.Running(); }));
  EXPECT_EQ(gate.calls, 1 + 51) << "the first packet, then 0 to 2000 again after the seek";
  do ASSERT_TRUE(task.Read(packet));
  while (packet.stream != 0);
  EXPECT_EQ(packet.info.pts, 2040) << "the video packet after the end time";
}

// Stream -1 takes microseconds, a stream its own time base (here 1/1000).
TEST(UNPackSeek, ReadGoesOnFromTheKeyFrameAtOrBeforeTheTarget) {
  struct Case {
    std::string input;
    int stream;
    unsigned long long target;
  };
  const std::string clip = VideoAudioClip("mkv");  // a key frame every 10 video frames
  for (const Case& c : {Case{Synthetic(), 0, 2000}, Case{Synthetic(), 0, 2010}, Case{Synthetic(), -1, 2000000},
                        Case{clip, 0, 1000}, Case{clip, 1, 1500}, Case{clip, -1, 1000000}}) {
    SCOPED_TRACE(c.input + " stream " + std::to_string(c.stream) + " at " + std::to_string(c.target));
    const int stream = std::max(c.stream, 0);
    const auto target = static_cast<int64_t>(c.stream < 0 ? c.target / 1000 : c.target);
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

// The family's own refusals: each row's calls all succeed on a fresh task but
// the last, which fails with the code. GetAVCodec borrows the seek code.
TEST(UNPackErrors, EachRefusalReportsItsCode) {
  static unsigned char data[1 << 20];
  int index = 0, size = 0;
  void* block = nullptr;
  using Call = std::function<bool(Task&)>;
  const Call input = [](Task& t) { return t.Input(VideoAudioClip("mkv")); };
  const Call start = [](Task& t) { return AVFormat_UNPack_Start(t.handle); };
  const Call output = [](Task& t) { return t.Output({Out(TempPath("e.mkv"), 0)}); };
  const auto read = [&](unsigned char* to) {
    return [&, to](Task& t) { return AVFormat_UNPack_Read(t.handle, &index, to, &size, 0, 0); };
  };
  const auto get = [&](int s) {
    return [&, s](Task& t) { return AVFormat_UNPack_GetAVCodec(t.handle, s, &block, 0); };
  };
  const auto seek = [](int s) { return [s](Task& t) { return AVFormat_UNPack_Seek(t.handle, s, 0); }; };
  constexpr uint64_t kParameter = ERROR_AVFORMAT_PACKET_PARAMETER, kSeek = ERROR_AVFORMAT_PACKET_SEEK;
  const std::pair<std::vector<Call>, uint64_t> rows[] = {
      {{start}, kParameter},
      {{read(data)}, kParameter},
      {{seek(0)}, kParameter},
      {{output}, kParameter},
      {{get(0)}, kSeek},
      {{[](Task& t) { return AVFormat_UNPack_GetStatus(t.handle, 0); }}, ERROR_AVFORMAT_PACKET_STATUS},
      {{[](Task& t) { return AVFormat_UNPack_Input(t.handle, 0, 0, 0); }}, kParameter},
      {{input,
        [](Task& t) {
          return t.Output({Out("a.mkv", 0), Out("b.mkv", 1), Out("c.mkv", 2)});
        }},
       kParameter},
      {{input, [](Task& t) { return AVFormat_UNPack_Output(t.handle, nullptr, 1); }}, kParameter},
      {{input, read(nullptr)}, kParameter},
      {{input, get(2)}, kSeek},
      {{input, get(-1)}, kSeek},
      {{input, seek(2)}, kSeek},
      {{input, seek(-2)}, kSeek},
      {{input, start, start}, kParameter},
      {{input, start, output}, kParameter},
      {{input, start, input}, kParameter},
  };
  for (size_t row = 0; row < std::size(rows); ++row) {
    SCOPED_TRACE(row);
    const auto& [calls, code] = rows[row];
    Task task;
    for (size_t i = 0; i + 1 < calls.size(); ++i) ASSERT_TRUE(calls[i](task));
    block = &block;
    EXPECT_FALSE(calls.back()(task));
    EXPECT_EQ(LastError(), (ErrorState{true, code})) << ToString(LastError());
    EXPECT_EQ(block, &block) << "no codec parameters handed out";
  }
}

}  // namespace
