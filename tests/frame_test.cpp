// The frame shared by all families: the error state, the exported interface,
// the records' layout and the timestamps made up for packets without any.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <tuple>

#include "Quorvel_AVFormat.h"
#include "core/worker.h"
#include "support/caller.h"
#include "support/fixtures.h"

namespace {

TEST(ErrorState, GetLastErrorReportsTheCodeAndOptionallyErrno) {
  EXPECT_FALSE(AVFormat_Convert_Output(nullptr, "x.mkv", 0, 0, nullptr, nullptr));
  errno = EAGAIN;
  int error_number = 0;
  EXPECT_EQ(AVFormat_GetLastError(&error_number), uint64_t{ERROR_AVFORMAT_CONVERT_PARAMETER});
  EXPECT_EQ(error_number, EAGAIN);
  EXPECT_EQ(AVFormat_GetLastError(nullptr), uint64_t{ERROR_AVFORMAT_CONVERT_PARAMETER});
  EXPECT_TRUE(AVForamt_IsErrorOccur) << "GetLastError leaves the flag alone";
}

TEST(ErrorState, SuccessClearsTheFlagButKeepsTheOldCode) {
  EXPECT_FALSE(AVFormat_Convert_Start(nullptr));
  void* task = AVFormat_Convert_Init(nullptr, nullptr);
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(qtest::LastError(), (qtest::ErrorState{false, ERROR_AVFORMAT_CONVERT_PARAMETER}));
  EXPECT_TRUE(AVFormat_Convert_Stop(task));
}

// Every family: a null handle gives the family's code (concatenation's
// GetStatus and Suspend and demultiplexing's GetAVCodec borrow another's on
// purpose), and every Stop accepts it without touching the error state.
TEST(ErrorState, NullHandlesGiveEachFamilysCode) {
  bool running = false;
  const std::vector<std::tuple<const char*, std::function<bool()>, uint64_t>> cases = {
      {"Convert_Start", [] { return AVFormat_Convert_Start(nullptr); }, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {"Convert_Seek", [] { return AVFormat_Convert_Seek(nullptr, 1); }, ERROR_AVFORMAT_CONVERT_PARAMETER},
      {"Packet_Start", [] { return AVFormat_Packet_Start(nullptr); }, ERROR_AVFORMAT_PACKET_PARAMETER},
      {"UNPack_Start", [] { return AVFormat_UNPack_Start(nullptr); }, ERROR_AVFORMAT_PACKET_PARAMETER},
      {"UNPack_GetAVCodec", [] { return AVFormat_UNPack_GetAVCodec(nullptr, 0, nullptr, nullptr); },
       ERROR_AVFORMAT_PACKET_SEEK},
      {"Link_Start", [] { return AVFormat_Link_Start(nullptr); }, ERROR_AVFORMAT_LINK_PARAMETER},
      {"Link_GetStatus", [&] { return AVFormat_Link_GetStatus(nullptr, &running); }, ERROR_AVFORMAT_PACKET_PARAMETER},
      {"Link_Suspend", [] { return AVFormat_Link_Suspend(nullptr, true); }, ERROR_AVFORMAT_PACKET_PARAMETER},
  };
  for (const auto& [name, call, code] : cases) {
    EXPECT_FALSE(call()) << name;
    EXPECT_EQ(qtest::LastError(), (qtest::ErrorState{true, code})) << name;
  }
  for (auto stop : {AVFormat_Convert_Stop, AVFormat_UNPack_Stop, AVFormat_Packet_Stop, AVFormat_Link_Stop}) {
    EXPECT_FALSE(AVFormat_Convert_Start(nullptr));
    EXPECT_TRUE(stop(nullptr));
    EXPECT_FALSE(AVForamt_IsErrorOccur) << "Stop clears the flag and never sets it";
    EXPECT_EQ(AVForamt_dwErrorCode, uint64_t{ERROR_AVFORMAT_CONVERT_PARAMETER});
  }
}

TEST(Records, LayoutMatchesTheInterface) {
  EXPECT_EQ(sizeof(AVCODEC_TIMEBASE), 8u);
  EXPECT_EQ(sizeof(AVCODEC_PACKETINFO), 24u);
  EXPECT_EQ(sizeof(AVCODEC_FORMATINFO), 304u);
  EXPECT_EQ(offsetof(AVCODEC_FORMATINFO, nStreamIndex), 280u);
  EXPECT_EQ(offsetof(AVCODEC_FORMATINFO, pWriteFunc), 288u);
  EXPECT_EQ(sizeof(AVForamt_IsErrorOccur), 1u);
  EXPECT_EQ(sizeof(AVForamt_dwErrorCode), 8u);
}

// The library exports the interface unmangled and nothing of FFmpeg or of its internals.
TEST(Exports, DynamicSymbolsAreTheInterface) {
  std::string symbols;
  ASSERT_EQ(qtest::Run("nm -D --defined-only -S '" QUORVEL_LIBRARY_FILE "'", &symbols), 0);
  for (const char* name :
       {"AVFormat_GetLastError", "AVFormat_Convert_Init", "AVFormat_Convert_Seek", "AVFormat_UNPack_GetAVCodec",
        "AVFormat_UNPack_Read", "AVFormat_Packet_StreamWrite", "AVFormat_Link_Input", "AVFormat_Link_Stop"})
    EXPECT_NE(symbols.find(std::string(" T ") + name + "\n"), std::string::npos) << name;
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
      {{0, 1}, {1, 1000}, 3, AV_NOPTS_VALUE, 7},  // no frame rate: stays unset
      {{25, 1}, {0, 1}, 3, AV_NOPTS_VALUE, 7},    // no time base: stays unset
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
