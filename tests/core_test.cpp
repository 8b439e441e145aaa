// SPDX-License-Identifier: MIT
// The shared core of all families: the exported interface and the
// timestamps made up for packets without any.
#include <gtest/gtest.h>

#include <sstream>

#include "Quorvel_AVFormat.h"
#include "core/worker.h"
#include "support/fixtures.h"

namespace {

// The library exports every function of its header unmangled, and the error
// globals at their sizes, and nothing of FFmpeg or of its internals.
TEST(Exports, DynamicSymbolsAreTheInterface) {
  std::string symbols, names;
  ASSERT_EQ(qtest::Run("nm -D --defined-only -S '" QUORVEL_LIBRARY_FILE "'", &symbols), 0);
  ASSERT_EQ(qtest::Run("grep -o 'AVFormat_[A-Za-z_]*(' '" QUORVEL_HEADER_FILE "' | tr -d '(' | sort -u", &names), 0);
  std::istringstream list(names);
  int count = 0;
  for (std::string name; list >> name; ++count) EXPECT_NE(symbols.find(" T " + name + "\n"), std::string::npos) << name;
  EXPECT_EQ(count, 51);
  EXPECT_NE(symbols.find("0000000000000001 B AVForamt_IsErrorOccur"), std::string::npos) << symbols;
  EXPECT_NE(symbols.find("0000000000000008 B AVForamt_dwErrorCode"), std::string::npos) << symbols;
  EXPECT_EQ(symbols.find("quorvel"), std::string::npos) << "internal helpers stay hidden";
  EXPECT_EQ(symbols.find(" T av"), std::string::npos);
}

// Made-up times for packets without a presentation time, with the worked numbers.
TEST(SynthesizedTimestamps, FollowTheCounterAndTruncate) {
  struct Case {
    AVRational frame_rate, time_base;
    int64_t number, pts, duration;
  };
  const Case cases[] = {
      {{25, 1}, {1, 1000}, 10, 400, 40},
      {{25, 1}, {1, 90000}, 10, 35999, 3599},  // the quotients fall just below whole numbers
      {{25, 1}, {1, 1000}, 0, 0, 40},
      {{25, 1}, {1, 1000}, 2, 80, 40},
      {{30000, 1001}, {1, 1000}, 3, 100, 33},
      {{0, 1}, {1, 1000}, 3, AV_NOPTS_VALUE, 7},               // no frame rate: stays unset
      {{25, 1}, {0, 1}, 3, AV_NOPTS_VALUE, 7},                 // no time base: stays unset
      {{1, 1000000}, {1, 1000}, 10000000, AV_NOPTS_VALUE, 7},  // 10^7 frames of 10^12 us: past 64 bits
  };
  for (const Case& c : cases) {
    AVStream stream{};
    stream.r_frame_rate = c.frame_rate;
    stream.time_base = c.time_base;
    AVPacket packet{};
    packet.pts = packet.dts = AV_NOPTS_VALUE;
    packet.duration = 7;
    quorvel::SynthesizeTimestamps(&packet, &stream, c.number);
    EXPECT_EQ(packet.pts, c.pts) << c.time_base.den << " #" << c.number;
    EXPECT_EQ(packet.dts, c.pts);
    EXPECT_EQ(packet.duration, c.duration) << c.time_base.den << " #" << c.number;
  }
}

}  // namespace
