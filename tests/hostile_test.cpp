// SPDX-License-Identifier: MIT
// What hostile input and careless callers do to a task: read functions that
// say 0, claim more than they were asked for, stall or fail; a network source
// that goes silent; Stop from inside the task's own progress callback;
// playlists that reach for other files and the network. The sanitizer lanes
// run these for leaks.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/families.h"
#include "support/server.h"

namespace qtest {
namespace {

const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
std::vector<uint8_t> Bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

// A read function that delivers `bytes` and then says 0 forever, or fails
// with EIO; or claims more than it was asked for from its first call; or
// stalls on endless zeros.
enum class Misread { kZero, kFails, kTooMuch, kStalls };
struct HostileReader {
  std::vector<uint8_t> bytes;
  Misread how;
  size_t at = 0;
  std::atomic<bool> stalled{false};
  static int Read(void* context, unsigned char* buffer, int size) {
    auto* self = static_cast<HostileReader*>(context);
    const size_t count = std::min(self->bytes.size() - self->at, static_cast<size_t>(size));
    std::memcpy(buffer, self->bytes.data() + self->at, count);
    self->at += count;
    if (count > 0) return self->how == Misread::kTooMuch ? size + 1 : static_cast<int>(count);
    if (self->how != Misread::kStalls) return self->how == Misread::kFails ? AVERROR(EIO) : 0;
    self->stalled = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::memset(buffer, 0, static_cast<size_t>(size = std::min(size, 4096)));
    return size;
  }
};

// Of a clip, all or a part (in thousandths) is delivered. Too little for the
// header, or too much, and Input is refused with the open code; otherwise the
// run ends by itself (or, once stalled, a Stop from another thread returns
// within a second) with every reported packet in the output.
TEST(HostileReaders, AreRefusedAtInputOrEndTheRunWithAWholeOutput) {
  const std::vector<uint8_t> clip = ReadFile(Clip("long.mkv", "-f lavfi -i testsrc=d=20:s=32x24:r=25 -c:v mpeg4"));
  bool (*const inputs[])(void*, const char*, AVFORMAT_IO_FUNCTION, void*) = {
      AVFormat_Convert_Input, AVFormat_UNPack_Input, AVFormat_Packet_Input};
  // clang-format off
  const std::tuple<Misread, size_t, bool> cases[] = {{Misread::kZero, 1000, true}, {Misread::kFails, 5, false},
      {Misread::kFails, 600, true}, {Misread::kTooMuch, 1000, false}, {Misread::kStalls, 1000, true}};
  // clang-format on
  for (Family family : {Family::kConvert, Family::kUnpack, Family::kPacket})
    for (const auto& [how, part, opens] : cases) {
      SCOPED_TRACE(std::string(Name(family)) + ", misread " + std::to_string(static_cast<int>(how)));
      HostileReader reader{{clip.begin(), clip.begin() + static_cast<long>(clip.size() * part / 1000)}, how};
      AnyTask task(family);
      const Sink sink{TempPath("misread.mkv")};
      const bool input_first = family == Family::kUnpack;
      const bool opened = (input_first || task.Output(sink)) &&
                          inputs[static_cast<int>(family)](task.handle(), nullptr, HostileReader::Read, &reader);
      ASSERT_EQ(opened, opens);
      if (!opened) {
        EXPECT_EQ(AVFormat_GetLastError(nullptr), CodesOf(family).open);
        continue;
      }
      ASSERT_TRUE((!input_first || task.Output(sink)) && task.Start());
      const bool stalls = how == Misread::kStalls;
      EXPECT_TRUE(stalls ? WaitUntil([&] { return reader.stalled.load(); }) : task.WaitForEnd());
      const size_t reported = task.log.Count();
      EXPECT_TRUE(stalls ? task.StopFromAnotherThread(std::chrono::seconds(1)) : task.Stop());
      EXPECT_GT(reported, 0u);
      EXPECT_TRUE(stalls || ProbeOutput(sink).size() == reported);
    }
}

// A network source sends the start of a file and goes silent with the
// connection open: Stop ends the blocked read through the interrupt callback
// within a second, and the output gets its trailer.
TEST(SilentNetwork, StopEndsAReadThatBlocks) {
  std::vector<uint8_t> bytes = ReadFile(VideoOnlyClip("mkv"));
  bytes.resize(bytes.size() * 2 / 3);
  for (const Family family : kFamilies) {
    SCOPED_TRACE(Name(family));
    SilentServer server(bytes);
    AnyTask task(family);
    const Sink sink{TempPath(std::string("network-") + Name(family) + ".mkv")};
    ASSERT_TRUE(task.Reach(Stage::kSetUp, {{server.Url()}}, {sink}) && task.Start());
    size_t seen = 0;  // until the worker has taken what was sent and waits for more
    EXPECT_TRUE(WaitUntil([&] {
      const size_t now = task.log.Count();
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      return std::exchange(seen, now) == now && now > 0;
    }));
    EXPECT_TRUE(task.Running());
    EXPECT_TRUE(task.StopFromAnotherThread(std::chrono::seconds(1)));
    EXPECT_EQ(ProbeOutput(sink).size(), task.log.Count());
  }
}

// Stop from another thread while the caller's own thread waits in FFmpeg: in
// Input, on a source that sends nothing, in every family; in the pull Read,
// on a source gone silent halfway. The call ends as a stopped one, and Stop
// returns once it has, never releasing what the call still uses. (A call that
// returns a packet after the abort is not followed by another: `stopping`.)
TEST(StopFromAnotherThread, EndsACallWaitingOnTheCallersThread) {
  std::vector<uint8_t> half = ReadFile(VideoOnlyClip("ts"));
  half.resize(half.size() / 2);
  for (const auto& [family, pull] : {std::pair{Family::kConvert, false},
                                     {Family::kUnpack, false},
                                     {Family::kPacket, false},
                                     {Family::kLink, false},
                                     {Family::kUnpack, true}}) {
    SCOPED_TRACE(std::string(Name(family)) + (pull ? ", Read" : ", Input"));
    SilentServer server(pull ? half : std::vector<uint8_t>());
    AnyTask task(family);
    ASSERT_TRUE(task.Set("input.analyzeduration", "100000"));  // Input returns on what was sent
    ASSERT_TRUE(family == Family::kUnpack || task.Output({TempPath("waiting.mkv")}));
    void* const handle = task.handle();
    std::atomic<int> packets{0};
    std::atomic<bool> stopping{false};
    std::thread caller([&, url = server.Url()] {
      const char* name = url.c_str();
      const bool opened = family == Family::kConvert  ? AVFormat_Convert_Input(handle, name, nullptr, nullptr)
                          : family == Family::kUnpack ? AVFormat_UNPack_Input(handle, name, nullptr, nullptr)
                          : family == Family::kPacket ? AVFormat_Packet_Input(handle, name, nullptr, nullptr)
                                                      : AVFormat_Link_Input(handle, name, 0, 0, 0, 1);
      int stream = 0, size = 0, flags = 0;
      std::vector<unsigned char> data(1 << 20);
      while (opened && !stopping &&
             AVFormat_UNPack_ReadSized(handle, &stream, data.data(), static_cast<int>(data.size()), &size, &flags,
                                       nullptr, nullptr))
        ++packets;
    });
    int seen = -1;  // until the caller's thread has taken what was sent and waits for more
    EXPECT_TRUE(WaitUntil([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      return std::exchange(seen, packets.load()) == packets && (!pull || seen > 0);
    }));
    stopping = true;
    EXPECT_TRUE(task.Stop());
    caller.join();
  }
}

// Stop at the third progress call; the worker ends the task itself, and an
// MP4 file, which has no index until its trailer, shows that it did.
TEST(StopInsideProgressCallback, ReturnsAtOnceAndTheWorkerWritesTheTrailer) {
  for (Family family : kFamilies) {
    SCOPED_TRACE(Name(family));
    AnyTask task(family);
    const Sink sink{TempPath(std::string("stopped-inside-") + Name(family) + ".mp4")};
    ASSERT_TRUE(task.Reach(Stage::kSetUp, {{VideoAudioClip("mkv")}}, sink));
    std::atomic<bool> returned{false};
    task.on_progress = [&] { returned = returned || (task.log.Count() == 3 && task.Stop()); };
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(WaitUntil([&] { return !ProbeOutput(sink).empty(); }));  // readable once the trailer is written
    EXPECT_TRUE(returned);
    const size_t written = ProbeOutput(sink).size();
    EXPECT_TRUE(written > 0 && written < 20) << written;
  }
}

// One playlist: a neighbour file's segment, then one served over http on the
// loopback (once: a library that fetched it would carry 100 packets). Opened
// by name it plays its neighbour only (FFmpeg's default for a local file:
// file, crypto, data); read through a read function it opens neither, and the
// input is refused.
TEST(Playlists, NamedOnesOpenTheirNeighboursBridgedOnesNothing) {
  const std::string segment = VideoOnlyClip("ts"), playlist = TempPath("playlist.m3u8");
  const std::vector<uint8_t> body = ReadFile(segment);
  std::string text = "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  const SilentServer server((text += std::string(body.begin(), body.end()), Bytes(text)));
  text = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\n" + std::filesystem::path(segment).filename().string() +
         "\n#EXTINF:2,\nhttp" + server.Url().substr(3) + "/segment.ts\n#EXT-X-ENDLIST\n";
  WriteFile(playlist, Bytes(text));
  for (Family family : {Family::kConvert, Family::kPacket})
    for (bool bridged : {false, true}) {
      MemoryReader reader(Bytes(text));
      AnyTask task(family);
      EXPECT_EQ(task.Reach(Stage::kEnded, {bridged ? Source{"", &reader} : Source{playlist}}, {TempPath("hls.mkv")}),
                !bridged);
      EXPECT_EQ(task.log.Count(), bridged ? 0u : 50u) << Name(family) << (bridged ? ", bridged" : ", by name");
    }
}

// A live playlist (no end tag) whose one segment can't be opened: FFmpeg
// waits the hour it names for the next version of the list. open_timeout
// ends that wait in Input, which then fails as an open that failed; the same
// playlist by name and through a read function.
TEST(Playlists, OpenTimeoutEndsTheWaitForALiveOnesNextSegment) {
  const std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:3600\n#EXTINF:3600,\nmissing.ts\n";
  const std::string playlist = TempPath("live.m3u8");
  WriteFile(playlist, Bytes(text));
  for (Family family : kFamilies)
    for (bool bridged : {false, true}) {
      if (bridged && family == Family::kLink) continue;  // takes names only
      MemoryReader reader(Bytes(text));
      AnyTask task(family);
      ASSERT_TRUE(task.Set("open_timeout", "0.2"));
      EXPECT_FALSE(
          task.Reach(Stage::kSetUp, {bridged ? Source{"", &reader} : Source{playlist}}, {TempPath("live.mkv")}));
      EXPECT_EQ(task.code, CodesOf(family).open) << Name(family) << (bridged ? ", bridged" : ", by name");
    }
}

}  // namespace
}  // namespace qtest
