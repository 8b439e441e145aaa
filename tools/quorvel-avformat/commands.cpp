// SPDX-License-Identifier: MIT
#include "commands.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cstring>

#include "arguments.h"
#include "caller_io.h"
#include "errors.h"
#include "task.h"
#include "terminal.h"

namespace qtool {
namespace {

// The practical behaviours that the tool turns on for every task, each with
// the flag that switches it back to the library's defined behaviour.
struct Practical {
  const char* flag;
  const char* option;
  unsigned families;
  const char* help;
};
const Practical kPractical[] = {
    {"--exact-cut", "keyframe_start", kConvertBit | kUnpackBit | kLinkBit,
     "Start a cut on the first packet at or after --start, not on the key frame before it (the output may not "
     "decode until its first key frame)"},
    {"--end-on-match", "end_exclusive", kConvertBit | kUnpackBit,
     "End a cut only on a packet whose time equals the end exactly, not once every stream has passed it"},
    {"--keep-times", "zero_start", kConvertBit | kUnpackBit, "Keep the input's times; don't start the output at 0"},
    {"--keep-stream-numbers", "dense_streams", kConvertBit,
     "convert: give each output stream its input's number, leaving gaps for streams the container can't take"},
    {"--raw-times", "rescale_times", kUnpackBit,
     "extract: copy packet times unscaled, in the input stream's time base"},
    {"--round-robin", "interleave_by_time", kMuxBit, "mux: take one packet from each input in turn, not by time"},
    {"--shortest", "until_all_inputs_end", kMuxBit, "mux: end when the first input ends"},
    {"--one-stream-per-input", "all_streams", kMuxBit,
     "mux: put all of an input's packets into the output stream of its last video or audio stream"},
    {"--keep-input-times", "continuous_times", kLinkBit,
     "concat: keep each input's own times instead of going on from where the previous one ended"},
    {"--cut-on-output-timeline", "cut_per_input", kLinkBit,
     "concat: read an input's start= and end= on the joined output's timeline, not on the input's own"},
    {"--unfragmented-mp4", "fragment_bridged_mp4", kConvertBit | kUnpackBit | kMuxBit,
     "Write MP4 to standard output unfragmented (which fails: plain MP4 needs seeking)"},
    {"--no-dts-as-pts", "dts_as_pts", kEveryFamily,
     "Leave a packet without a presentation time without one, instead of giving it its decode time"},
    {"--stop-on-refused", "outputs_independent", kUnpackBit,
     "extract: end every output when one of them refuses a packet"},
    {"--drop-codec-tags", "keep_codec_tag", kEveryFamily, "Don't keep the input's codec tags (fourcc)"},
};

}  // namespace

ProgressMode ResolveProgress(const CommonOptions& common) {
  if (common.quiet || common.progress == "none") return ProgressMode::kNone;
  if (common.progress == "json") return ProgressMode::kJson;
  if (common.progress == "bar") return ProgressMode::kBar;
  return StderrIsTerminal() ? ProgressMode::kBar : ProgressMode::kNone;
}

void AddCommonOptions(CLI::App& app, CommonOptions& common) {
  app.add_option("--progress", common.progress,
                 "auto (a bar on a terminal), bar, json (JSON lines) or none; written to standard error")
      ->check(CLI::IsMember({"auto", "bar", "json", "none"}));
  app.add_flag("-q,--quiet", common.quiet, "No progress, no notes and no FFmpeg log lines; failures are still told");
  app.add_option("--loglevel", common.loglevel, "FFmpeg's log level (default: error; quiet with -q)")
      ->check(CLI::IsMember({"quiet", "panic", "fatal", "error", "warning", "info", "verbose", "debug", "trace"}));
  auto* yes = app.add_flag("-y,--overwrite", common.overwrite, "Overwrite existing output files without asking");
  app.add_flag("-n,--no-overwrite", common.no_overwrite, "Never overwrite an existing output file")->excludes(yes);
  app.add_flag("--no-keys", common.no_keys, "Don't read p and q from the terminal");
  auto* trusted = app.add_flag("--trusted", common.trusted,
                               "Inputs are trusted: URLs, playlists and every demuxer are allowed");
  app.add_option("--allow-protocols", common.allow_protocols,
                 "Like --trusted, but inputs may use only these protocols (comma-separated: file,http,https,tcp,...)")
      ->excludes(trusted);
  for (const Practical& p : kPractical) {
    app.add_flag_callback(p.flag, [&common, &p] { common.reverted.emplace_back(p.option); }, p.help)
        ->group("Practical behaviours, switched back");
  }
}

void Configure(const Family& family, void* task, const CommonOptions& common) {
  const auto set = [&](const std::string& name, const std::string& value) {
    Check(family.set_option(task, name.c_str(), value.c_str()), "setting the option " + name + "=" + value);
  };
  set("mode", "practical");
  set("policy", common.trusted || !common.allow_protocols.empty() ? "default" : "strict");
  if (!common.allow_protocols.empty()) set("input.protocol_whitelist", common.allow_protocols);
  for (const std::string& option : common.reverted) {
    for (const Practical& p : kPractical) {
      if (option == p.option && (p.families & family.bit) != 0) set(option, "0");
    }
  }
}

void* NewTask(const Family& family, const CommonOptions& common, Prepared& prepared) {
  prepared.task = std::make_unique<Task>(family, family.init(ProgressCounter::Record, prepared.counter.get()));
  void* task = prepared.task->get();
  Check(task != nullptr, std::string("creating a ") + family.name + " task");
  Configure(family, task, common);
  return task;
}

OutputTarget ResolveOutput(const std::string& output, const std::string& format) {
  if (output != "-") {
    if (!format.empty())
      throw UsageError("--format names the container for standard output only; a file's name decides its container");
    return {output, nullptr, Shown(output)};
  }
  if (format.empty())
    throw UsageError("writing to standard output (-) needs --format NAME: matroska, mpegts, nut or flv, for example");
  if (isatty(STDOUT_FILENO)) throw UsageError("standard output is a terminal; redirect it to a file or a pipe");
  return {format, WriteStandardOutput, "standard output"};
}

void AddCutOptions(CLI::App& command, CutOptions& options) {
  command.add_option("--start,--ss", options.start, "Keep packets from this time on (90, 1:30, 00:01:30.5, 5s, 500ms)");
  auto* end = command.add_option("--end,--to", options.end, "End at this time of the input");
  command.add_option("--duration,-t", options.duration, "End this long after the start")->excludes(end);
}

Cut ResolveCut(const CutOptions& options) {
  Cut cut;
  if (!options.start.empty()) cut.start = ParseTime(options.start);
  if (!options.end.empty()) cut.end = ParseTime(options.end);
  if (!options.duration.empty()) {
    const double duration = ParseTime(options.duration);
    if (duration <= 0.0) throw UsageError("--duration must be longer than 0");
    cut.end = cut.start + duration;
  }
  if (!options.end.empty() && cut.end <= cut.start)
    throw UsageError(fmt::format("the end ({}) is not after the start ({}): the output would hold nothing",
                                 options.end, options.start.empty() ? "0" : options.start));
  return cut;
}

std::string Shown(const std::string& path) {
  return path == "-" ? "standard input" : "\"" + path + "\"";
}

void CheckStandardOutput() {
  if (const int error = StandardOutputError())
    throw ToolFailure(fmt::format("writing to standard output failed: {}", std::strerror(error)));
}

int RunPrepared(Prepared& prepared) {
  const Outcome outcome = RunTask(*prepared.task, *prepared.counter, prepared.settings);
  CheckStandardOutput();
  prepared.files->Keep();
  return ExitStatus(outcome, *prepared.task);
}

void Note(const CommonOptions& common, const std::string& text) {
  if (!common.quiet) fmt::print(stderr, "note: {}\n", text);
}

}  // namespace qtool
