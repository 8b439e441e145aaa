// SPDX-License-Identifier: MIT
// Looking into an input: through the demultiplexing family's pull route (its
// streams and packets, as the library sees them), and through FFmpeg before a
// task opens it (container, length, stream specifiers).
#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Quorvel_AVFormat.h"
#include "progress.h"

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavformat/avformat.h>
}

namespace qtool {

struct CommonOptions;
struct Family;

// A copy of a stream's codec parameters as the library hands it out: released
// with free(), its pointers still pointing into the open input.
struct FreeParameters {
  void operator()(AVCodecParameters* parameters) const { std::free(parameters); }
};
using CodecParameters = std::unique_ptr<AVCodecParameters, FreeParameters>;

struct PulledPacket {
  int stream = 0;
  int size = 0;
  int flags = 0;  // AVFORMAT_PKT_FLAG_*
  AVCODEC_PACKETINFO info{};
  AVCODEC_TIMEBASE time_base{};
};

// A demultiplexing task that is never started: packets are pulled one by one.
class PullReader {
 public:
  // Opens `path`, or standard input for "-", under the tool's input policy.
  // Throws LibraryFailure.
  PullReader(const std::string& path, const CommonOptions& common);
  ~PullReader();
  PullReader(const PullReader&) = delete;
  PullReader& operator=(const PullReader&) = delete;

  // Stream `index`'s codec parameters and time base; nullptr past the last stream.
  CodecParameters Stream(int index, AVCODEC_TIMEBASE* time_base);
  int StreamCount();
  // The next packet of any stream; false at the end of the input.
  bool Next(PulledPacket& packet);

 private:
  void* task_ = nullptr;
  std::vector<unsigned char> data_;  // grown to the largest packet met
};

// A named input, opened before any output exists: first by the library under
// the tool's input policy (so that a refusal comes before anything is
// written), then by FFmpeg for what the library does not tell.
class MediaFile {
 public:
  // Throws LibraryFailure with `family`'s code for an input that can't be
  // opened or that the policy refuses.
  MediaFile(const std::string& path, const CommonOptions& common, const Family& family);
  ~MediaFile();
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;

  const AVFormatContext& context() const { return *context_; }
  unsigned count() const { return context_->nb_streams; }
  const AVStream& stream(unsigned index) const { return *context_->streams[index]; }
  AVMediaType type(unsigned index) const { return stream(index).codecpar->codec_type; }
  // The streams that `selector` picks, in order. Throws UsageError for a malformed
  // specifier.
  std::vector<int> Match(const std::string& selector) const;
  // The input's timeline as the container tells it (no packet is read).
  std::optional<Span> span() const;

 private:
  AVFormatContext* context_ = nullptr;
};

}  // namespace qtool
