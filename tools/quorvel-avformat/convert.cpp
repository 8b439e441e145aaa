// convert IN OUT [--start S] [--end E]: remux one input into another container.
#include <memory>

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct ConvertOptions {
  std::string input, output, format, start = "0", end = "0";
};

int RunConvert(const ConvertOptions& options, const CommonOptions& common) {
  const double start = ParseSeconds(options.start), end = ParseSeconds(options.end);
  const OutputTarget output = ResolveOutput(options.output, options.format);
  const bool piped_in = options.input == "-";

  RunSettings settings{ResolveProgress(common), std::nullopt, !piped_in};
  if (settings.mode != ProgressMode::kNone) settings.span = EstimateSpan(options.input);
  if (settings.span && end > 0.0) settings.span->last = std::min(settings.span->last, end);

  ProgressCounter counter;
  Task task(kConversion, AVFormat_Convert_Init(ProgressCounter::Record, &counter));
  Check(task.get() != nullptr, "creating a conversion task");
  // Output first: the input's streams become the output's.
  Check(AVFormat_Convert_Output(task.get(), output.name.c_str(), start, end, output.write, nullptr),
        "creating the output " + output.shown, options.output, Role::kOutput);
  Check(AVFormat_Convert_Input(task.get(), piped_in ? nullptr : options.input.c_str(),
                               piped_in ? ReadStandardInput : nullptr, nullptr),
        "opening the input " + Shown(options.input), options.input, Role::kInput);
  Check(AVFormat_Convert_Start(task.get()), "writing the header to " + output.shown);
  const Outcome outcome = RunTask(task, counter, settings);
  CheckStandardOutput();
  return ExitStatus(outcome);
}

}  // namespace

void AddConvert(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<ConvertOptions>();
  CLI::App* command = app.add_subcommand("convert", "Remux IN into another container, optionally cut");
  command->add_option("IN", options->input, "Input file, or - for standard input")->required();
  command->add_option("OUT", options->output, "Output file (its name decides the container), or - for standard output")
      ->required();
  command->add_option("--start", options->start, "Keep packets from this time on (seconds or [h:]m:s)");
  command->add_option("--end", options->end, "End on the packet at exactly this time (seconds or [h:]m:s)");
  command->add_option("--format", options->format, "Container for OUT - (matroska, mpegts, nut, flv, ...)");
  command->footer(
      "Times are on the input's own timeline. The conversion ends on a packet whose time equals --end exactly;\n"
      "an end that no packet hits runs to the end of the input. Example:\n"
      "  quorvel-avformat convert in.mp4 out.mkv --start 2 --end 6");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunConvert(*options, common); }; });
}

}  // namespace qtool
