// Many tasks of every family at once, with file and caller I/O, driven from
// several threads that pause, resume, poll and stop them at random moments;
// every output is then read back with ffprobe. The sanitizer lanes run it for
// races and leaks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "support/families.h"

namespace {

using namespace qtest;

// 150 video and 282 audio packets, so that tasks overlap; a multiplexing input has one stream.
std::string LoadClip(Family family) {
  if (family == Family::kPacket) return Clip("load-video.mkv", "-f lavfi -i testsrc=d=6:s=64x48:r=25 -c:v mpeg4");
  return Clip("load.mkv", "-f lavfi -i testsrc=d=6:s=64x48:r=25 -f lavfi -i sine=d=6 -c:v mpeg4 -c:a aac");
}

// A task with a random delay in its progress calls, writing MPEG-TS, NUT or
// Matroska; all but concatenation may read or write through caller functions.
struct Job {
  Job(Family family, int index, unsigned dice)
      : reader(ReadFile(LoadClip(family))), task(family, std::chrono::microseconds(dice % 3000)) {
    const bool caller_io = family != Family::kLink;
    source = caller_io && dice / 3000 % 3 == 0 ? Source{"", &reader} : Source{LoadClip(family)};
    sink = caller_io && dice / 9000 % 3 == 0
               ? Sink{"matroska", &writer}
               : Sink{TempPath("load-" + std::to_string(index) + (index % 3 ? ".nut" : ".ts"))};
  }
  MemoryReader reader;
  MemoryWriter writer;
  Source source;
  Sink sink;
  AnyTask task;
  bool ended = false;  // GetStatus saw the worker end by itself
};

// Four threads start nine jobs each, then pause, resume, poll or stop one of
// theirs at random until all are stopped, which a deadline of 10 s ensures.
TEST(Load, ManyTasksOfEveryFamilyPausedResumedAndStoppedAtRandom) {
  const char* fixed = std::getenv("QUORVEL_LOAD_DICE");
  const unsigned start = fixed != nullptr ? std::strtoul(fixed, nullptr, 10) : std::random_device{}();
  std::cout << "dice " << start << " (set QUORVEL_LOAD_DICE to repeat this run)\n";
  std::mt19937 dice(start);
  std::vector<std::unique_ptr<Job>> jobs;
  for (int i = 0; i < 36; ++i) jobs.push_back(std::make_unique<Job>(kFamilies[i % 4], i, dice()));
  std::vector<std::thread> drivers;
  for (int t = 0; t < 4; ++t)
    drivers.emplace_back([&jobs, t, seed = dice()] {
      std::mt19937 dice(seed);
      std::vector<Job*> live;
      for (size_t i = t; i < jobs.size(); i += 4) live.push_back(jobs[i].get());
      for (Job* job : live) EXPECT_TRUE(job->task.Reach(Stage::kSetUp, {job->source}, job->sink) && job->task.Start());
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (!live.empty()) {
        const size_t pick = dice() % live.size();
        const unsigned action = dice() % 10;
        if (action == 0 || std::chrono::steady_clock::now() > deadline) {
          EXPECT_TRUE(live[pick]->task.Stop());
          live.erase(live.begin() + static_cast<long>(pick));
        } else if (action <= 3) {
          EXPECT_TRUE(live[pick]->task.Suspend(action <= 2));
        } else {
          live[pick]->ended = live[pick]->ended || !live[pick]->task.Running();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(dice() % 20));
      }
    });
  for (std::thread& driver : drivers) driver.join();
  size_t checked = 0;
  for (const auto& job : jobs) {
    const Family family = job->task.family;
    const size_t reported = job->task.log.Count();
    SCOPED_TRACE(std::string(Name(family)) + " writing " + job->sink.name);
    // A task that ended by itself carried its whole input, pauses or not; a
    // demultiplexing output holds stream 0 only.
    const auto all = job->ended ? ProbePackets(LoadClip(family)) : std::vector<ProbePacket>{};
    EXPECT_TRUE(!job->ended || reported == (family == Family::kUnpack ? OfStream(all, 0) : all).size()) << reported;
    // Every reported packet is in the output, and so is the trailer; an empty
    // MPEG-TS output may hold nothing, as its tables come with the first packet.
    checked += reported > 0;
    EXPECT_TRUE(reported > 0 ? ProbeOutput(job->sink).size() == reported
                             : job->sink.name.substr(job->sink.name.size() - 3) == ".ts" || !Bytes(job->sink).empty());
  }
  EXPECT_GT(checked, jobs.size() / 2) << "most tasks moved packets before their Stop";
}

}  // namespace
