// SPDX-License-Identifier: MIT
// info IN [--json]: the container, its length and bit rate, and each stream
// with its codec, language and picture size or sample rate.
#include <fmt/core.h>

#include <memory>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
}

#include "commands.h"
#include "errors.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

using Json = nlohmann::ordered_json;

struct InfoOptions {
  std::string input;
  bool json = false;
};

Json OrNull(int64_t value, double scale) {
  return value == AV_NOPTS_VALUE ? Json(nullptr) : Json(static_cast<double>(value) * scale);
}

Json Describe(const MediaFile& file) {
  const AVFormatContext& c = file.context();
  Json streams = Json::array();
  for (unsigned i = 0; i < file.count(); ++i) {
    const AVStream& s = file.stream(i);
    const AVCodecParameters& p = *s.codecpar;
    const AVDictionaryEntry* language = av_dict_get(s.metadata, "language", nullptr, 0);
    const char* type = av_get_media_type_string(p.codec_type);
    Json stream = {{"index", i},
                   {"type", type != nullptr ? type : "unknown"},
                   {"codec", avcodec_get_name(p.codec_id)},
                   {"language", language != nullptr ? Json(language->value) : Json(nullptr)},
                   {"duration", OrNull(s.duration, av_q2d(s.time_base))},
                   {"bit_rate", p.bit_rate > 0 ? Json(p.bit_rate) : Json(nullptr)}};
    if (p.codec_type == AVMEDIA_TYPE_VIDEO) {
      stream["width"] = p.width;
      stream["height"] = p.height;
      stream["frame_rate"] = s.avg_frame_rate.den != 0 && s.avg_frame_rate.num != 0
                                 ? Json(fmt::format("{}/{}", s.avg_frame_rate.num, s.avg_frame_rate.den))
                                 : Json(nullptr);
    } else if (p.codec_type == AVMEDIA_TYPE_AUDIO) {
      stream["sample_rate"] = p.sample_rate;
      stream["channels"] = p.ch_layout.nb_channels;
    }
    streams.push_back(stream);
  }
  return {{"schema", kJsonSchema},
          {"container", c.iformat->name},
          {"duration", OrNull(c.duration, 1.0 / AV_TIME_BASE)},
          {"start_time", OrNull(c.start_time, 1.0 / AV_TIME_BASE)},
          {"bit_rate", c.bit_rate > 0 ? Json(c.bit_rate) : Json(nullptr)},
          {"streams", streams}};
}

std::string Clock(const Json& seconds) {
  if (seconds.is_null()) return "unknown";
  const double s = seconds.get<double>();
  return fmt::format("{}:{:02}:{:05.2f}", static_cast<int>(s / 3600), static_cast<int>(s / 60) % 60,
                     s - 60 * static_cast<int>(s / 60));
}

void PrintText(const Json& info) {
  fmt::print("container {}, duration {}", info["container"].get<std::string>(), Clock(info["duration"]));
  if (!info["bit_rate"].is_null()) fmt::print(", {} kb/s", info["bit_rate"].get<int64_t>() / 1000);
  fmt::print("\n");
  for (const Json& s : info["streams"]) {
    fmt::print("  stream {}: {} {}", s["index"].get<int>(), s["type"].get<std::string>(), s["codec"].get<std::string>());
    if (s.contains("width")) fmt::print(", {}x{}", s["width"].get<int>(), s["height"].get<int>());
    if (s.contains("frame_rate") && !s["frame_rate"].is_null())
      fmt::print(", {} fps", s["frame_rate"].get<std::string>());
    if (s.contains("sample_rate"))
      fmt::print(", {} Hz, {} channels", s["sample_rate"].get<int>(), s["channels"].get<int>());
    if (!s["bit_rate"].is_null()) fmt::print(", {} kb/s", s["bit_rate"].get<int64_t>() / 1000);
    if (!s["language"].is_null()) fmt::print(", language {}", s["language"].get<std::string>());
    fmt::print("\n");
  }
}

int RunInfo(const InfoOptions& options, const CommonOptions& common) {
  if (options.input == "-") throw UsageError("info looks into a named file only, not standard input");
  const MediaFile file(options.input, common, kDemultiplexing);
  const Json info = Describe(file);
  if (options.json) {
    fmt::print("{}\n", info.dump(2));
  } else {
    PrintText(info);
  }
  return 0;
}

}  // namespace

void AddInfo(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* command =
      app.add_subcommand("info", "Show IN's container, length and bit rate, and its streams with codec and language");
  command->add_option("IN", options->input, "Input file")->required();
  command->add_flag("--json", options->json, "A JSON document (docs/tool.md lists its fields)");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunInfo(*options, common); }; });
}

}  // namespace qtool
