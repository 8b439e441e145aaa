// SPDX-License-Identifier: MIT
// Concatenation has no caller I/O: the hostile bytes go into two files, which
// are joined into a Matroska file. When the first four bytes, as a
// little-endian number, fit in the rest, they are the first input's length and
// the rest after it is the second input; otherwise the data is joined to itself.
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
  static const std::string inputs[2] = {base + ".1", base + ".2"}, output = base + ".mkv";
  const size_t first = size < 4 ? SIZE_MAX : data[0] | data[1] << 8 | data[2] << 16 | size_t{data[3]} << 24;
  const bool split = size >= 4 && first <= size - 4;
  const uint8_t* parts[2][2] = {{data, data + size}, {data, data + size}};
  if (split) parts[0][0] = data + 4, parts[0][1] = parts[1][0] = data + 4 + first;
  for (int i = 0; i < 2; ++i)
    if (!std::ofstream(inputs[i], std::ios::binary)
             .write(reinterpret_cast<const char*>(parts[i][0]), parts[i][1] - parts[i][0]))
      return 0;
  void* task = AVFormat_Link_Init(qfuzz::IgnoreProgress, nullptr);
  const bool ready = task != nullptr && AVFormat_Link_SetOption(task, "open_timeout", qfuzz::kOpenTimeout) &&
                     AVFormat_Link_Output(task, output.c_str()) &&
                     AVFormat_Link_Input(task, inputs[0].c_str(), 0.0, 0.0, 0, 1) &&
                     AVFormat_Link_Input(task, inputs[1].c_str(), 0.0, 0.0, 0, 1);
  if (ready && AVFormat_Link_Start(task)) qfuzz::WaitForEnd(AVFormat_Link_GetStatus, task);
  AVFormat_Link_Stop(task);
  for (const std::string& file : {inputs[0], inputs[1], output}) std::remove(file.c_str());
  return 0;
}
