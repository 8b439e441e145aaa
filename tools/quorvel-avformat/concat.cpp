// concat OUT IN[,start=S][,end=E][,video=I][,audio=I]...: files joined end to end.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct ConcatOptions {
  std::string output;
  std::vector<std::string> inputs;
};

// Unless told otherwise, an input gives its first video and its first audio
// stream. When the input can't be looked into, video 0 and audio 1 is the
// usual layout.
void ChooseStreams(ConcatInput& input) {
  const std::vector<int> types = StreamTypes(input.path);
  const auto first = [&](int type, int fallback) {
    if (types.empty()) return fallback;
    const auto at = std::find(types.begin(), types.end(), type);
    return at == types.end() ? -1 : static_cast<int>(at - types.begin());
  };
  if (!input.video) input.video = first(0, 0);
  if (!input.audio) input.audio = first(1, 1);
}

// The output's timeline runs through the inputs one after another.
std::optional<Span> JoinedSpan(const std::vector<ConcatInput>& inputs) {
  std::optional<Span> joined;
  for (const ConcatInput& input : inputs) {
    const auto span = EstimateSpan(input.path);
    if (!span) return std::nullopt;
    if (!joined) {
      joined = span;
    } else {
      joined->last += span->last;
    }
  }
  return joined;
}

int RunConcat(const ConcatOptions& options, const CommonOptions& common) {
  if (options.output == "-") throw UsageError("concat writes a named file only, not standard output");
  std::vector<ConcatInput> inputs;
  for (const std::string& text : options.inputs) {
    inputs.push_back(ParseConcatInput(text));
    if (inputs.back().path == "-") throw UsageError("concat reads named files only, not standard input");
    ChooseStreams(inputs.back());
  }

  RunSettings settings{ResolveProgress(common), std::nullopt, true};
  if (settings.mode != ProgressMode::kNone) settings.span = JoinedSpan(inputs);

  ProgressCounter counter;
  Task task(kConcatenation, AVFormat_Link_Init(ProgressCounter::Record, &counter));
  Check(task.get() != nullptr, "creating a concatenation task");
  Check(AVFormat_Link_Output(task.get(), options.output.c_str()), "creating the output " + Shown(options.output),
        options.output, Role::kOutput);
  for (const ConcatInput& input : inputs) {
    Check(AVFormat_Link_Input(task.get(), input.path.c_str(), input.start, input.end, *input.video, *input.audio),
          "opening the input " + Shown(input.path), input.path, Role::kInput);
  }
  Check(AVFormat_Link_Start(task.get()), "writing the header to " + Shown(options.output));
  return ExitStatus(RunTask(task, counter, settings));
}

}  // namespace

void AddConcat(CLI::App& app, const CommonOptions& common, Action& action) {
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
      "codecs and time bases. start and end act only together, and keep the packets whose position on the\n"
      "output's timeline is at most both. Example:\n"
      "  quorvel-avformat concat joined.mkv part1.mkv part2.mkv");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunConcat(*options, common); }; });
}

}  // namespace qtool
