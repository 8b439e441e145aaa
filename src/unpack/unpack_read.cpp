// Pulling from a demultiplexing task without its worker: Read, and the
// codec parameters of a stream (GetAVCodec).
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/error.h"
#include "unpack/unpack.h"
#include "unpack/unpack_task.h"

using quorvel::Fail;

bool CAVFormat_UNPack::AVFormat_UNPack_Read(void* lpTask, int* pnStreamIndex, unsigned char* pData, int* pnSize,
                                            AVCODEC_PACKETINFO* pInfo, AVCODEC_TIMEBASE* pTimeBase) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (task == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // The caller pulls only from a task whose worker is not moving packets.
  if (task->bRunning) return Fail(ERROR_AVFORMAT_PACKET_THREAD);
  if (!task->bInputReady || pnStreamIndex == nullptr || pData == nullptr || pnSize == nullptr)
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  // One packet for all Reads of the task: allocating one per call costs more
  // than the rest of a small packet's trip.
  if (!task->pReadPacket) task->pReadPacket = quorvel::MakePacket();
  AVPacket* packet = task->pReadPacket.get();
  if (packet == nullptr) return Fail(ERROR_AVFORMAT_PACKET_MALLOC);
  AVFormatContext* input = task->pFormatContext.get();
  std::lock_guard<std::mutex> lock(task->mtxInput);
  if (av_read_frame(input, packet) < 0) return Fail(ERROR_AVFORMAT_PACKET_READ);
  // Released when the copies below are made, whichever way the call returns.
  const std::unique_ptr<AVPacket, decltype(&av_packet_unref)> release(packet, av_packet_unref);

  *pnStreamIndex = packet->stream_index;
  *pnSize = packet->size;
  // The caller's buffer must hold the largest packet: the interface carries no size for it.
  if (packet->size > 0) std::memcpy(pData, packet->data, static_cast<size_t>(packet->size));
  if (pTimeBase != nullptr) {
    const AVRational time_base = quorvel::PacketTimeBase(packet, input);
    pTimeBase->num = time_base.num;
    pTimeBase->den = time_base.den;
  }
  // Unscaled: the values count ticks of the time base above.
  if (pInfo != nullptr) {
    pInfo->pts = packet->pts;
    pInfo->dts = packet->dts;
    pInfo->duration = packet->duration;
  }
  return true;
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
