// What every family does with failing caller reads, broken files and a
// network source that goes silent: the documented code, or a worker that ends
// by itself and a Stop that leaves a valid file. (Failing writes and a full
// disk are the task report suite's.) The sanitizer lanes run these too, for
// leaks and heap errors.
#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "support/families.h"
#include "support/server.h"

namespace {

using namespace qtest;

// Broken inputs make FFmpeg complain at length; what matters is what the library reports.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
const Family kReaders[] = {Family::kConvert, Family::kUnpack, Family::kPacket};  // take a read function

// A clip a family's task is meant for: a multiplexing input has one stream.
std::string ClipFor(Family family, const std::string& extension) {
  return family == Family::kPacket ? VideoOnlyClip(extension) : VideoAudioClip(extension);
}

// The packets a task carries from the clip: a demultiplexing output holds stream 0 only.
size_t Carried(Family family, const std::string& clip) {
  const auto packets = ProbePackets(clip);
  return family == Family::kUnpack ? OfStream(packets, 0).size() : packets.size();
}

// A caller read function that fails (or reports the end) after a part of the
// file: before the container's header is complete, set-up gives the open
// code; later, the worker ends where the bytes end and Stop finishes the output.
TEST(ReliabilityReadFunction, FailsAtSetUpWithTheOpenCodeAndWhileRunningWithACleanEnd) {
  const std::string clip = VideoOnlyClip("mkv");
  const std::vector<uint8_t> bytes = ReadFile(clip);
  for (const Family family : kReaders)
    for (const double part : {0.0, 0.005, 0.6, 1.0})
      for (const int failure : {AVFORMAT_IO_EOF, AVERROR(EIO)}) {
        SCOPED_TRACE(testing::Message() << Name(family) << " after " << part << " of the file, failing with "
                                        << failure);
        MemoryReader reader(bytes);
        reader.fail_after = static_cast<long long>(part * static_cast<double>(bytes.size()));
        reader.failure = failure;
        AnyTask task(family);
        const Sink sink{TempPath("read-failure.mkv")};
        const bool set_up = part > 0.1;
        ASSERT_EQ(task.Reach(Stage::kEnded, {{"", &reader}}, {sink}), set_up);
        if (!set_up) {
          EXPECT_EQ(task.code, CodesOf(family).open);
          continue;
        }
        EXPECT_TRUE(task.Stop());
        EXPECT_GT(task.log.Count(), 0u);
        EXPECT_EQ(task.log.Count() == Carried(family, clip), part == 1.0);
        EXPECT_EQ(ProbeOutput(sink).size(), task.log.Count());
      }
}

// Truncated and bit-flipped real files: set-up or Start refuses them with one
// of the family's codes, or the worker carries what it can read and ends by
// itself, leaving an output that ffprobe reads.
TEST(ReliabilityBrokenFiles, GiveAnInputCodeOrACleanEnd) {
  struct Damage {
    const char* name;
    double kept;            // part of the file
    size_t from, to, step;  // bytes flipped
    uint8_t flip;
  };
  const Damage damages[] = {{"empty", 0, 0, 0, 1, 0},
                            {"first 5%", 0.05, 0, 0, 1, 0},
                            {"first half", 0.5, 0, 0, 1, 0},
                            {"header flipped", 1, 8, 200, 3, 0xff},
                            {"every 97th byte flipped", 1, 0, SIZE_MAX, 97, 0x55}};
  for (const char* extension : {"mkv", "mp4", "ts"})
    for (const Damage& damage : damages)
      for (const Family family : kFamilies) {
        SCOPED_TRACE(std::string(Name(family)) + ", " + extension + ", " + damage.name);
        std::vector<uint8_t> bytes = ReadFile(ClipFor(family, extension));
        bytes.resize(static_cast<size_t>(damage.kept * static_cast<double>(bytes.size())));
        for (size_t i = damage.from; i < std::min(damage.to, bytes.size()); i += damage.step) bytes[i] ^= damage.flip;
        const std::string broken = TempPath(std::string("broken.") + extension);
        WriteFile(broken, bytes);
        AnyTask task(family);
        const Sink sink{TempPath("from-broken.mkv")};
        if (!task.Reach(Stage::kSetUp, {{broken}}, sink) || !task.Start()) {
          const Codes& codes = CodesOf(family);
          EXPECT_TRUE(task.code == codes.open || task.code == codes.streaminfo || task.code == codes.codecpar ||
                      task.code == codes.header)
              << std::hex << task.code;
          continue;
        }
        EXPECT_TRUE(task.WaitForEnd());
        EXPECT_TRUE(task.Stop());
        if (task.log.Count() == 0) continue;
        const size_t written = ProbeOutput(sink).size();
        EXPECT_GT(written, 0u);
        EXPECT_LE(written, task.log.Count()) << "packets the muxer refused are dropped";
      }
}

// A network source sends the start of a file and then goes silent with the
// connection open: the worker blocks in a read. Stop ends that read through
// the interrupt callback within a second, and the output gets its trailer.
TEST(ReliabilityNetwork, StopEndsAReadThatBlocks) {
  std::vector<uint8_t> bytes = ReadFile(VideoOnlyClip("mkv"));
  bytes.resize(bytes.size() * 2 / 3);
  for (const Family family : kFamilies) {
    SCOPED_TRACE(Name(family));
    SilentServer server(bytes);
    AnyTask task(family);
    const Sink sink{TempPath(std::string("network-") + Name(family) + ".mkv")};
    ASSERT_TRUE(task.Reach(Stage::kSetUp, {{server.Url()}}, {sink}));
    ASSERT_TRUE(task.Start());
    size_t seen = 0;  // until the worker has taken what was sent and waits for more
    EXPECT_TRUE(WaitUntil([&] {
      const size_t now = task.log.Count();
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      return std::exchange(seen, now) == now && now > 0;
    }));
    EXPECT_TRUE(task.Running());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(task.Stop());
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_EQ(ProbeOutput(sink).size(), task.log.Count());
  }
}

}  // namespace
