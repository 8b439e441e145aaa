// SPDX-License-Identifier: MIT
// Replays files through a fuzz target's entry point, without libFuzzer: how
// the regular test suite (any compiler, any sanitizer lane) keeps every input
// that once broke the library. Arguments are files or directories of files;
// a missing one fails the run.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  int total = 0;
  for (int i = 1; i < argc; ++i) {
    if (!fs::exists(argv[i])) return std::fprintf(stderr, "missing: %s\n", argv[i]), 1;
    std::vector<fs::path> files{argv[i]};
    if (fs::is_directory(argv[i])) files.assign(fs::directory_iterator(argv[i]), fs::directory_iterator());
    for (const fs::path& file : files) {
      if (file.filename().string()[0] == '.') continue;  // .gitkeep
      std::ifstream in(file, std::ios::binary);
      const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      std::printf("replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++total;
    }
  }
  std::printf("%d inputs replayed\n", total);
}
