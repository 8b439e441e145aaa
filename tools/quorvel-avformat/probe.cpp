#include "probe.h"

#include <sys/stat.h>

#include <algorithm>

#include "caller_io.h"
#include "errors.h"

namespace qtool {
namespace {

constexpr off_t kMiB = 1 << 20;
// Without a seek to the end, a file this small is read through to find its end.
constexpr off_t kReadThroughLimit = 64 * kMiB;

void NoProgress(void*, int, long long, double, void*) {}

std::optional<off_t> RegularFileSize(const std::string& path) {
  struct stat status {};
  if (path == "-" || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return status.st_size;
}

double Seconds(int64_t ticks, AVCODEC_TIMEBASE time_base) {
  return static_cast<double>(ticks) * time_base.num / time_base.den;
}

}  // namespace

PullReader::PullReader(const std::string& path) {
  task_ = AVFormat_UNPack_Init(NoProgress, nullptr);
  Check(task_ != nullptr, "creating a demultiplexing task");
  const bool standard_input = path == "-";
  const bool opened = standard_input ? AVFormat_UNPack_Input(task_, nullptr, ReadStandardInput, nullptr)
                                     : AVFormat_UNPack_Input(task_, path.c_str(), nullptr, nullptr);
  if (!opened) {
    // The constructor won't finish, so the destructor won't stop the task.
    const uint64_t code = AVFormat_GetLastError(nullptr);
    AVFormat_UNPack_Stop(task_);
    Throw(code, "opening the input \"" + path + "\"", path, Role::kInput);
  }
}

PullReader::~PullReader() {
  AVFormat_UNPack_Stop(task_);
}

CodecParameters PullReader::Stream(int index, AVCODEC_TIMEBASE* time_base) {
  void* parameters = nullptr;
  if (!AVFormat_UNPack_GetAVCodec(task_, index, &parameters, time_base)) {
    if (AVFormat_GetLastError(nullptr) == ERROR_AVFORMAT_PACKET_SEEK) return nullptr;
    Check(false, "taking the codec parameters of stream " + std::to_string(index));
  }
  return CodecParameters(static_cast<AVCodecParameters*>(parameters));
}

int PullReader::StreamCount() {
  int count = 0;
  AVCODEC_TIMEBASE time_base{};
  while (count < 4096 && AVFormat_UNPack_GetAVCodec(task_, count, nullptr, &time_base)) ++count;
  return count;
}

bool PullReader::Next(PulledPacket& packet) {
  // The buffer grows to the largest packet met so far: a packet can be far
  // larger than its file (a compressed Matroska block inflates), so no size
  // taken from the input would bound it.
  for (;;) {
    if (AVFormat_UNPack_ReadSized(task_, &packet.stream, data_.data(), static_cast<int>(data_.size()), &packet.size,
                                  &packet.flags, &packet.info, &packet.time_base))
      return true;
    const uint64_t code = AVFormat_GetLastError(nullptr);
    if (code == ERROR_AVFORMAT_PACKET_READ) return false;
    Check(code == ERROR_AVFORMAT_PACKET_BUFFERSIZE, "reading a packet");
    data_.resize(static_cast<size_t>(packet.size) + static_cast<size_t>(packet.size) / 2);  // room to grow
  }
}

bool PullReader::SeekNearEnd() {
  // A year on from the start: the seek lands on the last key frame before it.
  constexpr unsigned long long kYear = 365ULL * 24 * 3600 * 1000000;
  return AVFormat_UNPack_Seek(task_, -1, kYear);
}

std::vector<int> StreamTypes(const std::string& path) {
  std::vector<int> types;
  if (!RegularFileSize(path)) return types;
  try {
    PullReader reader(path);
    while (CodecParameters parameters = reader.Stream(static_cast<int>(types.size()), nullptr))
      types.push_back(parameters->codec_type);
  } catch (const LibraryFailure&) {
    types.clear();
  }
  return types;
}

std::optional<Span> EstimateSpan(const std::string& path) {
  const auto size = RegularFileSize(path);
  if (!size) return std::nullopt;
  try {
    PullReader reader(path);
    std::vector<AVCODEC_TIMEBASE> stream_bases(reader.StreamCount());
    for (size_t i = 0; i < stream_bases.size(); ++i) reader.Stream(static_cast<int>(i), &stream_bases[i]);
    std::optional<Span> span;
    PulledPacket packet;
    const auto take = [&] {
      AVCODEC_TIMEBASE base = packet.time_base;
      if (base.num == 0 && packet.stream >= 0 && static_cast<size_t>(packet.stream) < stream_bases.size())
        base = stream_bases[packet.stream];
      if (packet.info.pts == AV_NOPTS_VALUE || base.num == 0 || base.den == 0) return;
      const double seconds = Seconds(packet.info.pts, base);
      if (!span) span = Span{seconds, seconds};
      span->first = std::min(span->first, seconds);
      span->last = std::max(span->last, seconds);
    };
    // The earliest times are among the first packets (B-frames come out of order).
    for (int i = 0; i < 32 && reader.Next(packet); ++i) take();
    if (!reader.SeekNearEnd() && *size > kReadThroughLimit) return std::nullopt;
    while (reader.Next(packet)) take();
    return span;
  } catch (const LibraryFailure&) {
    return std::nullopt;
  }
}

}  // namespace qtool
