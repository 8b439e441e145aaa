// SPDX-License-Identifier: MIT
// streams IN [--json]: each stream's codec parameters and time base.
#include <fmt/core.h>

#include <memory>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavcodec/version.h>
#include <libavutil/pixdesc.h>
}

#include "commands.h"
#include "core/ffmpeg_version.h"
#include "errors.h"
#include "probe.h"

namespace qtool {
namespace {

struct StreamsOptions {
  std::string input;
  bool json = false;
};

const char* OrDash(const char* text) {
  return text != nullptr ? text : "-";
}

nlohmann::ordered_json Describe(int index, const AVCodecParameters& p, AVCODEC_TIMEBASE time_base) {
  nlohmann::ordered_json stream = {{"index", index},
                           {"type", OrDash(av_get_media_type_string(p.codec_type))},
                           {"codec", avcodec_get_name(p.codec_id)},
                           {"time_base", fmt::format("{}/{}", time_base.num, time_base.den)},
                           {"bit_rate", p.bit_rate},
                           {"extradata_size", p.extradata_size}};
  if (p.codec_type == AVMEDIA_TYPE_VIDEO) {
    stream["width"] = p.width;
    stream["height"] = p.height;
    stream["pixel_format"] = OrDash(av_get_pix_fmt_name(static_cast<AVPixelFormat>(p.format)));
    // Every FFmpeg version gives the same fields: null where the codec parameters carry no frame rate.
    stream["frame_rate"] = nullptr;
#if QUORVEL_HAS_CODECPAR_FRAMERATE
    if (p.framerate.den != 0 && p.framerate.num != 0)
      stream["frame_rate"] = fmt::format("{}/{}", p.framerate.num, p.framerate.den);
#endif
  } else if (p.codec_type == AVMEDIA_TYPE_AUDIO) {
    char layout[128] = "";
    av_channel_layout_describe(&p.ch_layout, layout, sizeof layout);
    stream["sample_rate"] = p.sample_rate;
    stream["channels"] = p.ch_layout.nb_channels;
    stream["channel_layout"] = layout;
    stream["sample_format"] = OrDash(av_get_sample_fmt_name(static_cast<AVSampleFormat>(p.format)));
  }
  return stream;
}

std::string Line(const nlohmann::ordered_json& s) {
  std::string line = fmt::format("stream {}: {} {}", s["index"].get<int>(), s["type"].get<std::string>(),
                                 s["codec"].get<std::string>());
  if (s.contains("width"))
    line +=
        fmt::format(", {}x{}, {}", s["width"].get<int>(), s["height"].get<int>(), s["pixel_format"].get<std::string>());
  if (s.contains("frame_rate") && !s["frame_rate"].is_null()) line += ", " + s["frame_rate"].get<std::string>() + " fps";
  if (s.contains("sample_rate"))
    line += fmt::format(", {} Hz, {}, {}", s["sample_rate"].get<int>(), s["channel_layout"].get<std::string>(),
                        s["sample_format"].get<std::string>());
  if (s["bit_rate"].get<int64_t>() > 0) line += fmt::format(", {} kb/s", s["bit_rate"].get<int64_t>() / 1000);
  return line + ", time base " + s["time_base"].get<std::string>();
}

int RunStreams(const StreamsOptions& options, const CommonOptions& common) {
  PullReader reader(options.input, common);
  nlohmann::ordered_json streams = nlohmann::ordered_json::array();
  AVCODEC_TIMEBASE time_base{};
  for (int index = 0;; ++index) {
    // The copy's pointers point into the open input: describe it while the reader lives.
    const CodecParameters parameters = reader.Stream(index, &time_base);
    if (!parameters) break;
    streams.push_back(Describe(index, *parameters, time_base));
  }
  if (options.json) {
    fmt::print("{}\n", nlohmann::ordered_json{{"schema", kJsonSchema}, {"streams", streams}}.dump(2));
  } else {
    for (const auto& stream : streams) fmt::print("{}\n", Line(stream));
  }
  return 0;
}

}  // namespace

void AddStreams(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<StreamsOptions>();
  CLI::App* command = app.add_subcommand("streams", "Show each stream's codec parameters and time base");
  command->add_option("IN", options->input, "Input file, or - for standard input")->required();
  command->add_flag("--json", options->json, "A JSON document instead of one line per stream");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunStreams(*options, common); }; });
}

}  // namespace qtool
