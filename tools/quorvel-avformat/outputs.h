// SPDX-License-Identifier: MIT
// The user's files come first: an output is checked against the inputs and
// against what exists before anything is written, and a run that fails takes
// away the files it wrote.
#pragma once

#include <string>
#include <vector>

namespace qtool {

struct CommonOptions;

class OutputFiles {
 public:
  OutputFiles(const CommonOptions& common, std::vector<std::string> inputs)
      : common_(common), inputs_(std::move(inputs)) {}
  // Removes every claimed output once Creating was called, unless Keep was:
  // the run failed.
  ~OutputFiles();
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;

  // Checks that `path` may be written: not an input (same device and inode,
  // or the same name), and, for an existing regular file, -y, or a yes on the
  // terminal; -n or no terminal refuses. Devices, pipes and standard output
  // ("-") are written as they are. Throws ToolFailure.
  void Claim(const std::string& path);
  // The outputs are about to be created (or truncated): from here on a failure removes them.
  void Creating() { created_ = true; }
  // The run produced valid outputs: they stay.
  void Keep() { keep_ = true; }

 private:
  bool Confirm(const std::string& path) const;
  const CommonOptions& common_;
  std::vector<std::string> inputs_;
  std::vector<std::string> claimed_;
  bool created_ = false, keep_ = false;
};

}  // namespace qtool
