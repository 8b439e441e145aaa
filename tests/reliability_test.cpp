// What every family does with failing caller I/O, a full disk, broken files,
// names it can't use and a network source that goes silent: the documented
// code, or a worker that ends by itself and a Stop that leaves a valid file.
// The sanitizer lanes run these too, for leaks and heap errors.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <set>

#include "Quorvel_AVFormat.h"
#include "support/families.h"
#include "support/server.h"

namespace {

using namespace qtest;

// Broken inputs make FFmpeg complain at length; what matters is what the library reports.
const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);

// The code a family gives when an input can't be opened, or an output file can't be created.
uint64_t OpenCode(Family family) {
  switch (family) {
    case Family::kConvert: return ERROR_AVFORMAT_CONVERT_OPEN;
    case Family::kUnpack:
    case Family::kPacket: return ERROR_AVFORMAT_PACKET_OPEN;
    case Family::kLink: return ERROR_AVFORMAT_LINK_OPEN;
  }
  return 0;
}

// The code a family gives when no container goes by an output's name.
uint64_t FormatCode(Family family) {
  switch (family) {
    case Family::kConvert: return ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT;
    case Family::kUnpack:
    case Family::kPacket: return ERROR_AVFORMAT_PACKET_OUTPUTFORMAT;
    case Family::kLink: return ERROR_AVFORMAT_LINK_OUTPUTFORMAT;
  }
  return 0;
}

// Families that can read through a caller function, and all of them.
const Family kReaders[] = {Family::kConvert, Family::kUnpack, Family::kPacket};
const Family kAll[] = {Family::kConvert, Family::kUnpack, Family::kPacket, Family::kLink};

// A clip a family's task is meant for: a multiplexing input has one stream.
std::string ClipFor(Family family, const std::string& extension) {
  return family == Family::kPacket ? VideoOnlyClip(extension) : VideoAudioClip(extension);
}

// Packets of the clip that a family's task carries: a demultiplexing output holds stream 0 only.
size_t Carried(Family family, const std::string& clip) {
  const auto packets = ProbePackets(clip);
  return family == Family::kUnpack ? OfStream(packets, 0).size() : packets.size();
}

// After the worker has ended and the task is stopped: every reported packet is
// in an output that an independent reader accepts (the trailer was written).
void ExpectEveryReportedPacketWritten(const Sink& sink, const ProgressLog& log) {
  if (log.Count() == 0) return;  // an empty container is not readable in every format
  EXPECT_EQ(ProbeOutput(sink).size(), log.Count());
}

// A caller read function that fails (or reports the end) after a number of
// bytes: before the container's header is complete, Input gives the open
// code; later, set-up succeeds and the worker ends where the bytes end.
TEST(ReliabilityReadFunction, FailsAtSetUpWithTheOpenCodeAndWhileRunningWithACleanEnd) {
  const std::string clip = VideoOnlyClip("mkv");
  const std::vector<uint8_t> bytes = ReadFile(clip);
  struct Case {
    double fraction;  // of the file delivered before the failure
    bool set_up;      // whether set-up still succeeds
  };
  const Case cases[] = {{0.0, false}, {0.005, false}, {0.6, true}, {1.0, true}};
  for (const Family family : kReaders)
    for (const Case& c : cases)
      for (const int failure : {AVFORMAT_IO_EOF, AVERROR(EIO)}) {
        SCOPED_TRACE(std::string(Name(family)) + " after " + std::to_string(c.fraction) + " of the file, " +
                     (failure == AVFORMAT_IO_EOF ? "end of input" : "I/O error"));
        MemoryReader reader(bytes);
        reader.fail_after = static_cast<long long>(c.fraction * static_cast<double>(bytes.size()));
        reader.failure = failure;
        ProgressLog log;
        AnyTask task(family, log);
        const Sink sink{TempPath("read-failure.mkv")};
        ASSERT_EQ(task.SetUp(Source{"", &reader}, sink), c.set_up);
        if (!c.set_up) {
          EXPECT_EQ(task.code, OpenCode(family));
          continue;
        }
        ASSERT_TRUE(task.Start());
        EXPECT_TRUE(task.WaitForEnd());
        EXPECT_TRUE(task.Stop());
        const size_t all = Carried(family, clip);
        if (c.fraction < 1.0) {
          EXPECT_GT(log.Count(), 0u);
          EXPECT_LT(log.Count(), all);
        } else {
          EXPECT_EQ(log.Count(), all);
        }
        ExpectEveryReportedPacketWritten(sink, log);
      }
}

// Pulling packets stops with the read code where the caller's function fails,
// and stays there.
TEST(ReliabilityReadFunction, ReadLoopEndsWithTheReadCode) {
  const std::vector<uint8_t> bytes = ReadFile(VideoOnlyClip("mkv"));
  for (const int failure : {AVFORMAT_IO_EOF, AVERROR(EIO)}) {
    MemoryReader reader(bytes);
    reader.fail_after = static_cast<long long>(bytes.size() / 2);
    reader.failure = failure;
    void* task = AVFormat_UNPack_Init(nullptr, nullptr);
    ASSERT_TRUE(AVFormat_UNPack_Input(task, nullptr, MemoryReader::Read, &reader));
    static unsigned char data[1 << 20];
    int stream = -1, size = 0, pulled = 0;
    while (AVFormat_UNPack_Read(task, &stream, data, &size, nullptr, nullptr)) ++pulled;
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
    EXPECT_GT(pulled, 0);
    EXPECT_LT(pulled, 50);
    EXPECT_FALSE(AVFormat_UNPack_Read(task, &stream, data, &size, nullptr, nullptr));
    EXPECT_EQ(LastError(), (ErrorState{true, ERROR_AVFORMAT_PACKET_READ}));
    EXPECT_TRUE(AVFormat_UNPack_Stop(task));
  }
}

// A failed header write that happens only when the bridge's buffer is handed
// on is not reported: set-up and Start succeed, and the worker meets the
// failure. Conversion and multiplexing drop what the muxer refuses and run to
// the end; demultiplexing ends at the first refused packet. Either way the
// task ends by itself and Stop releases it.
TEST(ReliabilityWriteFunction, FailingWritesEndTheTaskCleanly) {
  struct Case {
    Family family;
    bool ends_at_failure;
  };
  const Case cases[] = {{Family::kConvert, false}, {Family::kUnpack, true}, {Family::kPacket, false}};
  for (const Case& c : cases)
    for (const long long accepted : {0LL, 1000LL}) {
      SCOPED_TRACE(std::string(Name(c.family)) + ", writes fail after " + std::to_string(accepted) + " bytes");
      const std::string clip = ClipFor(c.family, "mkv");
      MemoryWriter writer;
      writer.fail_after = accepted;
      ProgressLog log;
      AnyTask task(c.family, log);
      ASSERT_TRUE(task.SetUp(Source{clip}, Sink{"matroska", &writer}));
      ASSERT_TRUE(task.Start());
      EXPECT_TRUE(task.WaitForEnd());
      EXPECT_TRUE(task.Stop());
      EXPECT_GT(writer.calls, 0);
      if (c.ends_at_failure) {
        EXPECT_LT(log.Count(), Carried(c.family, clip));
      } else {
        EXPECT_EQ(log.Count(), Carried(c.family, clip));
      }
    }
}

// A full disk: the file opens, every write fails. Each family's task ends by
// itself and Stop releases it.
TEST(ReliabilityFullDisk, EveryFamilyEndsCleanlyOnDevFull) {
  const std::string full = TempPath("full.mkv");  // the name gives the container
  ASSERT_EQ(symlink("/dev/full", full.c_str()), 0);
  for (const Family family : kAll) {
    SCOPED_TRACE(Name(family));
    ProgressLog log;
    AnyTask task(family, log);
    ASSERT_TRUE(task.SetUp(Source{ClipFor(family, "mkv")}, Sink{full}));
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(task.WaitForEnd());
    EXPECT_TRUE(task.Stop());
  }
}

// The codes each family may give for an input that is not a valid container.
std::set<uint64_t> BadInputCodes(Family family) {
  switch (family) {
    case Family::kConvert:
      return {ERROR_AVFORMAT_CONVERT_OPEN, ERROR_AVFORMAT_CONVERT_STREAMINFO, ERROR_AVFORMAT_CONVERT_CODECPAR,
              ERROR_AVFORMAT_CONVERT_WRITEHEADER};
    case Family::kUnpack:
    case Family::kPacket:
      return {ERROR_AVFORMAT_PACKET_OPEN, ERROR_AVFORMAT_PACKET_PARAMETER, ERROR_AVFORMAT_PACKET_CODECPAR,
              ERROR_AVFORMAT_PACKET_WRITEHEADER};
    case Family::kLink:
      return {ERROR_AVFORMAT_LINK_OPEN, ERROR_AVFORMAT_LINK_STREAMINFO, ERROR_AVFORMAT_LINK_CODECPAR,
              ERROR_AVFORMAT_LINK_WRITEHEADER};
  }
  return {};
}

// Truncated and bit-flipped real files: set-up or Start refuses them with one
// of the family's codes, or the worker carries what it can read and ends by
// itself, leaving an output that ffprobe reads.
TEST(ReliabilityBrokenFiles, GiveAnInputCodeOrACleanEnd) {
  struct Damage {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> apply;
  };
  const Damage damages[] = {
      {"empty", [](std::vector<uint8_t>& b) { b.clear(); }},
      {"first 5%", [](std::vector<uint8_t>& b) { b.resize(b.size() / 20); }},
      {"first half", [](std::vector<uint8_t>& b) { b.resize(b.size() / 2); }},
      {"header flipped",
       [](std::vector<uint8_t>& b) {
         for (size_t i = 8; i < 200 && i < b.size(); i += 3) b[i] ^= 0xff;
       }},
      {"every 97th byte flipped",
       [](std::vector<uint8_t>& b) {
         for (size_t i = 0; i < b.size(); i += 97) b[i] ^= 0x55;
       }},
  };
  for (const char* extension : {"mkv", "mp4", "ts"})
    for (const Damage& damage : damages)
      for (const Family family : kAll) {
        SCOPED_TRACE(std::string(Name(family)) + ", " + extension + ", " + damage.name);
        std::vector<uint8_t> bytes = ReadFile(ClipFor(family, extension));
        damage.apply(bytes);
        const std::string broken = TempPath(std::string("broken.") + extension);
        WriteFile(broken, bytes);
        ProgressLog log;
        AnyTask task(family, log);
        const Sink sink{TempPath("from-broken.mkv")};
        if (!task.SetUp(Source{broken}, sink) || !task.Start()) {
          EXPECT_EQ(BadInputCodes(family).count(task.code), 1u) << std::hex << task.code;
          continue;
        }
        EXPECT_TRUE(task.WaitForEnd());
        EXPECT_TRUE(task.Stop());
        if (log.Count() > 0) {
          const size_t written = ProbeOutput(sink).size();
          EXPECT_GT(written, 0u);
          EXPECT_LE(written, log.Count()) << "packets the muxer refused are dropped";
        }
      }
}

// Inputs that aren't there or can't be read, and outputs whose name tells no
// container, each with the family's code.
TEST(ReliabilityNames, MissingInputsAndUnknownOutputsGiveTheirCodes) {
  const std::string clip = VideoAudioClip("mkv"), output = TempPath("names.mkv");
  const std::string directory = TempPath("a-directory.mkv");
  MemoryWriter writer;
  mkdir(directory.c_str(), 0755);
  struct Case {
    const char* name;
    Source source;
    Sink sink;
    uint64_t (*code)(Family);
  };
  const Case cases[] = {
      {"missing input file", Source{TempPath("missing.mkv")}, Sink{output}, OpenCode},
      {"a directory as input", Source{directory}, Sink{output}, OpenCode},
      {"output name with an unknown extension", Source{clip}, Sink{TempPath("out.nosuchcontainer")}, FormatCode},
      // concatenation takes no write function: there the name is a file name without extension
      {"unknown format name for a write function", Source{clip}, Sink{"nosuchformat", &writer}, FormatCode},
      {"a directory as output", Source{clip}, Sink{directory}, OpenCode},
  };
  for (const Case& c : cases)
    for (const Family family : kAll) {
      SCOPED_TRACE(std::string(Name(family)) + ": " + c.name);
      ProgressLog log;
      AnyTask task(family, log);
      EXPECT_FALSE(task.SetUp(c.source, c.sink));
      EXPECT_EQ(task.code, c.code(family)) << std::hex << task.code;
      EXPECT_TRUE(task.Stop());
    }
}

// Without read permission a file can't be opened. Root reads every file
// whatever its mode, so there the case proves nothing and is skipped.
TEST(ReliabilityNames, UnreadableInputGivesTheOpenCode) {
  if (geteuid() == 0) GTEST_SKIP() << "running as root, which reads a file of mode 000";
  const std::string locked = TempPath("locked.mkv");
  WriteFile(locked, ReadFile(VideoAudioClip("mkv")));
  ASSERT_EQ(chmod(locked.c_str(), 0), 0);
  for (const Family family : kAll) {
    ProgressLog log;
    AnyTask task(family, log);
    EXPECT_FALSE(task.SetUp(Source{locked}, Sink{TempPath("locked-out.mkv")}));
    EXPECT_EQ(task.code, OpenCode(family)) << Name(family);
  }
}

// Holds the worker inside one progress call until opened, so that a Stop
// arrives at a known moment: conversion writes the packet right after it.
struct Gate {
  static void Hold(void*, int, long long number, double, void* context) {
    auto* gate = static_cast<Gate*>(context);
    if (number == gate->at) {
      gate->entered = true;
      while (!gate->open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ++gate->calls;
  }
  long long at = 5;
  std::atomic<bool> entered{false}, open{false};
  std::atomic<int> calls{0};
};

// A Stop that comes while the worker writes a packet to a file waits for the
// write: the packet, and every one before it, is in the file, and so is the
// trailer. Packets larger than the file's buffer go to the disk at once.
TEST(ReliabilityStop, StopDuringAFileWriteKeepsEveryReportedPacket) {
  SyntheticStream large;
  large.codec = AV_CODEC_ID_MJPEG;
  large.size = 100000;
  large.count = 20;
  const std::string input = TempPath("large-packets.nut");
  WriteSynthetic(input, "nut", {large});
  for (const char* extension : {"nut", "ts"}) {
    SCOPED_TRACE(extension);
    const std::string output = TempPath(std::string("stopped-writing.") + extension);
    Gate gate;
    void* task = AVFormat_Convert_Init(Gate::Hold, &gate);
    ASSERT_TRUE(AVFormat_Convert_Output(task, output.c_str(), 0, 0, nullptr, nullptr));
    ASSERT_TRUE(AVFormat_Convert_Input(task, input.c_str(), nullptr, nullptr));
    ASSERT_TRUE(AVFormat_Convert_Start(task));
    ASSERT_TRUE(WaitUntil([&] { return gate.entered.load(); }));
    std::thread stopper([&] { AVFormat_Convert_Stop(task); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // Stop has raised the abort flag by now
    gate.open = true;
    stopper.join();
    EXPECT_EQ(gate.calls, gate.at + 1);
    EXPECT_EQ(ProbePackets(output).size(), static_cast<size_t>(gate.calls));
  }
}

// A network source sends the start of a file and then goes silent with the
// connection open: the worker blocks in a read. Stop ends that read through
// the interrupt callback within a second, and the output gets its trailer.
TEST(ReliabilityNetwork, StopEndsAReadThatBlocks) {
  std::vector<uint8_t> bytes = ReadFile(VideoOnlyClip("mkv"));
  bytes.resize(bytes.size() * 2 / 3);
  for (const Family family : {Family::kUnpack, Family::kPacket, Family::kLink}) {
    SCOPED_TRACE(Name(family));
    SilentServer server(bytes);
    ProgressLog log;
    AnyTask task(family, log);
    const Sink sink{TempPath(std::string("network-") + Name(family) + ".mkv")};
    ASSERT_TRUE(task.SetUp(Source{server.Url()}, sink));
    ASSERT_TRUE(task.Start());
    // Until the worker has taken what was sent and waits for more.
    size_t seen = 0;
    EXPECT_TRUE(WaitUntil([&] {
      const size_t now = log.Count();
      const bool settled = now > 0 && now == seen;
      seen = now;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      return settled;
    }));
    EXPECT_TRUE(task.Running());

    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(task.Stop());
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    ExpectEveryReportedPacketWritten(sink, log);
  }
}

}  // namespace
