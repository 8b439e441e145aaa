// The subcommands, one file each, and what they share: the options that every
// subcommand takes and the choice between a named file and a standard stream.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "Quorvel_AVFormat.h"
#include "progress.h"

namespace qtool {

struct CommonOptions {
  std::string progress = "auto";  // auto, bar, json, none
  bool quiet = false;
};
ProgressMode ResolveProgress(const CommonOptions& common);

// The subcommand that the command line chose, ready to run: returns the exit status.
using Action = std::function<int()>;

void AddConvert(CLI::App& app, const CommonOptions& common, Action& action);
void AddSplit(CLI::App& app, const CommonOptions& common, Action& action);
void AddMux(CLI::App& app, const CommonOptions& common, Action& action);
void AddConcat(CLI::App& app, const CommonOptions& common, Action& action);
void AddPackets(CLI::App& app, const CommonOptions& common, Action& action);
void AddStreams(CLI::App& app, const CommonOptions& common, Action& action);

// Where a task writes: the file OUT, whose name decides the container, or for
// "-" standard output in the container that --format names.
struct OutputTarget {
  std::string name;  // file name, or the container's short name
  AVFORMAT_IO_FUNCTION write = nullptr;
  std::string shown;  // for messages
};
OutputTarget ResolveOutput(const std::string& output, const std::string& format);

// How an input is named in messages.
std::string Shown(const std::string& path);

// Throws ToolFailure when writing to standard output failed.
void CheckStandardOutput();

// A note for the user on standard error, unless --quiet.
void Note(const CommonOptions& common, const std::string& text);

}  // namespace qtool
