// SPDX-License-Identifier: MIT
// The subcommands, one file each, and what they share: the options that every
// subcommand takes and the choice between a named file and a standard stream.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Quorvel_AVFormat.h"
#include "outputs.h"
#include "progress.h"
#include "task.h"

namespace qtool {

struct Family;

struct CommonOptions {
  std::string progress = "auto";  // auto, bar, json, none
  bool quiet = false;
  std::string loglevel;           // FFmpeg's log level; "" for error (quiet with -q)
  bool overwrite = false, no_overwrite = false;  // -y, -n
  bool no_keys = false;
  bool trusted = false;           // the default input policy instead of the strict one
  std::string allow_protocols;    // the default policy, reading through these protocols only
  std::vector<std::string> reverted;  // practical options switched back to their defined behaviour
  bool temporary_names = false;   // outputs are written under a temporary name (see OutputFiles)
};
ProgressMode ResolveProgress(const CommonOptions& common);
// The options on the whole tool (and, through fallthrough, on every subcommand).
void AddCommonOptions(CLI::App& app, CommonOptions& common);
// Sets the practical preset, the input policy and the switched-back options
// on a new task of `family`. Throws LibraryFailure.
void Configure(const Family& family, void* task, const CommonOptions& common);

// The subcommand that the command line chose, ready to run: returns the exit status.
using Action = std::function<int()>;

// A task set up from parsed arguments and started, with the files it writes;
// nothing shown and nothing read from the terminal. Members go in the order
// that they must be released in reverse: the task stops before its outputs
// are taken away and before the counter that its worker reports to.
struct Prepared {
  std::unique_ptr<ProgressCounter> counter = std::make_unique<ProgressCounter>();
  std::unique_ptr<OutputFiles> files;
  std::unique_ptr<Task> task;
  RunSettings settings;  // for a run on the terminal: the span, whether keys may be read
};
// What a task subcommand makes of its arguments: fills `prepared` (throws
// UsageError, ToolFailure, LibraryFailure; what was made so far is released
// by Prepared's members).
using Builder = std::function<void(const CommonOptions& common, Prepared& prepared)>;
// Makes `prepared`'s task of `family`, reporting to its counter, and
// configures it (Configure); returns its handle. Throws LibraryFailure.
void* NewTask(const Family& family, const CommonOptions& common, Prepared& prepared);
// Drives a prepared task on the terminal (progress, keys, signals) and returns the exit status.
int RunPrepared(Prepared& prepared);

void AddConvert(CLI::App& app, Builder& builder);
void AddExtract(CLI::App& app, Builder& builder);
void AddMux(CLI::App& app, Builder& builder);
void AddConcat(CLI::App& app, Builder& builder);
void AddPackets(CLI::App& app, const CommonOptions& common, Action& action);
void AddStreams(CLI::App& app, const CommonOptions& common, Action& action);
void AddInfo(CLI::App& app, const CommonOptions& common, Action& action);

// Where a task writes: the file OUT, whose name decides the container, or for
// "-" standard output in the container that --format names.
struct OutputTarget {
  std::string name;  // file name, or the container's short name
  AVFORMAT_IO_FUNCTION write = nullptr;
  std::string shown;  // for messages
};
OutputTarget ResolveOutput(const std::string& output, const std::string& format);

// A cut from --start and one of --end, --to (the same) or --duration; 0 for
// an end means none. Throws UsageError for an end that is not after the start.
struct Cut {
  double start = 0.0, end = 0.0;
};
struct CutOptions {
  std::string start, end, duration;
};
void AddCutOptions(CLI::App& command, CutOptions& options);
Cut ResolveCut(const CutOptions& options);

// How an input is named in messages.
std::string Shown(const std::string& path);

// Throws ToolFailure when writing to standard output failed.
void CheckStandardOutput();

// A note for the user on standard error, unless --quiet.
void Note(const CommonOptions& common, const std::string& text);

// The schema number that every JSON output carries, raised when a field
// changes its meaning or goes away (new fields keep it).
constexpr int kJsonSchema = 1;

}  // namespace qtool
