#include "support/caller.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qtest {

void ProgressLog::Record(void* reserved, int type, long long number, double seconds, void* context) {
  auto* log = static_cast<ProgressLog*>(context);
  std::lock_guard<std::mutex> guard(log->lock_);
  log->calls_.push_back(Call{reserved, type, number, seconds});
}

std::vector<ProgressLog::Call> ProgressLog::Calls() const {
  std::lock_guard<std::mutex> guard(lock_);
  return calls_;
}

size_t ProgressLog::Count() const {
  std::lock_guard<std::mutex> guard(lock_);
  return calls_.size();
}

int MemoryReader::Read(void* context, unsigned char* buffer, int size) {
  auto* reader = static_cast<MemoryReader*>(context);
  ++reader->calls;
  size_t available = reader->data.size() - reader->position;
  if (reader->fail_after >= 0) {
    const size_t allowed = static_cast<size_t>(reader->fail_after);
    if (reader->position >= allowed) return reader->failure;
    available = std::min(available, allowed - reader->position);
  }
  if (available == 0) return AVFORMAT_IO_EOF;
  const size_t count = std::min(available, static_cast<size_t>(size));
  std::memcpy(buffer, reader->data.data() + reader->position, count);
  reader->position += count;
  return static_cast<int>(count);
}

int MemoryWriter::Write(void* context, unsigned char* buffer, int size) {
  auto* writer = static_cast<MemoryWriter*>(context);
  ++writer->calls;
  if (writer->fail_after >= 0 && static_cast<long long>(writer->data.size() + size) > writer->fail_after)
    return -5;  // AVERROR(EIO)
  writer->data.insert(writer->data.end(), buffer, buffer + size);
  return size;
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

ErrorState LastError() { return ErrorState{AVForamt_IsErrorOccur, AVFormat_GetLastError(nullptr)}; }

std::string ToString(const ErrorState& state) {
  char text[64];
  std::snprintf(text, sizeof text, "{occurred=%d, code=0x%llx}", state.occurred ? 1 : 0,
                static_cast<unsigned long long>(state.code));
  return text;
}

}  // namespace qtest
