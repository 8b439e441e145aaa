// SPDX-License-Identifier: MIT
// convert IN OUT [--start S] [--end E | --duration D]: remux one input into another container.
#include <memory>

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "outputs.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct ConvertOptions {
  std::string input, output, format;
  CutOptions cut;
};

int RunConvert(const ConvertOptions& options, const CommonOptions& common) {
  const Cut cut = ResolveCut(options.cut);
  const OutputTarget output = ResolveOutput(options.output, options.format);
  const bool piped_in = options.input == "-";

  RunSettings settings{ResolveProgress(common), std::nullopt, !piped_in && !common.no_keys};
  // The input is opened before the output exists: a missing or refused input leaves every file as it was.
  if (!piped_in) settings.span = MediaFile(options.input, common, kConversion).span();
  if (settings.span && cut.end > 0.0) settings.span->last = std::min(settings.span->last, cut.end);
  OutputFiles files(common, {options.input});
  files.Claim(options.output);

  ProgressCounter counter;
  Task task(kConversion, AVFormat_Convert_Init(ProgressCounter::Record, &counter));
  Check(task.get() != nullptr, "creating a conversion task");
  Configure(kConversion, task.get(), common);
  files.Creating();
  // The library takes the output first: the input's streams become the output's.
  Check(AVFormat_Convert_Output(task.get(), output.name.c_str(), cut.start, cut.end, output.write, nullptr),
        "creating the output " + output.shown, options.output, Role::kOutput);
  Check(AVFormat_Convert_Input(task.get(), piped_in ? nullptr : options.input.c_str(),
                               piped_in ? ReadStandardInput : nullptr, nullptr),
        "opening the input " + Shown(options.input), options.input, Role::kInput);
  Check(AVFormat_Convert_Start(task.get()), "writing the header to " + output.shown);
  const Outcome outcome = RunTask(task, counter, settings);
  CheckStandardOutput();
  files.Keep();
  return ExitStatus(outcome, task);
}

}  // namespace

void AddConvert(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<ConvertOptions>();
  CLI::App* command = app.add_subcommand("convert", "Remux IN into another container, optionally cut");
  command->add_option("IN", options->input, "Input file, or - for standard input")->required();
  command->add_option("OUT", options->output, "Output file (its name decides the container), or - for standard output")
      ->required();
  AddCutOptions(*command, options->cut);
  command->add_option("-f,--format", options->format, "Container for OUT - (matroska, mpegts, nut, flv, ...)");
  command->footer(
      "Times are on the input's own timeline. A cut starts on the key frame at or before --start and keeps\n"
      "every packet before the end; the output starts at 0. Example:\n"
      "  quorvel-avformat convert in.mp4 out.mkv --start 2 --duration 4");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunConvert(*options, common); }; });
}

}  // namespace qtool
