#include "commands.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cstring>

#include "caller_io.h"
#include "errors.h"
#include "terminal.h"

namespace qtool {

ProgressMode ResolveProgress(const CommonOptions& common) {
  if (common.quiet || common.progress == "none") return ProgressMode::kNone;
  if (common.progress == "json") return ProgressMode::kJson;
  if (common.progress == "bar") return ProgressMode::kBar;
  return StderrIsTerminal() ? ProgressMode::kBar : ProgressMode::kNone;
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

std::string Shown(const std::string& path) {
  return path == "-" ? "standard input" : "\"" + path + "\"";
}

void CheckStandardOutput() {
  if (const int error = StandardOutputError())
    throw ToolFailure(fmt::format("writing to standard output failed: {}", std::strerror(error)));
}

void Note(const CommonOptions& common, const std::string& text) {
  if (!common.quiet) fmt::print(stderr, "note: {}\n", text);
}

}  // namespace qtool
