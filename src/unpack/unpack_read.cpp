// SPDX-License-Identifier: MIT
// Pulling from a demultiplexing task without its worker: Read, and the
// codec parameters of a stream (GetAVCodec).
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/error.h"
#include "unpack/unpack.h"
#include "unpack/unpack_task.h"

using quorvel::Fail;

namespace {

// What a caller's buffer can take: the original Read is never told, and so
// copies any packet whole.
constexpr int64_t kUnbounded = -1;

// The flags that a sized Read hands out; FFmpeg's other flags are its own business.
constexpr int kReportedFlags = AV_PKT_FLAG_KEY | AV_PKT_FLAG_CORRUPT | AV_PKT_FLAG_DISCARD;

// Both Reads: the next packet (or the one a too-small buffer left kept) into
// the caller's places. A packet larger than `capacity` stays kept, its size
// and stream stored, and the call fails with the buffer-size code.
bool DeliverPacket(AVPACKET_FILE_UNPACK* task, int* stream_index, unsigned char* data, int64_t capacity, int* size,
                   int* flags, AVCODEC_PACKETINFO* info, AVCODEC_TIMEBASE* time_base) {
  // One packet for all Reads of the task: allocating one per call costs more
  // than the rest of a small packet's trip.
  if (!task->pReadPacket) task->pReadPacket = quorvel::MakePacket();
  AVPacket* packet = task->pReadPacket.get();
  if (packet == nullptr) return Fail(ERROR_AVFORMAT_PACKET_MALLOC);
  AVFormatContext* input = task->pFormatContext.get();
  std::lock_guard<std::mutex> lock(task->mtxInput);
  if (!task->bReadKept && av_read_frame(input, packet) < 0) return Fail(ERROR_AVFORMAT_PACKET_READ);

  *stream_index = packet->stream_index;
  *size = packet->size;
  task->bReadKept = capacity != kUnbounded && packet->size > capacity;
  if (task->bReadKept) return Fail(ERROR_AVFORMAT_PACKET_BUFFERSIZE);
  // Released when the copies below are made, whichever way the call returns.
  const std::unique_ptr<AVPacket, decltype(&av_packet_unref)> release(packet, av_packet_unref);

  if (packet->size > 0) std::memcpy(data, packet->data, static_cast<size_t>(packet->size));
  if (flags != nullptr) *flags = packet->flags & kReportedFlags;
  if (time_base != nullptr) {
    const AVRational base = quorvel::PacketTimeBase(packet, input);
    time_base->num = base.num;
    time_base->den = base.den;
  }
  // Unscaled: the values count ticks of the time base above.
  if (info != nullptr) {
    info->pts = packet->pts;
    info->dts = packet->dts;
    info->duration = packet->duration;
  }
  return true;
}

// The checks both Reads share; false (with the code recorded) when the call can't go on.
bool ReadAllowed(const AVPACKET_FILE_UNPACK* task) {
  if (task == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // The caller pulls only from a task whose worker is not moving packets.
  if (task->bRunning) return Fail(ERROR_AVFORMAT_PACKET_THREAD);
  if (!task->bInputReady) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  return true;
}

}  // namespace

bool CAVFormat_UNPack::AVFormat_UNPack_Read(void* lpTask, int* pnStreamIndex, unsigned char* pData, int* pnSize,
                                            AVCODEC_PACKETINFO* pInfo, AVCODEC_TIMEBASE* pTimeBase) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (!ReadAllowed(task)) return false;
  if (pnStreamIndex == nullptr || pData == nullptr || pnSize == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // The caller's buffer must hold the largest packet: this call carries no size for it.
  return DeliverPacket(task, pnStreamIndex, pData, kUnbounded, pnSize, nullptr, pInfo, pTimeBase);
}

bool CAVFormat_UNPack::AVFormat_UNPack_ReadSized(void* lpTask, int* pnStreamIndex, unsigned char* pData,
                                                 int nCapacity, int* pnSize, int* pnFlags, AVCODEC_PACKETINFO* pInfo,
                                                 AVCODEC_TIMEBASE* pTimeBase) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (!ReadAllowed(task)) return false;
  // A null buffer is allowed only as a question: capacity 0 asks for the size.
  if (pnStreamIndex == nullptr || pnSize == nullptr || nCapacity < 0 || (pData == nullptr && nCapacity != 0))
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  return DeliverPacket(task, pnStreamIndex, pData, nCapacity, pnSize, pnFlags, pInfo, pTimeBase);
}

bool CAVFormat_UNPack::AVFormat_UNPack_GetAVCodec(void* lpTask, int nStreamIndex, void** ppCodecParameters,
                                                  AVCODEC_TIMEBASE* pTimeBase) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  // This operation reports a bad handle, a missing input and a bad index with the seek code.
  if (task == nullptr || !task->bInputReady) return Fail(ERROR_AVFORMAT_PACKET_SEEK);
  const AVFormatContext* input = task->pFormatContext.get();
  // The worker may be reading: demuxers update a stream's parameters as they
  // go, and some add streams (and so move the stream array) while they read.
  std::lock_guard<std::mutex> lock(task->mtxInput);
  if (nStreamIndex < 0 || nStreamIndex >= static_cast<int>(input->nb_streams)) return Fail(ERROR_AVFORMAT_PACKET_SEEK);
  const AVStream* stream = input->streams[nStreamIndex];
  if (pTimeBase != nullptr) {
    pTimeBase->den = stream->time_base.den;
    pTimeBase->num = stream->time_base.num;
  }
  if (ppCodecParameters == nullptr) return true;

  // A shallow copy in the caller's heap, released with free(): its pointers
  // still lead into the input, which the task owns until Stop.
  auto* block = static_cast<AVCodecParameters*>(std::malloc(sizeof(AVCodecParameters)));
  *ppCodecParameters = block;
  if (block == nullptr) return Fail(ERROR_AVFORMAT_PACKET_MALLOC);
  AVCodecParameters copy;
  std::memcpy(&copy, stream->codecpar, sizeof copy);
#if QUORVEL_HAS_CODECPAR_FRAMERATE
  // A frame rate the demuxer left unset is taken from the stream's guess.
  if (copy.framerate.num == 0) copy.framerate = stream->r_frame_rate;
#endif
  std::memcpy(block, &copy, sizeof copy);
  return true;
}
