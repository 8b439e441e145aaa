// SPDX-License-Identifier: MIT
// packets IN [--json]: every packet of IN as the pull route hands it out.
#include <fmt/core.h>

#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "probe.h"
#include "terminal.h"

namespace qtool {
namespace {

struct PacketsOptions {
  std::string input;
  bool json = false;
};

using Json = nlohmann::ordered_json;

Json Time(int64_t ticks) {
  return ticks == AV_NOPTS_VALUE ? Json(nullptr) : Json(ticks);
}
Json Seconds(int64_t ticks, AVCODEC_TIMEBASE base) {
  if (ticks == AV_NOPTS_VALUE || base.den == 0) return Json(nullptr);
  return Json(static_cast<double>(ticks) * base.num / base.den);
}
std::string TimeText(int64_t ticks) {
  return ticks == AV_NOPTS_VALUE ? "" : std::to_string(ticks);
}

int RunPackets(const PacketsOptions& options, const CommonOptions& common) {
  PullReader reader(options.input, common);
  // A demuxer may leave a packet's own time base unset: it is its stream's then.
  std::vector<AVCODEC_TIMEBASE> stream_bases(reader.StreamCount());
  for (size_t i = 0; i < stream_bases.size(); ++i) reader.Stream(static_cast<int>(i), &stream_bases[i]);

  try {
    if (!options.json) fmt::print("stream,size,pts,dts,duration,time_base\n");
    PulledPacket packet;
    while (!StopRequested() && reader.Next(packet)) {
      AVCODEC_TIMEBASE base = packet.time_base;
      if (base.num == 0 && packet.stream >= 0 && static_cast<size_t>(packet.stream) < stream_bases.size())
        base = stream_bases[packet.stream];
      const std::string time_base = fmt::format("{}/{}", base.num, base.den);
      if (options.json) {
        const Json line = {{"schema", kJsonSchema},
                           {"stream", packet.stream},
                           {"key", (packet.flags & AVFORMAT_PKT_FLAG_KEY) != 0},
                           {"size", packet.size},
                           {"pts", Time(packet.info.pts)},
                           {"dts", Time(packet.info.dts)},
                           {"duration", packet.info.duration},
                           {"time_base", time_base},
                           {"pts_time", Seconds(packet.info.pts, base)},
                           {"dts_time", Seconds(packet.info.dts, base)},
                           {"duration_time", Seconds(packet.info.duration, base)}};
        fmt::print("{}\n", line.dump());
      } else {
        fmt::print("{},{},{},{},{},{}\n", packet.stream, packet.size, TimeText(packet.info.pts),
                   TimeText(packet.info.dts), packet.info.duration, time_base);
      }
    }
    std::fflush(stdout);
  } catch (const std::system_error& error) {
    // A reader that has seen enough (`| head`) closes the pipe: not a failure.
    if (error.code().value() == EPIPE) return 0;
    throw ToolFailure(std::string("writing to standard output failed: ") + error.what());
  }
  return StopSignal() != 0 ? 128 + StopSignal() : 0;
}

}  // namespace

void AddPackets(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<PacketsOptions>();
  CLI::App* command = app.add_subcommand("packets", "List every packet of IN: stream, size, pts, dts, duration");
  command->add_option("IN", options->input, "Input file, or - for standard input")->required();
  command->add_flag("--json", options->json,
                    "One JSON object per line instead of CSV, with the key-frame flag and times in seconds");
  command->footer(
      "Times are in ticks of the packet's time base, as the container stores them (JSON adds them in seconds);\n"
      "an unknown time is empty (CSV) or null (JSON). Packets come in the container's order, all streams mixed.");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunPackets(*options, common); }; });
}

}  // namespace qtool
