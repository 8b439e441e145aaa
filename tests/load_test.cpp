// Many tasks of every family at once, driven from several threads that pause,
// resume, poll and stop them at random moments (a paused concatenation task
// is resumed before its Stop, as that family requires). Every output is then
// read back with ffprobe. The sanitizer lanes run it for races and leaks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "Quorvel_AVFormat.h"
#include "support/families.h"

namespace {

using namespace qtest;

constexpr int kThreads = 4;
constexpr int kTasks = 36;
const Family kFamilies[] = {Family::kConvert, Family::kUnpack, Family::kPacket, Family::kLink};
// However the dice fall, every task is stopped by then.
constexpr std::chrono::seconds kDeadline{10};

// Longer clips than the suites' own (150 video and 282 audio packets), so
// that tasks overlap; a multiplexing input has one stream.
std::string LoadClip(Family family) {
  if (family == Family::kPacket) return Clip("load-video.mkv", "-f lavfi -i testsrc=d=6:s=64x48:r=25 -c:v mpeg4");
  return Clip("load.mkv", "-f lavfi -i testsrc=d=6:s=64x48:r=25 -f lavfi -i sine=d=6 -c:v mpeg4 -c:a aac");
}

// The packets a task carries when it runs to the end: a demultiplexing output holds stream 0 only.
size_t Carried(Family family) {
  const auto packets = ProbePackets(LoadClip(family));
  return family == Family::kUnpack ? OfStream(packets, 0).size() : packets.size();
}

struct Job {
  Job(Family family, int index, std::mt19937& dice)
      : reader(ReadFile(LoadClip(family))), task(family, log, std::chrono::microseconds(dice() % 3000)) {
    const char* extensions[] = {"mkv", "nut", "ts"};
    sink.name = TempPath("load-" + std::to_string(index) + "." + extensions[index % 3]);
    source.url = LoadClip(family);
    // All but concatenation also take caller I/O, on one side or both.
    if (family != Family::kLink) {
      if (dice() % 3 == 0) source.reader = &reader;
      if (dice() % 3 == 0) sink = Sink{"matroska", &writer};
    }
  }
  MemoryReader reader;
  MemoryWriter writer;
  Source source;
  Sink sink;
  ProgressLog log;
  AnyTask task;
  bool ended = false;  // GetStatus saw the worker end by itself
};

struct Tally {
  std::map<Family, size_t> carried;  // by a task that runs to the end, for each family
  std::atomic<int> ended{0}, checked{0};
};

// Sets up and starts its jobs, acts on them at random until all are stopped,
// then reads their outputs back.
void Drive(std::vector<Job*> jobs, unsigned start, Tally& tally) {
  std::mt19937 dice(start);
  for (Job* job : jobs) {
    EXPECT_TRUE(job->task.SetUp(job->source, job->sink)) << Name(job->task.family);
    EXPECT_TRUE(job->task.Start()) << Name(job->task.family);
  }
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  std::vector<Job*> live = jobs;
  while (!live.empty()) {
    const size_t pick = dice() % live.size();
    Job& job = *live[pick];
    const unsigned action = dice() % 10;
    if (action == 0 || std::chrono::steady_clock::now() > deadline) {
      EXPECT_TRUE(job.task.Stop());
      live.erase(live.begin() + static_cast<long>(pick));
    } else if (action <= 3) {
      EXPECT_TRUE(job.task.Suspend(action <= 2));
    } else if (!job.task.Running()) {
      job.ended = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(dice() % 20));
  }

  for (Job* job : jobs) {
    const Family family = job->task.family;
    SCOPED_TRACE(std::string(Name(family)) + " writing " + job->sink.name);
    // A task that ended by itself carried its whole input, pauses or not.
    if (job->ended) {
      ++tally.ended;
      EXPECT_EQ(job->log.Count(), tally.carried.at(family));
    }
    // Every packet reported is in an output that ffprobe reads, trailer and all.
    if (job->log.Count() == 0) {
      // An empty container is not readable in every format; its header and
      // trailer are there, except in MPEG-TS, which writes its tables with
      // the first packet and so stays empty without one.
      const std::string& name = job->sink.name;
      const bool tables_with_first_packet =
          name == "mpegts" || (name.size() > 3 && name.compare(name.size() - 3, 3, ".ts") == 0);
      if (!tables_with_first_packet) {
        EXPECT_GT(job->sink.writer != nullptr ? job->writer.data.size() : ReadFile(job->sink.name).size(), 0u);
      }
      continue;
    }
    EXPECT_EQ(ProbeOutput(job->sink).size(), job->log.Count());
    ++tally.checked;
  }
}

TEST(Load, ManyTasksOfEveryFamilyPausedResumedAndStoppedAtRandom) {
  unsigned start = std::random_device{}();
  if (const char* fixed = std::getenv("QUORVEL_LOAD_DICE"))
    start = static_cast<unsigned>(std::strtoul(fixed, nullptr, 10));
  std::cout << "dice " << start << " (set QUORVEL_LOAD_DICE to repeat this run)\n";
  std::mt19937 dice(start);

  std::vector<std::unique_ptr<Job>> jobs;
  for (int i = 0; i < kTasks; ++i) jobs.push_back(std::make_unique<Job>(kFamilies[i % std::size(kFamilies)], i, dice));
  Tally tally;
  for (const Family family : kFamilies) tally.carried[family] = Carried(family);
  std::vector<std::thread> drivers;
  for (int t = 0; t < kThreads; ++t) {
    std::vector<Job*> mine;
    for (int i = t; i < kTasks; i += kThreads) mine.push_back(jobs[static_cast<size_t>(i)].get());
    drivers.emplace_back(Drive, mine, dice(), std::ref(tally));
  }
  for (std::thread& driver : drivers) driver.join();
  for (const auto& job : jobs) EXPECT_TRUE(job->task.Stopped());
  std::cout << tally.ended << " tasks ended by themselves, " << kTasks - tally.ended
            << " were stopped before GetStatus saw them end\n";
  EXPECT_GT(tally.checked, kTasks / 2) << "most tasks moved packets before their Stop";
}

}  // namespace
