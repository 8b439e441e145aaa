// SPDX-License-Identifier: MIT
// What every family does alike, each case run against all four through
// qtest::AnyTask: Stop at every stage, the cut bounds, every family's
// refusals, names that can't be used, and the error state.
extern "C" {
#include <libavutil/mem.h>
}

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <thread>

#include "support/families.h"

namespace {

using namespace qtest;
using namespace std::chrono_literals;

// The made-up packets make the decoders that probe them complain.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

// 10 video packets 1/25 s apart, each larger than a file's write buffer, so
// that writing one goes to the disk at once.
std::string LargePackets() {
  static const std::string path = [] {
    WriteSynthetic(TempPath("large.nut"), "nut", {{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, {1, 25}, 10, 0, 1, 100000}});
    return TempPath("large.nut");
  }();
  return path;
}

int Occurrences(const std::vector<uint8_t>& bytes, const std::string& text) {
  const std::vector<uint8_t> magic(text.begin(), text.end());
  int count = 0;
  for (auto at = bytes.begin(); (at = std::search(at, bytes.end(), magic.begin(), magic.end())) != bytes.end(); ++at)
    ++count;
  return count;
}

// Stop releases a task at every stage and clears the flag. An output gets a
// header once one is due (at Start; demultiplexing's at Output; multiplexing's
// also at the first packet fed) and from Stop its trailer: a QuickTime file
// is unreadable without it, and a bridged Matroska output loses its last
// cluster. A Stop that comes during a progress call waits for the worker,
// whose packet is written all the same (the abort must not cut a file write
// short). A paused task stops at once, a concatenation task only once resumed,
// after carrying the packet it holds; its later inputs end at their first read.
TEST(LifecycleStop, EveryFamilyAtEveryStage) {
  struct Case {
    Stage stage;
    bool fed = false;  // multiplexing: 5 packets by StreamWrite before Stop
  };
  const Case cases[] = {{Stage::kInit},  {Stage::kFirstFailed}, {Stage::kFirst}, {Stage::kSecondFailed},
                        {Stage::kSetUp}, {Stage::kSetUp, true}, {Stage::kHeld},  {Stage::kPaused},
                        {Stage::kEnded}, {Stage::kEnded, true}};
  for (const Family family : kFamilies)
    for (const Case& c : cases)
      for (const bool bridged : {false, true}) {
        if ((bridged && family == Family::kLink) || (c.fed && family != Family::kPacket)) continue;
        SCOPED_TRACE(testing::Message() << Name(family) << " at stage " << static_cast<int>(c.stage)
                                        << (c.fed ? ", fed" : "") << (bridged ? ", bridged" : ""));
        MemoryWriter writer;
        const Sink sink = bridged ? Sink{"matroska", &writer}
                                  : Sink{TempPath(std::string("stop-") + Name(family) +
                                                  std::to_string(static_cast<int>(c.stage)) + ".mov")};
        const std::vector<Source> sources(family == Family::kLink ? 2 : 1, Source{LargePackets()});
        AnyTask task(family);
        task.hold_at = 5;
        // A pause asked for before Start holds a conversion only: the other families' Start clears it.
        ASSERT_TRUE(c.stage != Stage::kEnded
                        ? task.Reach(c.stage, sources, {sink})
                        : task.Reach(Stage::kSetUp, sources, {sink}) &&
                              (family == Family::kConvert || task.Suspend(true)) && task.Start() && task.WaitForEnd());
        const uint8_t data[8] = {};
        AVCODEC_TIMEBASE time_base{1, 25};
        for (int64_t i = 0; c.fed && i < 5; ++i) {
          AVCODEC_PACKETINFO info{100 + i, 100 + i, 1};
          EXPECT_TRUE(AVFormat_Packet_StreamWrite(task.handle(), 0, data, sizeof data, &time_base, &info));
        }
        size_t reported = c.stage == Stage::kEnded ? 10 * sources.size() : 0;
        if (c.stage == Stage::kHeld || c.stage == Stage::kPaused) {
          const bool paused = c.stage == Stage::kPaused;
          if (paused) std::this_thread::sleep_for(300ms);
          EXPECT_TRUE(task.Running());
          EXPECT_EQ(task.log.Count(), 6u) << "a paused worker moves no packet";
          EXPECT_EQ(task.StopFromAnotherThread(paused ? 300ms : 100ms), paused && family != Family::kLink);
          reported = paused && family == Family::kLink ? 7 : 6;
        } else {
          EXPECT_TRUE(task.Stop());
        }
        EXPECT_FALSE(AVForamt_IsErrorOccur);
        EXPECT_EQ(task.log.Count(), reported);
        const std::vector<uint8_t> bytes = Bytes(sink);
        if (c.stage < Stage::kSetUp || (c.stage == Stage::kSetUp && !c.fed && family != Family::kUnpack)) {
          EXPECT_TRUE(bytes.empty()) << "neither header nor trailer";
          continue;
        }
        EXPECT_EQ(Occurrences(bytes, bridged ? "\x1A\x45\xDF\xA3" : "ftyp"), 1) << "one header";
        EXPECT_EQ(ProbeOutput(sink).size(), reported + (c.fed ? 5 : 0));
      }
}

// Conversion, demultiplexing and multiplexing cut alike: packets before the
// start are reported but not written, an end ends the task only on a packet
// exactly at it, and a bound of 0 or less is off. Here 100 video packets 40 ms
// apart, in Matroska's milliseconds both ways (demultiplexing counts input
// times in the output's time base). Raw H.264 has no timestamps: the two
// families that read it whole make them from the packet counter and the frame
// rate as the linked FFmpeg states it.
TEST(LifecycleCut, StartDropsEarlierPacketsEndStopsOnlyOnAnExactMatch) {
  const std::string hundred = TempPath("hundred.mkv"), raw = RawH264Clip();
  WriteSynthetic(hundred, "matroska", {{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, {1, 1000}, 100, 0, 40}});
  const int64_t f = RawH264FrameMs();
  // Input, start, end, first and last pts written in ms, packets reported, ms per packet.
  const std::tuple<std::string, double, double, int64_t, int64_t, size_t, int64_t> cases[] = {
      {hundred, 1.0, 2.0, 1000, 2000, 51, 40},   {hundred, 1.0, 2.01, 1000, 3960, 100, 40},
      {hundred, 0, 0, 0, 3960, 100, 40},         {hundred, -1.0, 0.4, 0, 400, 11, 40},
      {hundred, 3.0, -2.0, 3000, 3960, 100, 40}, {raw, 0, 0, 0, 24 * f, 25, f}};
  for (const Family family : {Family::kConvert, Family::kUnpack, Family::kPacket})
    for (const auto& [input, start, end, first, last, reported, step] : cases) {
      if (family == Family::kUnpack && input == raw) continue;
      SCOPED_TRACE(testing::Message() << Name(family) << " " << input << " from " << start << " to " << end);
      AnyTask task(family);
      const Sink sink{TempPath("cut.mkv"), nullptr, start, end};
      ASSERT_TRUE(task.Reach(Stage::kEnded, {{input}}, sink) && task.Stop());
      const auto packets = ProbeOutput(sink);
      ASSERT_EQ(packets.size(), static_cast<size_t>((last - first) / step + 1));
      for (size_t i = 0; i < packets.size(); ++i) EXPECT_EQ(packets[i].pts, first + static_cast<int64_t>(i) * step);
      const auto calls = task.log.Calls();
      ASSERT_EQ(calls.size(), reported);
      for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(std::tie(calls[i].reserved, calls[i].type, calls[i].number),
                  std::make_tuple(nullptr, static_cast<int>(AVMEDIA_TYPE_VIDEO), static_cast<long long>(i)));
        EXPECT_NEAR(calls[i].seconds, 0.001 * static_cast<double>(step * static_cast<int64_t>(i)), 1e-9);
      }
    }
}

// Inputs that can't be opened and outputs that can't be made, each with the
// family's code. Concatenation takes no caller I/O: a writer's format name is
// a file name without extension there.
TEST(LifecycleNames, MissingInputsAndUnusableOutputsGiveTheFamilysCode) {
  const std::string clip = VideoAudioClip("mkv"), output = TempPath("names.mkv");
  const std::string directory = TempPath("a-directory.mkv"), locked = TempPath("locked.mkv");
  mkdir(directory.c_str(), 0755);
  WriteFile(locked, ReadFile(clip));
  chmod(locked.c_str(), 0);
  MemoryWriter writer;
  MemoryReader nothing({}), garbage(std::vector<uint8_t>(4096, 0x5a));
  struct Case {
    const char* name;
    Source source;
    Sink sink;
    uint64_t Codes::*code;
    bool caller_io = false;
  };
  const Case cases[] = {
      {"missing input file", {TempPath("missing.mkv")}, {output}, &Codes::open},
      {"a directory as input", {directory}, {output}, &Codes::open},
      {"an input without read permission", {locked}, {output}, &Codes::open},
      {"a read function that delivers nothing", {"", &nothing}, {output}, &Codes::open, true},
      {"a read function that delivers no known format", {"", &garbage}, {output}, &Codes::open, true},
      {"an output name with an unknown extension", {clip}, {TempPath("out.nosuchcontainer")}, &Codes::format},
      {"an unknown format name for a write function", {clip}, {"nosuchformat", &writer}, &Codes::format},
      {"a file name for a write function", {clip}, {output, &writer}, &Codes::format, true},
      {"an output in a missing directory", {clip}, {"/nonexistent/dir/x.mkv"}, &Codes::open},
      {"a directory as output", {clip}, {directory}, &Codes::open},
  };
  for (const Case& c : cases)
    for (const Family family : kFamilies) {
      // Root reads a file of mode 000: there that case proves nothing.
      if ((c.caller_io && family == Family::kLink) || (c.source.url == locked && geteuid() == 0)) continue;
      SCOPED_TRACE(std::string(Name(family)) + ": " + c.name);
      AnyTask task(family);
      EXPECT_FALSE(task.Reach(Stage::kSetUp, {c.source}, {c.sink}));
      EXPECT_EQ(task.code, CodesOf(family).*c.code) << std::hex << task.code;
    }
}

// Each family's own refusals: a fresh task taken as far as a stage, then a
// call that fails with the code (a started task's worker held in its first
// progress call; the null stage a null handle). Demultiplexing's GetAVCodec
// borrows its Seek code and hands nothing out; multiplexing's streams made
// without dimensions have their header refused.
TEST(Refusals, EachFamilysCallsGiveTheirCodes) {
  const std::string clip = VideoAudioClip("mkv"), out = TempPath("refused.mkv");
  MemoryWriter writer;
  MemoryReader reader(ReadFile(clip)), nothing(std::vector<uint8_t>{});
  static unsigned char data[1 << 20];
  int index = 0, size = 0;
  const auto stream = [](AnyTask& t, int width = 160) {
    return AVFormat_Packet_StreamCreate(t.handle(), StreamParameters(AVMEDIA_TYPE_VIDEO, width).get());
  };
  const auto write = [](AnyTask& t, int stream_index = 0, int64_t at = 0) {
    AVCODEC_TIMEBASE base{1, 25};
    AVCODEC_PACKETINFO info{at, at, 1};
    return AVFormat_Packet_StreamWrite(t.handle(), stream_index, data, 8, &base, &info);
  };
  const auto scarce = [](const std::function<bool()>& call) {  // allocations above 1 MiB fail
    av_max_alloc(1 << 20);
    const bool result = call();
    av_max_alloc(INT_MAX);
    return result;
  };
  const auto big = StreamParameters(AVMEDIA_TYPE_VIDEO);
  big->extradata = static_cast<uint8_t*>(av_mallocz(2 << 20));
  big->extradata_size = 2 << 20;
  using Call = std::function<bool(AnyTask&)>;
  const Call in = [&](AnyTask& t) { return t.Input({{clip}}); }, go = [](AnyTask& t) { return t.Start(); };
  const Call to = [&](AnyTask& t) { return t.Output({out}); };
  const auto made = [&](const std::string& name) {  // then refused by its header on Start
    return [&, name](AnyTask& t) {
      return t.Output({name, name.find('/') == std::string::npos ? &writer : nullptr}) && in(t) && go(t);
    };
  };
  const auto seek = [](Family f, long long at, int s = 0) {
    return [=](AnyTask& t) {
      return f == Family::kConvert ? AVFormat_Convert_Seek(t.handle(), at) : AVFormat_UNPack_Seek(t.handle(), s, at);
    };
  };
  const auto read = [&](unsigned char* into) {
    return [&, into](AnyTask& t) { return AVFormat_UNPack_Read(t.handle(), &index, into, &size, 0, 0); };
  };
  const auto get = [](int s) {
    return [s](AnyTask& t) {
      void* block = &t;
      return AVFormat_UNPack_GetAVCodec(t.handle(), s, &block, 0) || block != &t;
    };
  };
  const Call create = [&](AnyTask& t) { return stream(t); }, put = [&](AnyTask& t) { return write(t); };
  const Family C = Family::kConvert, U = Family::kUnpack, P = Family::kPacket, L = Family::kLink;
  const Stage kNull = Stage::kNull, kInit = Stage::kInit, kFirst = Stage::kFirst, kSetUp = Stage::kSetUp,
              kHeld = Stage::kHeld;
#define E(name) ERROR_AVFORMAT_##name
  // clang-format off
  const std::tuple<Family, Stage, Call, uint64_t> cases[] = {
      {C, kInit, in, E(CONVERT_PARAMETER)}, {C, kFirst, go, E(CONVERT_PARAMETER)},
      {C, kFirst, [](AnyTask& t) { return AVFormat_Convert_Input(t.handle(), 0, 0, 0); }, E(CONVERT_PARAMETER)},
      // A url beside a read function must open, though the read function then replaces it.
      {C, kFirst, [&](AnyTask& t) { return t.Input({{"/nonexistent/input.mkv", &reader}}); }, E(CONVERT_OPEN)},
      {C, kFirst, seek(C, 1), E(CONVERT_PARAMETER)}, {C, kSetUp, seek(C, 100), E(CONVERT_SEEK)},
      {C, kInit, made(TempPath("video.wav")), E(CONVERT_WRITEHEADER)},
      {C, kInit, made("mp4"), E(CONVERT_WRITEHEADER)},  // can't seek back in a write function
      {C, kHeld, go, E(CONVERT_PARAMETER)}, {C, kHeld, to, E(CONVERT_PARAMETER)}, {C, kHeld, in, E(CONVERT_PARAMETER)},
      {U, kInit, go, E(PACKET_PARAMETER)}, {U, kInit, read(data), E(PACKET_PARAMETER)},
      {U, kInit, seek(U, 0), E(PACKET_PARAMETER)}, {U, kInit, to, E(PACKET_PARAMETER)}, {U, kInit, get(0), E(PACKET_SEEK)},
      {U, kInit, [](AnyTask& t) { return AVFormat_UNPack_Input(t.handle(), 0, 0, 0); }, E(PACKET_PARAMETER)},
      {U, kFirst, [](AnyTask& t) { return t.Outputs({{"a.mkv"}, {"b.mkv", nullptr, 0, 0, 1}, {"c.mkv"}}); }, E(PACKET_PARAMETER)},
      {U, kFirst, [](AnyTask& t) { return AVFormat_UNPack_Output(t.handle(), nullptr, 1); }, E(PACKET_PARAMETER)},
      {U, kFirst, [&](AnyTask& t) { return t.Outputs({{out}, {"mp4", &writer, 0, 0, 1}}); }, E(PACKET_WRITEHEADER)},
      {U, kFirst, read(nullptr), E(PACKET_PARAMETER)}, {U, kFirst, get(2), E(PACKET_SEEK)},
      {U, kFirst, get(-1), E(PACKET_SEEK)}, {U, kFirst, seek(U, 0, 2), E(PACKET_SEEK)}, {U, kFirst, seek(U, 0, -2), E(PACKET_SEEK)},
      {U, kHeld, go, E(PACKET_PARAMETER)}, {U, kHeld, to, E(PACKET_PARAMETER)}, {U, kHeld, in, E(PACKET_PARAMETER)},
      {L, kInit, [](AnyTask& t) { return AVFormat_Link_Output(t.handle(), nullptr); }, E(LINK_OUTPUTFORMAT)},
      {L, kSetUp, to, E(LINK_PARAMETER)}, {L, kInit, in, E(LINK_PARAMETER)}, {L, kInit, go, E(LINK_PARAMETER)},
      {L, kFirst, [](AnyTask& t) { return AVFormat_Link_Input(t.handle(), nullptr, 0, 0, 0, 1); }, E(LINK_PARAMETER)},
      {L, kFirst, go, E(LINK_WRITEHEADER)}, {L, kFirst, [](AnyTask& t) { return t.Start() || t.Start(); }, E(LINK_PARAMETER)},
      {L, kHeld, go, E(LINK_PARAMETER)}, {L, kHeld, in, E(LINK_PARAMETER)},
      {P, kInit, [](AnyTask& t) { return AVFormat_Packet_Output(t.handle(), nullptr, 0, 0, nullptr, nullptr); }, E(PACKET_PARAMETER)},
      {P, kInit, [&](AnyTask& t) { return scarce([&] { return t.Output({"matroska", &writer}); }); }, E(PACKET_MALLOC)},
      {P, kInit, in, E(PACKET_PARAMETER)}, {P, kInit, go, E(PACKET_PARAMETER)},
      {P, kInit, create, E(PACKET_PARAMETER)}, {P, kInit, put, E(PACKET_PARAMETER)},
      {P, kFirst, [](AnyTask& t) { return AVFormat_Packet_Input(t.handle(), nullptr, nullptr, nullptr); }, E(PACKET_PARAMETER)},
      {P, kFirst, [&](AnyTask& t) { return t.Input({{"/nonexistent/input.mkv", &reader}}); }, E(PACKET_OPEN)},
      {P, kFirst, [&](AnyTask& t) { return scarce([&] { return t.Input({{"", &nothing}}); }); }, E(PACKET_MALLOC)},
      {P, kFirst, go, E(PACKET_WRITEHEADER)}, {P, kFirst, [&](AnyTask& t) { return stream(t, 0) && in(t) && go(t); }, E(PACKET_WRITEHEADER)},
      {P, kSetUp, [&](AnyTask& t) { return write(t) && go(t); }, E(PACKET_PARAMETER)},
      {P, kFirst, [](AnyTask& t) { return AVFormat_Packet_StreamCreate(t.handle(), nullptr); }, E(PACKET_PARAMETER)},
      {P, kFirst, [&](AnyTask& t) { return stream(t) && write(t) && stream(t); }, E(PACKET_PARAMETER)},
      {P, kFirst, [&](AnyTask& t) { return scarce([&] { return AVFormat_Packet_StreamCreate(t.handle(), big.get()); }); }, E(PACKET_CODECPAR)},
      {P, kFirst, [&](AnyTask& t) { return stream(t) && AVFormat_Packet_StreamWrite(t.handle(), 0, data, 8, 0, 0); }, E(PACKET_PARAMETER)},
      {P, kFirst, [&](AnyTask& t) { return stream(t) && write(t, 1); }, E(PACKET_PARAMETER)},
      {P, kFirst, [&](AnyTask& t) { return stream(t) && write(t, -1); }, E(PACKET_PARAMETER)},
      {P, kFirst, [&](AnyTask& t) { return stream(t, 0) && write(t); }, E(PACKET_WRITEHEADER)},
      {P, kFirst, [&](AnyTask& t) { return stream(t, 0) && (write(t) || write(t)); }, E(PACKET_WRITEFRAME)},
      {P, kFirst, [&](AnyTask& t) { return stream(t) && write(t, 0, 5) && write(t); }, E(PACKET_WRITEFRAME)},
      {P, kHeld, to, E(PACKET_PARAMETER)}, {P, kHeld, in, E(PACKET_PARAMETER)}, {P, kHeld, go, E(PACKET_PARAMETER)},
      {P, kHeld, create, E(PACKET_THREAD)}, {P, kHeld, put, E(PACKET_THREAD)},
      {C, kNull, seek(C, 1), E(CONVERT_PARAMETER)}, {U, kNull, read(data), E(PACKET_PARAMETER)},
      {U, kNull, seek(U, 0), E(PACKET_PARAMETER)}, {U, kNull, get(0), E(PACKET_SEEK)},
      {P, kNull, create, E(PACKET_PARAMETER)}, {P, kNull, put, E(PACKET_PARAMETER)}};
  // clang-format on
#undef E
  for (const auto& [family, stage, call, code] : cases) {
    SCOPED_TRACE(testing::Message() << Name(family) << " at stage " << static_cast<int>(stage) << ", code " << code);
    AnyTask task(family);
    ASSERT_TRUE(task.Reach(stage, {{clip}}, {out}));
    EXPECT_FALSE(call(task));
    EXPECT_EQ(LastError(), (ErrorState{true, code})) << ToString(LastError());
  }
}

// A null handle fails every call with its family's code; a call that
// succeeds clears the flag and keeps the code; Stop accepts a null handle,
// clears the flag and never sets it. GetLastError adds errno and leaves the flag.
TEST(ErrorState, NullHandlesGiveEachFamilysCodeAndSuccessKeepsIt) {
  const auto after = [](bool) { return LastError(); };
  bool running;
  for (const Family family : kFamilies) {
    SCOPED_TRACE(Name(family));
    const Codes& codes = CodesOf(family);
    AnyTask task(family);
    EXPECT_EQ(after(task.Status(nullptr)), (ErrorState{true, codes.status})) << "no place for the status";
    ASSERT_TRUE(task.Reach(Stage::kNull, {}, {}));
    const ErrorState got[] = {after(task.Output({{TempPath("null.mkv")}})), after(task.Input({{LargePackets()}})),
                              after(task.Start()), after(task.Suspend(true)), after(task.Status(&running))};
    const uint64_t want[] = {codes.parameter, codes.parameter, codes.parameter, codes.control, codes.control};
    for (size_t i = 0; i < std::size(want); ++i) EXPECT_EQ(got[i], (ErrorState{true, want[i]})) << "call " << i;
    EXPECT_TRUE(task.Stop());
    EXPECT_EQ(LastError(), (ErrorState{false, codes.control}));
    EXPECT_FALSE(task.Start());
    AnyTask fresh(family);
    EXPECT_EQ(LastError(), (ErrorState{false, codes.parameter})) << "Init succeeded";
  }
  EXPECT_FALSE(AVFormat_Convert_Start(nullptr));
  errno = EAGAIN;
  int number = 0;
  EXPECT_EQ(AVFormat_GetLastError(&number), uint64_t{ERROR_AVFORMAT_CONVERT_PARAMETER}) << "with errno";
  EXPECT_EQ(number, EAGAIN);
  EXPECT_TRUE(AVForamt_IsErrorOccur) << "left as it was";
}

}  // namespace
