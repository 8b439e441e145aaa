// SPDX-License-Identifier: MIT
// mux OUT IN[:STREAMS]... [--start S] [--end E]: one container from the streams of several files.
#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "outputs.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct MuxOptions {
  std::string output, format;
  CutOptions cut;
  std::vector<std::string> inputs;
};

struct MuxInput {
  std::string path, selector;  // selector "" takes every stream
};

// FILE:STREAMS, where FILE is the shortest prefix before a colon that names an
// existing file, so that both file names and specifiers may hold colons.
MuxInput ParseMuxInput(const std::string& text) {
  struct stat status {};
  for (auto colon = text.find(':'); colon != std::string::npos; colon = text.find(':', colon + 1)) {
    const std::string path = text.substr(0, colon);
    if (path == "-" || stat(path.c_str(), &status) == 0) {
      CheckStreamSelector(text.substr(colon + 1));
      return {path, text.substr(colon + 1)};
    }
  }
  return {text, ""};
}

void PrepareMux(const MuxOptions& options, const CommonOptions& common, Prepared& prepared) {
  const Cut cut = ResolveCut(options.cut);
  OutputTarget output = ResolveOutput(options.output, options.format);
  std::vector<MuxInput> inputs;
  std::vector<std::string> paths;
  for (const std::string& text : options.inputs) {
    inputs.push_back(ParseMuxInput(text));
    paths.push_back(inputs.back().path);
  }
  const auto piped_inputs = std::count(paths.begin(), paths.end(), "-");
  if (piped_inputs > 1) throw UsageError("only one input can come from standard input");

  // Every named input is opened, and every specifier matched, before the output exists.
  RunSettings& settings = prepared.settings;
  settings = {ResolveProgress(common), std::nullopt, piped_inputs == 0 && !common.no_keys};
  const bool shortest =
      std::find(common.reverted.begin(), common.reverted.end(), "until_all_inputs_end") != common.reverted.end();
  for (size_t i = 0; i < inputs.size(); ++i) {
    if (inputs[i].path == "-") {
      settings.span.reset();
      continue;
    }
    const MediaFile file(inputs[i].path, common, kMultiplexing);
    if (!inputs[i].selector.empty() && file.Match(inputs[i].selector).empty())
      throw ToolFailure(fmt::format("\"{}\" matches no stream of {}", inputs[i].selector, Shown(inputs[i].path)));
    const auto span = file.span();
    if (!span || (i > 0 && !settings.span)) {
      settings.span.reset();
    } else if (i == 0) {
      settings.span = span;
    } else {
      settings.span->first = std::min(settings.span->first, span->first);
      settings.span->last =
          shortest ? std::min(settings.span->last, span->last) : std::max(settings.span->last, span->last);
    }
  }
  if (settings.span && cut.end > 0.0) settings.span->last = std::min(settings.span->last, cut.end);
  prepared.files = std::make_unique<OutputFiles>(common, paths);
  const std::string written = prepared.files->Claim(options.output);
  if (output.write == nullptr) output.name = written;

  void* task = NewTask(kMultiplexing, common, prepared);
  prepared.files->Creating();
  Check(AVFormat_Packet_Output(task, output.name.c_str(), cut.start, cut.end, output.write, nullptr),
        "creating the output " + output.shown, written, Role::kOutput);
  for (const MuxInput& input : inputs) {
    const bool piped = input.path == "-";
    if (!input.selector.empty())
      Check(AVFormat_Packet_SetOption(task, "streams", input.selector.c_str()), "choosing the streams " + input.selector);
    Check(AVFormat_Packet_Input(task, piped ? nullptr : input.path.c_str(), piped ? ReadStandardInput : nullptr,
                                nullptr),
          "opening the input " + Shown(input.path), input.path, Role::kInput);
  }
  Check(AVFormat_Packet_Start(task), "writing the header to " + output.shown);
}

}  // namespace

void AddMux(CLI::App& app, Builder& builder) {
  auto options = std::make_shared<MuxOptions>();
  CLI::App* command = app.add_subcommand("mux", "Build OUT from the streams of several files");
  command->add_option("OUT", options->output, "Output file (its name decides the container), or - for standard output")
      ->required();
  command
      ->add_option("IN", options->inputs,
                   "Input file, with :STREAMS to take only the streams that a stream specifier picks (a.mkv:v:0, "
                   "b.mka:a); - for standard input")
      ->required();
  AddCutOptions(*command, options->cut);
  command->add_option("-f,--format", options->format, "Container for OUT - (matroska, mpegts, nut, flv, ...)");
  command->footer(
      "Every stream of each input goes into an output stream of its own; packets are interleaved by time and\n"
      "the output runs until every input has ended. Example (the video of one file, the audio of another):\n"
      "  quorvel-avformat mux both.mkv video.mkv:v audio.mka:a");
  command->callback([options, &builder] {
    builder = [options](const CommonOptions& common, Prepared& prepared) { PrepareMux(*options, common, prepared); };
  });
}

}  // namespace qtool
