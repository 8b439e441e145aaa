// SPDX-License-Identifier: MIT
// concat OUT IN[,start=S][,end=E][,video=I][,audio=I]...: files joined end to end.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "outputs.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct ConcatOptions {
  std::string output;
  std::vector<std::string> inputs;
};

// Unless told otherwise, an input gives its first video and its first audio
// stream; a number given must name a stream of that kind.
void ChooseStreams(ConcatInput& input, const MediaFile& file) {
  const auto choose = [&](std::optional<int>& index, AVMediaType type, const char* kind) {
    if (!index) {
      index = -1;
      for (unsigned i = file.count(); i-- > 0;) {
        if (file.type(i) == type) index = static_cast<int>(i);
      }
    } else if (*index >= 0 && (*index >= static_cast<int>(file.count()) || file.type(*index) != type)) {
      throw ToolFailure(fmt::format("{} has no {} stream {}", Shown(input.path), kind, *index));
    }
  };
  choose(input.video, AVMEDIA_TYPE_VIDEO, "video");
  choose(input.audio, AVMEDIA_TYPE_AUDIO, "audio");
  if (*input.video < 0 && *input.audio < 0)
    throw ToolFailure(fmt::format("{} gives no video and no audio stream", Shown(input.path)));
}

void PrepareConcat(const ConcatOptions& options, const CommonOptions& common, Prepared& prepared) {
  if (options.output == "-") throw UsageError("concat writes a named file only, not standard output");
  std::vector<ConcatInput> inputs;
  std::vector<std::string> paths;
  RunSettings& settings = prepared.settings;
  settings = {ResolveProgress(common), std::nullopt, !common.no_keys};
  bool lengths_known = true;
  for (const std::string& text : options.inputs) {
    inputs.push_back(ParseConcatInput(text));
    ConcatInput& input = inputs.back();
    if (input.path == "-") throw UsageError("concat reads named files only, not standard input");
    paths.push_back(input.path);
    // Every input is opened before the output exists.
    const MediaFile file(input.path, common, kConcatenation);
    ChooseStreams(input, file);
    // The output's timeline runs through the inputs one after another.
    auto span = file.span();
    if (span && input.end > 0.0) span->last = std::min(span->last, span->first + input.end);
    if (span) span->last -= std::min(input.start, span->last - span->first);
    lengths_known = lengths_known && span.has_value();
    if (!lengths_known) continue;
    if (!settings.span) settings.span = Span{0.0, 0.0};
    settings.span->last += span->last - span->first;
  }
  if (!lengths_known) settings.span.reset();
  prepared.files = std::make_unique<OutputFiles>(common, paths);
  const std::string written = prepared.files->Claim(options.output);

  void* task = NewTask(kConcatenation, common, prepared);
  prepared.files->Creating();
  Check(AVFormat_Link_Output(task, written.c_str()), "creating the output " + Shown(options.output), written,
        Role::kOutput);
  for (const ConcatInput& input : inputs) {
    Check(AVFormat_Link_Input(task, input.path.c_str(), input.start, input.end, *input.video, *input.audio),
          "opening the input " + Shown(input.path), input.path, Role::kInput);
  }
  Check(AVFormat_Link_Start(task), "writing the header to " + Shown(options.output));
}

}  // namespace

void AddConcat(CLI::App& app, Builder& builder) {
  auto options = std::make_shared<ConcatOptions>();
  CLI::App* command = app.add_subcommand("concat", "Join files end to end into OUT");
  command->add_option("OUT", options->output, "Output file; its name decides the container")->required();
  command
      ->add_option("IN", options->inputs,
                   "Input file with optional settings: a.mp4,video=0,audio=1,start=S,end=E "
                   "(an index of -1 copies no stream of that kind)")
      ->required();
  command->footer(
      "The output's streams are described from the first input that has each kind: give inputs with the same\n"
      "codecs. Each input's start= and end= are times on that input's own timeline; each input goes on where\n"
      "the previous one ended. Example:\n"
      "  quorvel-avformat concat joined.mkv part1.mkv part2.mkv,start=1,end=3");
  command->callback([options, &builder] {
    builder = [options](const CommonOptions& common, Prepared& prepared) { PrepareConcat(*options, common, prepared); };
  });
}

}  // namespace qtool
