// SPDX-License-Identifier: MIT
// Caller-fed streams: StreamCreate adds an output stream from codec
// parameters, StreamWrite writes one packet of the caller's into it.
#include <cmath>

#include "core/error.h"
#include "core/remux.h"
#include "packet/packet.h"
#include "packet/packet_task.h"

using quorvel::Fail;

namespace {

constexpr AVRational kMicroseconds{1, 1000000};

// The length of one video frame in whole microseconds, taking the caller's
// time-base denominator as the frame rate (1/25 -> 40000, 1/90000 -> 11).
// A denominator of 0 gives no length at all.
int64_t VideoFrameLength(int den) {
  if (den == 0) return 0;
  return static_cast<int64_t>(std::trunc(1.0 / static_cast<double>(den) * 1000000.0));
}

}  // namespace

bool CAVFormat_Packet::AVFormat_Packet_StreamCreate(void* lpTask, void* lpCodecParameters) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  if (task == nullptr || lpCodecParameters == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  if (task->bRunning) return Fail(ERROR_AVFORMAT_PACKET_THREAD);
  // A stream needs an output to live in, and can't join a muxer that has written its header.
  if (!task->bOutputReady || task->HeaderTried()) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  const auto* parameters = static_cast<const AVCodecParameters*>(lpCodecParameters);
  AVStream* stream = nullptr;
  // A deep copy: the caller keeps its parameters. A failed copy leaves the stream in the output.
  if (quorvel::NewOutputStream(task->pOutputContext.get(), parameters, task->stOptions.keep_codec_tag, &stream) !=
      quorvel::StreamStep::kDone)
    return Fail(ERROR_AVFORMAT_PACKET_CODECPAR);
  if (parameters->codec_type == AVMEDIA_TYPE_VIDEO)
    task->nVideoStream = stream->index;  // with several video streams the last one wins
  else
    task->nAudioStream = stream->index;
  return true;
}

bool CAVFormat_Packet::AVFormat_Packet_StreamWrite(void* lpTask, int nStreamIndex, const unsigned char* pData,
                                                   int nSize, AVCODEC_TIMEBASE* pTimeBase, AVCODEC_PACKETINFO* pInfo) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  if (task == nullptr || pTimeBase == nullptr || !task->bOutputReady || nSize < 0 || (pData == nullptr && nSize > 0))
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // A time base that is no length of time gives no times at all.
  if (pTimeBase->num <= 0 || pTimeBase->den <= 0) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // The worker writes into the same muxer.
  if (task->bRunning) return Fail(ERROR_AVFORMAT_PACKET_THREAD);

  AVFormatContext* output = task->pOutputContext.get();
  // The first write writes the header, and the header is tried only once:
  // the flag is set before trying.
  if (!task->HeaderTried()) {
    task->bHeaderWritten = true;
    const quorvel::HeaderResult header = quorvel::WriteHeader(output, task->stOptions);
    task->stTally.Observe(output, task->llBytesSeen);
    if (header == quorvel::HeaderResult::kUnused) return Fail(ERROR_AVFORMAT_PACKET_OPTION_UNUSED);
    if (header != quorvel::HeaderResult::kWritten) return Fail(ERROR_AVFORMAT_PACKET_WRITEHEADER);
    task->bHeaderOk = true;
  }
  if (nStreamIndex < 0 || static_cast<unsigned>(nStreamIndex) >= output->nb_streams)
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // A muxer whose header failed takes no packet.
  if (!task->bHeaderOk) return Fail(ERROR_AVFORMAT_PACKET_WRITEFRAME);

  // One packet for all writes of the task, blank again after each (the muxer
  // takes what it keeps): allocating one per call costs more than the rest.
  if (!task->pWritePacket) task->pWritePacket = quorvel::MakePacket();
  AVPacket* packet = task->pWritePacket.get();
  if (packet == nullptr) return Fail(ERROR_AVFORMAT_PACKET_MALLOC);
  av_packet_unref(packet);
  const AVStream* stream = output->streams[nStreamIndex];
  const AVRational source{pTimeBase->num, pTimeBase->den};

  // Without packet info the packet has no times and no duration. Nothing else
  // is taken from the caller: flags stay 0.
  if (pInfo != nullptr) {
    packet->pts = pInfo->pts;
    packet->dts = pInfo->dts;
    packet->duration = pInfo->duration;
  }
  // Not copied here: the packet holds no reference, so the muxer takes its own
  // copy and the caller may reuse its buffer once the call returns.
  packet->data = const_cast<uint8_t*>(pData);
  packet->size = nSize;

  quorvel::RescaleTimes(packet, source, stream->time_base);
  // The video stream's packets last one frame at `den` frames a second, whatever the caller gave.
  if (nStreamIndex == task->nVideoStream)
    packet->duration = av_rescale_q(VideoFrameLength(pTimeBase->den), kMicroseconds, stream->time_base);
  // The packet still points at the caller's bytes, without owning them: the
  // next write's unref lets go of the pointer only.
  if (pInfo != nullptr && !quorvel::TimesFit(*packet, pInfo->pts != AV_NOPTS_VALUE, pInfo->dts != AV_NOPTS_VALUE))
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  packet->pos = -1;
  packet->stream_index = nStreamIndex;

  task->stTally.CountRead();
  if (task->stTally.Write(output, packet, task->llBytesSeen) < 0) return Fail(ERROR_AVFORMAT_PACKET_WRITEFRAME);
  return true;
}
