// Looking into an input through the demultiplexing family's pull route: its
// streams, its packets, and how far its timeline reaches.
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
}

namespace qtool {

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
  // Opens `path`, or standard input for "-". Throws LibraryFailure.
  explicit PullReader(const std::string& path);
  ~PullReader();
  PullReader(const PullReader&) = delete;
  PullReader& operator=(const PullReader&) = delete;

  // Stream `index`'s codec parameters and time base; nullptr past the last stream.
  CodecParameters Stream(int index, AVCODEC_TIMEBASE* time_base);
  int StreamCount();
  // The next packet of any stream; false at the end of the input.
  bool Next(PulledPacket& packet);
  // Moves close to the end of the input; false when the input can't seek.
  bool SeekNearEnd();

 private:
  void* task_ = nullptr;
  std::vector<unsigned char> data_;  // grown to the largest packet met
};

// Media type (AVMEDIA_TYPE_*) of each stream of a file; empty when the file
// can't be looked into.
std::vector<int> StreamTypes(const std::string& path);

// From the earliest packet time to the end of the last packet; nothing when
// that can't be found cheaply.
std::optional<Span> EstimateSpan(const std::string& path);

}  // namespace qtool
