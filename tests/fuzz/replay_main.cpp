// Replays files through a fuzz target's entry point, without libFuzzer: how
// the regular test suite (any compiler, any sanitizer lane) keeps every input
// that once broke the library. Arguments are files or directories of files.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int Replay(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    std::fprintf(stderr, "missing: %s\n", path.c_str());
    return -1;
  }
  if (S_ISDIR(info.st_mode)) {
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) return -1;
    int count = 0;
    while (const dirent* entry = readdir(directory)) {
      const std::string name = entry->d_name;
      if (name.empty() || name[0] == '.') continue;  // ., .. and .gitkeep
      const int replayed = Replay(path + "/" + name);
      if (replayed < 0) count = -1;
      if (count >= 0) count += replayed;
    }
    closedir(directory);
    return count;
  }
  std::ifstream file(path, std::ios::binary);
  const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  std::printf("replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int total = 0;
  for (int i = 1; i < argc; ++i) {
    const int replayed = Replay(argv[i]);
    if (replayed < 0) return 1;
    total += replayed;
  }
  std::printf("%d inputs replayed\n", total);
  return 0;
}
