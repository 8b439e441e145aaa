// SPDX-License-Identifier: MIT
// What the tool tells its user when something fails: the library's error code
// by name, a plain sentence of what went wrong and one of what to check.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace qtool {

// A library call failed. `doing` says what the tool was doing at the time
// ("opening the input \"a.mp4\""); `detail` is the system's own reason, where
// one could be found (a missing file, a folder that can't be written to).
struct LibraryFailure {
  uint64_t code;
  std::string doing;
  std::string detail;
};

// The command line asks for something that can't be done; exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct ErrorText {
  const char* name;   // ERROR_AVFORMAT_..., or nullptr for a code the library never reports
  const char* what;   // what went wrong
  const char* check;  // what to check
};
ErrorText DescribeError(uint64_t code);

// Something outside the library failed (writing to standard output, ...); exit status 1.
struct ToolFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Which side of the operation a path is, to find the system's reason for a
// failed open.
enum class Role { kNone, kInput, kOutput };

// The system's reason why `path` can't be read (input) or written (output),
// or "" when nothing is wrong with it as far as the system can tell.
std::string SystemReason(const std::string& path, Role role);

// Throws LibraryFailure for `code`.
[[noreturn]] void Throw(uint64_t code, const std::string& doing, const std::string& path = "", Role role = Role::kNone);
// Throws LibraryFailure with the library's last error code unless `ok`.
void Check(bool ok, const std::string& doing, const std::string& path = "", Role role = Role::kNone);

// Writes the failure to standard error, as the command `command` saw it.
void Report(const std::string& command, const LibraryFailure& failure);

}  // namespace qtool
