// SPDX-License-Identifier: MIT
#include "outputs.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "commands.h"
#include "errors.h"
#include "terminal.h"

namespace qtool {

OutputFiles::~OutputFiles() {
  if (keep_ || !created_) return;
  for (const std::string& path : claimed_) std::remove(path.c_str());
}

void OutputFiles::Claim(const std::string& path) {
  if (path == "-") return;
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
    if (common_.no_overwrite) throw ToolFailure(fmt::format("\"{}\" exists already: not overwritten (-n)", path));
    if (!common_.overwrite && !Confirm(path))
      throw ToolFailure(fmt::format("\"{}\" exists already: not overwritten (-y overwrites it)", path));
  }
  // Only what is a plain file, or nothing yet, is taken away after a failure.
  if (!exists || S_ISREG(output.st_mode)) claimed_.push_back(path);
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
