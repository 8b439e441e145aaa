// SPDX-License-Identifier: MIT
// The user's hands on a running task: keys on the terminal (p pauses and
// resumes, q stops) and the signals that ask for a clean stop (SIGINT, SIGTERM).
#pragma once

#include <chrono>

namespace qtool {

// From here on, SIGINT and SIGTERM ask for a stop instead of ending the
// process; a second one ends it at once. SIGPIPE is ignored, so that a closed
// pipe on standard output becomes a write error.
void InstallStopSignals();

// Whether a stop was asked for, by a signal or by the q key.
bool StopRequested();
// The signal that asked for the stop, or 0.
int StopSignal();
void RequestStop();

// Reads single keys from the terminal without waiting for Enter. Only active
// when wanted (no --no-keys, standard input carries no data for the task) and
// standard input is the terminal of a foreground job.
class KeyReader {
 public:
  explicit KeyReader(bool wanted);
  ~KeyReader();
  KeyReader(const KeyReader&) = delete;
  KeyReader& operator=(const KeyReader&) = delete;

  bool active() const { return active_; }
  // Waits up to `timeout` for a key; returns it, or 0 when none came.
  char Wait(std::chrono::milliseconds timeout);
  // Gives the terminal back its line mode (also done by the destructor and by
  // a stop signal).
  void Restore();

 private:
  bool active_ = false;
};

bool StderrIsTerminal();
// Whether the tool is the terminal's foreground job: a job in the background
// that touched the terminal's modes would be stopped by the shell.
bool InForeground();
// Width of the terminal on standard error; 80 when unknown.
int TerminalColumns();

}  // namespace qtool
