// Concatenation has no caller I/O: the hostile bytes go into a file, which is
// joined to itself into a Matroska file.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fuzz/fuzz_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* scratch = std::getenv("TMPDIR");
  static const std::string base =
      std::string(scratch != nullptr ? scratch : "/tmp") + "/quorvel-link-fuzz-" + std::to_string(getpid());
  static const std::string input = base + ".in", output = base + ".mkv";
  if (!std::ofstream(input, std::ios::binary).write(reinterpret_cast<const char*>(data), static_cast<long>(size)))
    return 0;
  void* task = AVFormat_Link_Init(qfuzz::IgnoreProgress, nullptr);
  if (task != nullptr && AVFormat_Link_Output(task, output.c_str()) &&
      AVFormat_Link_Input(task, input.c_str(), 0.0, 0.0, 0, 1) &&
      AVFormat_Link_Input(task, input.c_str(), 0.0, 0.0, 0, 1) && AVFormat_Link_Start(task))
    qfuzz::WaitForEnd(AVFormat_Link_GetStatus, task);
  AVFormat_Link_Stop(task);
  std::remove(input.c_str());
  std::remove(output.c_str());
  return 0;
}
