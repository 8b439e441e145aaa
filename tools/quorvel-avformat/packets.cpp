// SPDX-License-Identifier: MIT
// packets IN [--json]: every packet of IN as the pull route hands it out.
#include <fmt/core.h>

#include <cerrno>
#include <iterator>
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
// One packet's fields, in the order both forms give them.
Json Describe(const PulledPacket& packet, AVCODEC_TIMEBASE base) {
  return {{"schema", kJsonSchema},
          {"stream", packet.stream},
          {"key", (packet.flags & AVFORMAT_PKT_FLAG_KEY) != 0},
          {"size", packet.size},
          {"pts", Time(packet.info.pts)},
          {"dts", Time(packet.info.dts)},
          {"duration", packet.info.duration},
          {"time_base", fmt::format("{}/{}", base.num, base.den)},
          {"pts_time", Seconds(packet.info.pts, base)},
          {"dts_time", Seconds(packet.info.dts, base)},
          {"duration_time", Seconds(packet.info.duration, base)}};
}

// The CSV line of Describe's object (the names instead of the values for the
// header): every field but the schema, which names the JSON's own form. An
// unknown value (null) is empty; true and false are 1 and 0.
std::string CsvLine(const Json& line, bool names) {
  std::string text, comma;
  for (auto item = std::next(line.begin()); item != line.end(); ++item, comma = ",") {
    const Json& value = item.value();
    text += comma;
    if (names)
      text += item.key();
    else if (value.is_boolean())
      text += value.get<bool>() ? "1" : "0";
    else if (!value.is_null())
      text += value.is_string() ? value.get<std::string>() : value.dump();
  }
  return text;
}

int RunPackets(const PacketsOptions& options, const CommonOptions& common) {
  PullReader reader(options.input, common);
  // A demuxer may leave a packet's own time base unset: it is its stream's then.
  std::vector<AVCODEC_TIMEBASE> stream_bases(reader.StreamCount());
  for (size_t i = 0; i < stream_bases.size(); ++i) reader.Stream(static_cast<int>(i), &stream_bases[i]);

  try {
    if (!options.json) fmt::print("{}\n", CsvLine(Describe(PulledPacket(), {0, 1}), true));
    PulledPacket packet;
    while (!StopRequested() && reader.Next(packet)) {
      AVCODEC_TIMEBASE base = packet.time_base;
      if (base.num == 0 && packet.stream >= 0 && static_cast<size_t>(packet.stream) < stream_bases.size())
        base = stream_bases[packet.stream];
      const Json line = Describe(packet, base);
      fmt::print("{}\n", options.json ? line.dump() : CsvLine(line, false));
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
                    "One JSON object per line instead of CSV lines (the same fields, with a schema)");
  command->footer(
      "Times are in ticks of the packet's time base, as the container stores them, then in seconds; the key\n"
      "frame flag is 1 or 0 in CSV. An unknown time is empty (CSV) or null (JSON). Packets come in the\n"
      "container's order, all streams mixed.");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunPackets(*options, common); }; });
}

}  // namespace qtool
