// SPDX-License-Identifier: MIT
// batch JOBS: the jobs of a JSON-lines file, each one a task subcommand with
// its arguments, many at once in one process; a results line for each job.
#pragma once

#include <CLI/CLI.hpp>

#include "commands.h"

namespace qtool {

void AddBatch(CLI::App& app, const CommonOptions& common, Action& action);

}  // namespace qtool
