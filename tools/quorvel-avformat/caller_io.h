// SPDX-License-Identifier: MIT
// Standard input and standard output as the library's caller read and write
// functions, for `-` in place of a file name.
#pragma once

namespace qtool {

// Reads standard input. Gives up (as an end of input) once a stop is asked
// for, so a task waiting on a quiet pipe still stops.
int ReadStandardInput(void* context, unsigned char* buffer, int size);

// Writes everything to standard output; a write error (a closed pipe, a full
// disk) comes back as FFmpeg's negative error number.
int WriteStandardOutput(void* context, unsigned char* buffer, int size);

// The first write error on standard output (an errno value), or 0. A write
// error also asks the task to stop: nobody reads what would follow.
int StandardOutputError();

// Swallows what it is given: for outputs that nobody asked for.
int Discard(void* context, unsigned char* buffer, int size);

inline bool IsStandardStream(const char* name) {
  return name[0] == '-' && name[1] == '\0';
}

}  // namespace qtool
