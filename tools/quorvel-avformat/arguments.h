// The small languages of the command line: times, and the comma-separated
// settings that follow an output of `split` or an input of `concat`.
#pragma once

#include <optional>
#include <string>

namespace qtool {

// Seconds as "90", "1.5", "1:30" or "0:01:30.5". Throws UsageError.
double ParseSeconds(const std::string& text);

// STREAM=OUT[,start=S][,end=E]
struct SplitTarget {
  int stream = 0;
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
