// SPDX-License-Identifier: MIT
// The small languages of the command line: times, stream specifiers, and the
// comma-separated settings that follow an output of `extract` or an input of
// `concat`.
#pragma once

#include <optional>
#include <string>

namespace qtool {

// A time in FFmpeg's duration syntax ("90", "1.5", "1:30", "00:01:30.5", "5s",
// "500ms"), as seconds; never negative. Throws UsageError.
double ParseTime(const std::string& text);

// Plain seconds and [h:]m:s only, no units: the stricter form of ParseTime.
double ParseSeconds(const std::string& text);

// Throws UsageError unless `selector` is a stream specifier in FFmpeg's syntax
// (2, v, a:1, s:0, p:1:v, m:language:eng, ...).
void CheckStreamSelector(const std::string& selector);

// STREAMS=OUT[,start=S][,end=E]: STREAMS a stream specifier that names one stream.
struct SplitTarget {
  int stream = 0;        // STREAMS as a number, or -1 when it is some other specifier
  std::string selector;  // as given
  std::string output;
  double start = 0.0, end = 0.0;
};
SplitTarget ParseSplitTarget(const std::string& text);

// IN[,start=S][,end=E][,video=I][,audio=I]; an index of -1 copies no stream of that kind.
struct ConcatInput {
  std::string path;
  double start = 0.0, end = 0.0;
  std::optional<int> video, audio;
};
ConcatInput ParseConcatInput(const std::string& text);

}  // namespace qtool
