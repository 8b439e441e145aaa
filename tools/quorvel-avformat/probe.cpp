// SPDX-License-Identifier: MIT
#include "probe.h"

#include <fmt/core.h>

#include "arguments.h"
#include "caller_io.h"
#include "commands.h"
#include "errors.h"
#include "task.h"

namespace qtool {
namespace {

void NoProgress(void*, int, long long, double, void*) {}

}  // namespace

PullReader::PullReader(const std::string& path, const CommonOptions& common) {
  task_ = AVFormat_UNPack_Init(NoProgress, nullptr);
  Check(task_ != nullptr, "creating a demultiplexing task");
  try {
    Configure(kDemultiplexing, task_, common);
    const bool standard_input = path == "-";
    Check(standard_input ? AVFormat_UNPack_Input(task_, nullptr, ReadStandardInput, nullptr)
                         : AVFormat_UNPack_Input(task_, path.c_str(), nullptr, nullptr),
          "opening the input " + Shown(path), path, Role::kInput);
  } catch (...) {
    // The constructor won't finish, so the destructor won't stop the task.
    AVFormat_UNPack_Stop(task_);
    throw;
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

MediaFile::MediaFile(const std::string& path, const CommonOptions& common, const Family& family) {
  try {
    PullReader gate(path, common);
  } catch (LibraryFailure& failure) {
    // Told as the family's own open would tell it.
    if (failure.code == ERROR_AVFORMAT_PACKET_OPEN) failure.code = family.open_code;
    if (failure.code == ERROR_AVFORMAT_PACKET_POLICY) failure.code = family.policy_code;
    throw;
  }
  AVDictionary* options = nullptr;
  const std::string protocols = !common.allow_protocols.empty() ? common.allow_protocols : common.trusted ? "" : "file";
  if (!protocols.empty()) av_dict_set(&options, "protocol_whitelist", protocols.c_str(), 0);
  const int opened = avformat_open_input(&context_, path.c_str(), nullptr, &options);
  av_dict_free(&options);
  if (opened < 0 || avformat_find_stream_info(context_, nullptr) < 0) {
    avformat_close_input(&context_);
    Throw(family.open_code, "looking into the input " + Shown(path), path, Role::kInput);
  }
}

MediaFile::~MediaFile() {
  avformat_close_input(&context_);
}

std::vector<int> MediaFile::Match(const std::string& selector) const {
  CheckStreamSelector(selector);
  std::vector<int> matched;
  for (unsigned i = 0; i < count(); ++i) {
    if (avformat_match_stream_specifier(context_, context_->streams[i], selector.c_str()) > 0)
      matched.push_back(static_cast<int>(i));
  }
  return matched;
}

std::optional<Span> MediaFile::span() const {
  if (context_->duration == AV_NOPTS_VALUE || context_->duration <= 0) return std::nullopt;
  const double first = context_->start_time == AV_NOPTS_VALUE ? 0.0 : context_->start_time / double(AV_TIME_BASE);
  return Span{first, first + context_->duration / double(AV_TIME_BASE)};
}

}  // namespace qtool
