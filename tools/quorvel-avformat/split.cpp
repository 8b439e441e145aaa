// split IN STREAM=OUT[,start=S][,end=E]...: each chosen stream into a container of its own.
#include <fmt/core.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "probe.h"
#include "task.h"

namespace qtool {
namespace {

struct SplitOptions {
  std::string input, format;
  std::vector<std::string> targets;
};

// The library gives the i-th output the codec parameters of input stream i
// and the packets of the stream that record i names, so output i must be
// stream i. Streams nobody asked for get an output that claims no stream and
// writes nowhere (FFmpeg's "null" container accepts any codec).
std::vector<AVCODEC_FORMATINFO> MakeRecords(const std::vector<SplitTarget>& targets, const std::string& format) {
  int count = 0;
  for (const SplitTarget& target : targets) count = std::max(count, target.stream + 1);
  std::vector<AVCODEC_FORMATINFO> records(count);
  for (AVCODEC_FORMATINFO& record : records) {
    std::memset(&record, 0, sizeof record);
    std::strcpy(record.szName, "null");
    record.nStreamIndex = -1;
    record.pWriteFunc = Discard;
  }
  for (const SplitTarget& target : targets) {
    AVCODEC_FORMATINFO& record = records[target.stream];
    const OutputTarget output = ResolveOutput(target.output, target.output == "-" ? format : "");
    if (output.name.size() >= sizeof record.szName)
      throw UsageError(
          fmt::format("the output name \"{}\" is longer than {} bytes", output.name, sizeof record.szName - 1));
    std::strcpy(record.szName, output.name.c_str());
    record.pWriteFunc = output.write;
    record.nStreamIndex = target.stream;
    record.dlStartTime = target.start;
    record.dlEndTime = target.end;
  }
  return records;
}

void CheckTargets(const std::vector<SplitTarget>& targets, const SplitOptions& options) {
  std::set<int> streams;
  int piped = 0;
  for (const SplitTarget& target : targets) {
    if (!streams.insert(target.stream).second)
      throw UsageError(fmt::format("stream {} is asked for twice", target.stream));
    piped += target.output == "-";
  }
  if (piped > 1) throw UsageError("only one output can go to standard output");
  if (piped == 0 && !options.format.empty())
    throw UsageError("--format names the container for standard output only; a file's name decides its container");
  const std::vector<int> types = StreamTypes(options.input);
  for (const SplitTarget& target : targets) {
    if (!types.empty() && target.stream >= static_cast<int>(types.size()))
      throw UsageError(fmt::format("{} has {} streams (0 to {}); there is no stream {}", Shown(options.input),
                                   types.size(), types.size() - 1, target.stream));
  }
}

int RunSplit(const SplitOptions& options, const CommonOptions& common) {
  std::vector<SplitTarget> targets;
  for (const std::string& text : options.targets) targets.push_back(ParseSplitTarget(text));
  CheckTargets(targets, options);
  std::vector<AVCODEC_FORMATINFO> records = MakeRecords(targets, options.format);
  std::vector<AVCODEC_FORMATINFO*> pointers;
  for (AVCODEC_FORMATINFO& record : records) pointers.push_back(&record);
  AVCODEC_FORMATINFO** array = pointers.data();
  const bool piped_in = options.input == "-";

  RunSettings settings{ResolveProgress(common), std::nullopt, !piped_in};
  if (settings.mode != ProgressMode::kNone) settings.span = EstimateSpan(options.input);
  for (const SplitTarget& target : targets) {
    if (settings.span && target.end > 0.0) settings.span->last = std::min(settings.span->last, target.end);
  }

  ProgressCounter counter;
  Task task(kDemultiplexing, AVFormat_UNPack_Init(ProgressCounter::Record, &counter));
  Check(task.get() != nullptr, "creating a demultiplexing task");
  Check(AVFormat_UNPack_Input(task.get(), piped_in ? nullptr : options.input.c_str(),
                              piped_in ? ReadStandardInput : nullptr, nullptr),
        "opening the input " + Shown(options.input), options.input, Role::kInput);
  if (!AVFormat_UNPack_Output(task.get(), &array, static_cast<int>(records.size()))) {
    const uint64_t code = AVFormat_GetLastError(nullptr);
    std::string reason;
    for (const SplitTarget& target : targets) {
      if (reason.empty()) reason = SystemReason(target.output, Role::kOutput);
    }
    throw LibraryFailure{code, "creating the outputs", reason};
  }
  Check(AVFormat_UNPack_Start(task.get()), "starting the demultiplexing task");
  const Outcome outcome = RunTask(task, counter, settings);
  CheckStandardOutput();
  return ExitStatus(outcome);
}

}  // namespace

void AddSplit(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<SplitOptions>();
  CLI::App* command = app.add_subcommand("split", "Write chosen streams of IN into containers of their own");
  command->add_option("IN", options->input, "Input file, or - for standard input")->required();
  command
      ->add_option("STREAM=OUT", options->targets,
                   "Stream number and its output file (- for standard output), with an optional cut: "
                   "1=audio.mka,start=2,end=6")
      ->required();
  command->add_option("--format", options->format, "Container for an output written to standard output");
  command->footer(
      "Packets are copied as they are, times included, in the input stream's time base: choose an output\n"
      "container that keeps it (.mkv/.mka from Matroska, .ts from MPEG-TS), or the output's timeline comes\n"
      "out scaled. An end time stops every output, and only on a packet whose time equals it exactly.\n"
      "`quorvel-avformat streams IN` lists the stream numbers. Example:\n"
      "  quorvel-avformat split in.mkv 0=video.mkv 1=audio.mka");
  command->callback(
      [options, &common, &action] { action = [options, &common] { return RunSplit(*options, common); }; });
}

}  // namespace qtool
