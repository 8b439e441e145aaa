// SPDX-License-Identifier: MIT
// Many tasks of every family at once, with file and caller I/O, driven from
// several threads that pause, resume, poll and stop them at random moments;
// every output is then read back with ffprobe. The sanitizer lanes run it for
// races and leaks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
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

// Four threads start nine tasks each (a random delay in every progress call;
// MPEG-TS, NUT or Matroska; all but concatenation may read or write through
// caller functions), then pause, resume, poll or stop one of theirs at random
// until all are stopped, which a deadline of 10 s ensures. A task that ended
// by itself carried its whole input (a demultiplexing output holds stream 0
// only); every reported packet is in the output, and so is the trailer (an
// MPEG-TS output without packets holds nothing: its tables come with the
// first packet).
TEST(Load, ManyTasksOfEveryFamilyPausedResumedAndStoppedAtRandom) {
  const char* fixed = std::getenv("QUORVEL_LOAD_DICE");
  const unsigned start = fixed != nullptr ? std::strtoul(fixed, nullptr, 10) : std::random_device{}();
  std::cout << "dice " << start << " (set QUORVEL_LOAD_DICE to repeat this run)\n";
  std::mt19937 dice(start);
  constexpr size_t kTasks = 36;
  std::deque<AnyTask> tasks;
  std::deque<MemoryReader> readers;
  std::deque<MemoryWriter> writers(kTasks);
  std::vector<Source> sources;
  std::vector<Sink> sinks;
  std::vector<char> ended(kTasks);
  for (size_t i = 0; i < kTasks; ++i) {
    const Family family = kFamilies[i % 4];
    const unsigned roll = dice();
    tasks.emplace_back(family, std::chrono::microseconds(roll % 3000));
    readers.emplace_back(ReadFile(LoadClip(family)));
    const bool caller_io = family != Family::kLink;
    sources.push_back(caller_io && roll / 3000 % 3 == 0 ? Source{"", &readers[i]} : Source{LoadClip(family)});
    sinks.push_back(caller_io && roll / 9000 % 3 == 0
                        ? Sink{"matroska", &writers[i]}
                        : Sink{TempPath("load-" + std::to_string(i) + (i % 3 ? ".nut" : ".ts"))});
  }
  std::vector<std::thread> drivers;
  for (size_t t = 0; t < 4; ++t)
    drivers.emplace_back([&, t, first_roll = dice()] {
      std::mt19937 dice(first_roll);  // each driver rolls its own sequence
      std::vector<size_t> live;
      for (size_t i = t; i < kTasks; i += 4) live.push_back(i);
      for (size_t i : live) EXPECT_TRUE(tasks[i].Reach(Stage::kSetUp, {sources[i]}, sinks[i]) && tasks[i].Start());
      for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10); !live.empty();) {
        const size_t pick = dice() % live.size(), i = live[pick];
        const unsigned action = dice() % 10;
        if (action == 0 || std::chrono::steady_clock::now() > deadline) {
          EXPECT_TRUE(tasks[i].Stop());
          live.erase(live.begin() + static_cast<long>(pick));
        } else {
          EXPECT_TRUE(action > 3 || tasks[i].Suspend(action <= 2));
          ended[i] = ended[i] || (action > 3 && !tasks[i].Running());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(dice() % 20));
      }
    });
  for (std::thread& driver : drivers) driver.join();
  size_t checked = 0;
  for (size_t i = 0; i < kTasks; ++i) {
    const size_t reported = tasks[i].log.Count();
    const auto all = ended[i] ? ProbePackets(LoadClip(tasks[i].family)) : std::vector<ProbePacket>{};
    EXPECT_TRUE(!ended[i] || reported == (tasks[i].family == Family::kUnpack ? OfStream(all, 0) : all).size());
    EXPECT_TRUE(reported > 0 ? ProbeOutput(sinks[i]).size() == reported
                             : sinks[i].name.substr(sinks[i].name.size() - 3) == ".ts" || !Bytes(sinks[i]).empty())
        << Name(tasks[i].family) << " writing " << sinks[i].name << ": " << reported;
    checked += reported > 0;
  }
  EXPECT_GT(checked, kTasks / 2) << "most tasks moved packets before their Stop";
}

}  // namespace
