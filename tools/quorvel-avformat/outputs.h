// SPDX-License-Identifier: MIT
// The user's files come first: an output is checked against the inputs and
// against what exists before anything is written, and a run that fails takes
// away the files it wrote.
#pragma once

#include <string>
#include <vector>

namespace qtool {

struct CommonOptions;

// NAME.part-PID.EXT beside NAME (EXT, NAME's extension, keeps the container
// that NAME chooses): a rename in one folder is atomic.
std::string TemporaryName(const std::string& path);

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
  // ("-") are written as they are. Returns the name to write: `path`, or with
  // temporary names a file beside it (see TemporaryName). Throws ToolFailure.
  std::string Claim(const std::string& path);
  // The outputs are about to be created (or truncated): from here on a failure removes them.
  void Creating() { created_ = true; }
  // The run produced valid outputs: they stay.
  void Keep() { keep_ = true; }
  // The run produced valid outputs: temporary files take their final names.
  // Throws ToolFailure when a rename fails.
  void Commit();
  // The final names of the files that this run writes.
  const std::vector<std::string>& names() const { return claimed_; }

 private:
  bool Confirm(const std::string& path) const;
  const CommonOptions& common_;
  std::vector<std::string> inputs_;
  std::vector<std::string> claimed_;  // final names
  std::vector<std::string> written_;  // the names written, claimed_'s temporary names or the same
  bool created_ = false, keep_ = false;
};

}  // namespace qtool
