// Many tasks of every family at once, with file and caller I/O, driven from
// several threads that pause, resume, poll and stop them at random moments.
// Every output is then read back with ffprobe. The sanitizer lanes run it for
// races and leaks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "support/families.h"

namespace {

using namespace qtest;

constexpr int kThreads = 4, kTasks = 36;

// Longer clips than the suites' own (150 video and 282 audio packets), so
// that tasks overlap; a multiplexing input has one stream.
std::string LoadClip(Family family) {
  if (family == Family::kPacket) return Clip("load-video.mkv", "-f lavfi -i testsrc=d=6:s=64x48:r=25 -c:v mpeg4");
  return Clip("load.mkv", "-f lavfi -i testsrc=d=6:s=64x48:r=25 -f lavfi -i sine=d=6 -c:v mpeg4 -c:a aac");
}

struct Job {
  Job(Family family, int index, unsigned dice)
      : reader(ReadFile(LoadClip(family))), task(family, std::chrono::microseconds(dice % 3000)) {
    const char* extensions[] = {"mkv", "nut", "ts"};
    sink.name = TempPath("load-" + std::to_string(index) + "." + extensions[index % 3]);
    source.url = LoadClip(family);
    // All but concatenation also take caller I/O, on one side or both.
    if (family != Family::kLink && dice / 3000 % 3 == 0) source = Source{"", &reader};
    if (family != Family::kLink && dice / 9000 % 3 == 0) sink = Sink{"matroska", &writer};
  }
  MemoryReader reader;
  MemoryWriter writer;
  Source source;
  Sink sink;
  AnyTask task;
  bool ended = false;  // GetStatus saw the worker end by itself
};

// Sets up and starts the jobs, then acts on them at random until all are stopped.
void Drive(std::vector<Job*> jobs, unsigned start) {
  std::mt19937 dice(start);
  for (Job* job : jobs) EXPECT_TRUE(job->task.Reach(Stage::kSetUp, {job->source}, {job->sink}) && job->task.Start());
  // However the dice fall, every task is stopped by then.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (std::vector<Job*> live = jobs; !live.empty();) {
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
}

TEST(Load, ManyTasksOfEveryFamilyPausedResumedAndStoppedAtRandom) {
  const char* fixed = std::getenv("QUORVEL_LOAD_DICE");
  const unsigned start = fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10)) : std::random_device{}();
  std::cout << "dice " << start << " (set QUORVEL_LOAD_DICE to repeat this run)\n";
  std::mt19937 dice(start);
  std::vector<std::unique_ptr<Job>> jobs;
  for (int i = 0; i < kTasks; ++i) jobs.push_back(std::make_unique<Job>(kFamilies[i % 4], i, dice()));
  std::vector<std::thread> drivers;
  for (int t = 0; t < kThreads; ++t) {
    std::vector<Job*> mine;
    for (int i = t; i < kTasks; i += kThreads) mine.push_back(jobs[static_cast<size_t>(i)].get());
    drivers.emplace_back(Drive, mine, dice());
  }
  for (std::thread& driver : drivers) driver.join();

  int checked = 0;
  for (const auto& job : jobs) {
    const Family family = job->task.family;
    SCOPED_TRACE(std::string(Name(family)) + " writing " + job->sink.name);
    const size_t reported = job->task.log.Count();
    // A task that ended by itself carried its whole input, pauses or not:
    // a demultiplexing output holds stream 0 only.
    if (job->ended) {
      const auto all = ProbePackets(LoadClip(family));
      EXPECT_EQ(reported, family == Family::kUnpack ? OfStream(all, 0).size() : all.size());
    }
    const std::string& name = job->sink.name;
    if (reported > 0) {
      EXPECT_EQ(ProbeOutput(job->sink).size(), reported) << "every reported packet, and the trailer";
      ++checked;
    } else if (name.size() < 3 || name.compare(name.size() - 3, 3, ".ts") != 0) {
      // An empty output is not readable in every format, but holds its header
      // and trailer; MPEG-TS writes its tables with the first packet.
      EXPECT_FALSE(Bytes(job->sink).empty());
    }
  }
  std::cout << checked << " outputs held packets\n";
  EXPECT_GT(checked, kTasks / 2) << "most tasks moved packets before their Stop";
}

}  // namespace
