// Concatenation has no caller I/O: the hostile bytes go into a file, which is
// joined to itself into a Matroska file.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_io.h"

namespace {

std::string ScratchPath(const char* suffix) {
  const char* base = std::getenv("TMPDIR");
  return std::string(base != nullptr ? base : "/tmp") + "/quorvel-link-fuzz-" + std::to_string(getpid()) + suffix;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qfuzz::Quiet();
  static const std::string input = ScratchPath(".in"), output = ScratchPath(".mkv");
  FILE* file = std::fopen(input.c_str(), "wb");
  if (file == nullptr) return 0;
  const bool written = std::fwrite(data, 1, size, file) == size;
  if (std::fclose(file) != 0 || !written) return 0;

  void* task = AVFormat_Link_Init(qfuzz::IgnoreProgress, nullptr);
  if (task == nullptr) return 0;
  if (AVFormat_Link_Output(task, output.c_str()) && AVFormat_Link_Input(task, input.c_str(), 0.0, 0.0, 0, 1) &&
      AVFormat_Link_Input(task, input.c_str(), 0.0, 0.0, 0, 1) && AVFormat_Link_Start(task))
    qfuzz::WaitForEnd(AVFormat_Link_GetStatus, task);
  AVFormat_Link_Stop(task);
  std::remove(input.c_str());
  std::remove(output.c_str());
  return 0;
}
