// SPDX-License-Identifier: MIT
#include "outputs.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdio>
#include <iostream>

#include "commands.h"
#include "errors.h"
#include "terminal.h"

namespace qtool {

std::string TemporaryName(const std::string& path) {
  const auto slash = path.rfind('/');
  const auto dot = path.rfind('.');
  const bool extension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
  const std::string part = fmt::format(".part-{}", getpid());
  return extension ? path.substr(0, dot) + part + path.substr(dot) : path + part;
}

OutputFiles::~OutputFiles() {
  if (keep_ || !created_) return;
  for (const std::string& path : written_) std::remove(path.c_str());
}

void OutputFiles::Commit() {
  for (size_t i = 0; i < claimed_.size(); ++i) {
    if (written_[i] != claimed_[i] && std::rename(written_[i].c_str(), claimed_[i].c_str()) != 0)
      throw ToolFailure(fmt::format("renaming \"{}\" to \"{}\" failed: {}", written_[i], claimed_[i],
                                    std::strerror(errno)));
    written_[i] = claimed_[i];  // in place: no longer taken away
  }
  keep_ = true;
}

std::string OutputFiles::Claim(const std::string& path) {
  if (path == "-") return path;
  struct stat output {};
  const bool exists = stat(path.c_str(), &output) == 0;
  for (const std::string& input : inputs_) {
    struct stat in {};
    if (input == path || (exists && stat(input.c_str(), &in) == 0 && in.st_dev == output.st_dev &&
                          in.st_ino == output.st_ino))
      throw ToolFailure(fmt::format("the output \"{}\" is the input {}: refused, as writing it would destroy the input",
                                    path, Shown(input)));
  }
  if (exists && S_ISREG(output.st_mode)) {
    if (common_.no_overwrite)
      throw ToolFailure(fmt::format("\"{}\" exists already: not overwritten ({})", path,
                                    common_.temporary_names ? "\"overwrite\": true replaces it" : "-n"));
    if (!common_.overwrite && !Confirm(path))
      throw ToolFailure(fmt::format("\"{}\" exists already: not overwritten (-y overwrites it)", path));
  }
  // Only what is a plain file, or nothing yet, is taken away after a failure.
  if (exists && !S_ISREG(output.st_mode)) return path;
  claimed_.push_back(path);
  written_.push_back(common_.temporary_names ? TemporaryName(path) : path);
  return written_.back();
}

bool OutputFiles::Confirm(const std::string& path) const {
  // Only a user at the terminal can answer, and only when standard input
  // carries no data for the task.
  const bool piped_input = std::find(inputs_.begin(), inputs_.end(), "-") != inputs_.end();
  if (piped_input || !isatty(STDIN_FILENO) || !StderrIsTerminal() || !InForeground()) return false;
  fmt::print(stderr, "File \"{}\" already exists. Overwrite? [y/N] ", path);
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  return answer == "y" || answer == "Y" || answer == "yes";
}

}  // namespace qtool
