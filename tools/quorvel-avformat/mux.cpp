// mux OUT IN... [--start S] [--end E]: one container from the streams of several files.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct MuxOptions {
  std::string output, format, start = "0", end = "0";
  std::vector<std::string> inputs;
};

// The worker carries every packet of an input into the output stream of the
// input's last video or audio stream: an input with more streams than that
// would mix them up.
void WarnAboutMixedInputs(const MuxOptions& options, const CommonOptions& common) {
  for (const std::string& input : options.inputs) {
    const std::vector<int> types = StreamTypes(input);
    const auto carried = std::count_if(types.begin(), types.end(), [](int type) { return type == 0 || type == 1; });
    if (carried > 1)
      Note(common, fmt::format("{} has {} video and audio streams; all its packets go into the output stream of the "
                               "last one. Give mux files with one stream each (split makes them).",
                               Shown(input), carried));
  }
}

// The task ends when its first input runs out, so it gets as far as the
// shortest input.
std::optional<Span> ShortestSpan(const std::vector<std::string>& inputs) {
  std::optional<Span> shortest;
  for (const std::string& input : inputs) {
    const auto span = EstimateSpan(input);
    if (!span) return std::nullopt;
    if (!shortest) shortest = span;
    shortest->first = std::min(shortest->first, span->first);
    shortest->last = std::min(shortest->last, span->last);
  }
  return shortest;
}

int RunMux(const MuxOptions& options, const CommonOptions& common) {
  const double start = ParseSeconds(options.start), end = ParseSeconds(options.end);
  const OutputTarget output = ResolveOutput(options.output, options.format);
  const auto piped_inputs = std::count(options.inputs.begin(), options.inputs.end(), "-");
  if (piped_inputs > 1) throw UsageError("only one input can come from standard input");
  WarnAboutMixedInputs(options, common);

  RunSettings settings{ResolveProgress(common), std::nullopt, piped_inputs == 0};
  if (settings.mode != ProgressMode::kNone) settings.span = ShortestSpan(options.inputs);
  if (settings.span && end > 0.0) settings.span->last = std::min(settings.span->last, end);

  ProgressCounter counter;
  Task task(kMultiplexing, AVFormat_Packet_Init(ProgressCounter::Record, &counter));
  Check(task.get() != nullptr, "creating a multiplexing task");
  Check(AVFormat_Packet_Output(task.get(), output.name.c_str(), start, end, output.write, nullptr),
        "creating the output " + output.shown, options.output, Role::kOutput);
  for (const std::string& input : options.inputs) {
    const bool piped = input == "-";
    Check(AVFormat_Packet_Input(task.get(), piped ? nullptr : input.c_str(), piped ? ReadStandardInput : nullptr,
                                nullptr),
          "opening the input " + Shown(input), input, Role::kInput);
  }
  Check(AVFormat_Packet_Start(task.get()), "writing the header to " + output.shown);
  const Outcome outcome = RunTask(task, counter, settings);
  CheckStandardOutput();
  return ExitStatus(outcome);
}

}  // namespace

void AddMux(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<MuxOptions>();
  CLI::App* command = app.add_subcommand("mux", "Build OUT from the streams of several files");
  command->add_option("OUT", options->output, "Output file (its name decides the container), or - for standard output")
      ->required();
  command->add_option("IN", options->inputs, "Input files with one video or audio stream each; - for standard input")
      ->required();
  command->add_option("--start", options->start, "Keep packets from this time on (seconds or [h:]m:s)");
  command->add_option("--end", options->end, "End on the packet at exactly this time (seconds or [h:]m:s)");
  command->add_option("--format", options->format, "Container for OUT - (matroska, mpegts, nut, flv, ...)");
  command->footer(
      "One packet is taken from each input in turn; the output ends when the first input runs out. Example:\n"
      "  quorvel-avformat mux out.mkv video.mkv audio.mka");
  command->callback([options, &common, &action] { action = [options, &common] { return RunMux(*options, common); }; });
}

}  // namespace qtool
