// Task reports: what every family read, wrote and had refused, and the first
// write error, so that a full disk or a caller write function that fails or
// takes only part of its bytes is never a silent success. Counts are checked
// against ffprobe; the reports are read while the worker runs (the thread
// sanitizer lane watches that).
#include <gtest/gtest.h>
#include <unistd.h>

#include <tuple>

#include "support/families.h"

namespace {

using namespace qtest;

const int kQuiet = (av_log_set_level(AV_LOG_FATAL), 0);
using ReportCall = bool (*)(void*, AVFORMAT_TASK_REPORT*);
const ReportCall kGet[] = {AVFormat_Convert_GetReport, AVFormat_UNPack_GetReport, AVFormat_Packet_GetReport,
                           AVFormat_Link_GetReport};  // in the order of qtest::Family
const ReportCall kStopWith[] = {AVFormat_Convert_StopWithReport, AVFormat_UNPack_StopWithReport,
                                AVFormat_Packet_StopWithReport, AVFormat_Link_StopWithReport};

AVFORMAT_TASK_REPORT Record(uint32_t size = sizeof(AVFORMAT_TASK_REPORT)) {
  AVFORMAT_TASK_REPORT report{};
  report.dwSize = size;
  return report;
}
const std::string kFullDisk = TempPath("full.mkv");  // the name gives the container
const int kLinked = symlink("/dev/full", kFullDisk.c_str());

// Every family to a file, a caller's write function that takes all or fails
// after some bytes, and a full disk. The report is read all along; before
// Stop it has no trailer.
TEST(TaskReport, CountsWhatEachFamilyWroteAndItsFirstWriteError) {
  for (const Family family : kFamilies)
    for (const long long accepted : {-3LL, -2LL, -1LL, 0LL, 3000LL}) {  // -3: a file, -2: all, -1: the full disk
      if (family == Family::kLink && accepted != -3 && accepted != -1) continue;
      SCOPED_TRACE(testing::Message() << Name(family) << ", writes fail after " << accepted << " bytes");
      const int f = static_cast<int>(family);
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
        EXPECT_TRUE(kGet[f](task.handle(), &report) && report.llPacketsRead >= read);
      EXPECT_TRUE(kGet[f](task.handle(), &report) && report.bTrailerWritten == 0);
      EXPECT_TRUE(kStopWith[f](task.Release(), &report));
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
  const std::pair<Write, int> cases[] = {{[](void*, unsigned char*, int n) { return n; }, 0},
                                         {[](void*, unsigned char*, int n) { return n - 1; }, AVERROR(EIO)},
                                         {[](void*, unsigned char*, int) { return 0; }, AVERROR(EIO)},
                                         {[](void*, unsigned char*, int) { return AVERROR(EPIPE); }, AVERROR(EPIPE)}};
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
    EXPECT_TRUE(kGet[static_cast<int>(family)](task.handle(), longer) && longer[1].dwSize == 42);
    EXPECT_FALSE(kStopWith[static_cast<int>(family)](task.Release(), &small));
    EXPECT_EQ(LastError(), (ErrorState{true, CodesOf(family).parameter}));
  }
}

// The tool's commands fail on a full disk with the system's reason.
TEST(TaskReport, ToolExitsWith1AndTheSystemsReasonWhenTheOutputFails) {
  if (!*QUORVEL_TOOL_FILE) GTEST_SKIP() << "built without the tool";
  const std::string av = VideoAudioClip("mkv");
  for (const std::string& arguments :
       {"convert " + av + " " + kFullDisk, "split " + av + " 0=" + kFullDisk,
        "mux " + kFullDisk + " " + VideoOnlyClip("mkv"), "concat " + kFullDisk + " " + av}) {
    std::string output;
    EXPECT_EQ(qtest::Run(QUORVEL_TOOL_FILE " --quiet " + arguments + " 2>&1", &output), 1) << arguments;
    EXPECT_NE(output.find("No space left on device"), std::string::npos) << arguments << "\n" << output;
  }
}

}  // namespace
