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

void PrepareConvert(const ConvertOptions& options, const CommonOptions& common, Prepared& prepared) {
  const Cut cut = ResolveCut(options.cut);
  OutputTarget output = ResolveOutput(options.output, options.format);
  const bool piped_in = options.input == "-";

  RunSettings& settings = prepared.settings;
  settings = {ResolveProgress(common), std::nullopt, !piped_in && !common.no_keys};
  // The input is opened before the output exists: a missing or refused input leaves every file as it was.
  if (!piped_in) settings.span = MediaFile(options.input, common, kConversion).span();
  if (settings.span && cut.end > 0.0) settings.span->last = std::min(settings.span->last, cut.end);
  prepared.files = std::make_unique<OutputFiles>(common, std::vector<std::string>{options.input});
  const std::string written = prepared.files->Claim(options.output);
  if (output.write == nullptr) output.name = written;

  void* task = NewTask(kConversion, common, prepared);
  prepared.files->Creating();
  // The library takes the output first: the input's streams become the output's.
  Check(AVFormat_Convert_Output(task, output.name.c_str(), cut.start, cut.end, output.write, nullptr),
        "creating the output " + output.shown, written, Role::kOutput);
  Check(AVFormat_Convert_Input(task, piped_in ? nullptr : options.input.c_str(),
                               piped_in ? ReadStandardInput : nullptr, nullptr),
        "opening the input " + Shown(options.input), options.input, Role::kInput);
  Check(AVFormat_Convert_Start(task), "writing the header to " + output.shown);
}

}  // namespace

void AddConvert(CLI::App& app, Builder& builder) {
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
  command->callback([options, &builder] {
    builder = [options](const CommonOptions& common, Prepared& prepared) { PrepareConvert(*options, common, prepared); };
  });
}

}  // namespace qtool
