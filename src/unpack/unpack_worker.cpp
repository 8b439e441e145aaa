// SPDX-License-Identifier: MIT
// Demultiplexing worker and control: Start, the worker's loop, Suspend,
// GetStatus, Seek and Stop.
#include "core/cut.h"
#include "core/error.h"
#include "core/remux.h"
#include "core/task.h"
#include "core/worker.h"
#include "unpack/unpack.h"
#include "unpack/unpack_task.h"

using quorvel::Fail;

bool CAVFormat_UNPack::AVFormat_UNPack_Start(void* lpTask) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  // Started once, and only with an input; outputs are optional.
  if (task == nullptr || !task->bInputReady || task->bStarted) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  // The worker reads on from the input's position: a packet that a sized Read kept is not delivered any more.
  task->DropKeptPacket();
  task->bStarted = true;
  task->bRunning = true;
  task->bPause = false;
  if (!quorvel::StartWorker(task->pThread, AVFormat_UNPack_Thread, task)) return Fail(ERROR_AVFORMAT_PACKET_THREAD);
  return true;
}

namespace {

// Stop's steps once no worker runs, in this order: input closed; per output,
// trailer (every output in the list has its header), file, context and
// bridge; the input's bridge; then the record.
void Release(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  task->pFormatContext.reset();
  for (AVPACKET_FILE_INFO& info : task->pInfoList) {
    task->stTally.WriteTrailer(info.pFormatContext.get(), info.llBytesSeen);
    info.pFormatContext.reset();
    info.pIOContext.reset();
    info.pIOBuffer.reset();
  }
  task->pInfoList.clear();
  task->pIOContext.reset();
  task->pIOBuffer.reset();
  delete task;
}

// The first output that claims the stream, or null; its place in the list goes to `place`.
AVPACKET_FILE_INFO* OutputOf(std::list<AVPACKET_FILE_INFO>& outputs, int stream_index, size_t& place) {
  place = 0;
  for (AVPACKET_FILE_INFO& info : outputs) {
    if (info.FormatInfo.nStreamIndex == stream_index) return &info;
    ++place;
  }
  return nullptr;
}

// keyframe_start seeks once, for the earliest start; an output with no start
// wants the input from its beginning, and then nothing is sought.
double EarliestStart(const std::list<AVPACKET_FILE_INFO>& outputs) {
  double earliest = 0.0;
  for (const AVPACKET_FILE_INFO& info : outputs) {
    const double start = info.FormatInfo.dlStartTime;
    if (!(start > 0.0)) return 0.0;
    if (earliest == 0.0 || start < earliest) earliest = start;
  }
  return earliest;
}

}  // namespace

int CAVFormat_UNPack::AVFormat_UNPack_Thread(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  AVFormatContext* input = task->pFormatContext.get();
  const quorvel::TaskOptions& options = task->stOptions;
  quorvel::Packet owned = quorvel::MakePacket();
  AVPacket* packet = owned.get();

  // One lane per output, in the list's order.
  quorvel::Cut cut(options);
  if (!cut.Allocate(task->pInfoList.size())) packet = nullptr;
  size_t place = 0;
  for (const AVPACKET_FILE_INFO& info : task->pInfoList) {
    if (packet == nullptr) break;
    quorvel::CutLane& lane = cut.Lane(place++);
    lane.start = info.FormatInfo.dlStartTime;
    lane.end = info.FormatInfo.dlEndTime;
    lane.video = info.pFormatContext->streams[0]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
  }
  if (packet != nullptr) cut.SeekToStart(input, task->mtxInput, EarliestStart(task->pInfoList));

  // Read under the input's lock: Seek and GetAVCodec use the input from the caller's thread.
  while (packet != nullptr && quorvel::ReadNextPacket(task->bRunning, task->bPause, task->mtxInput, input, packet)) {
    task->stTally.CountRead();
    AVPACKET_FILE_INFO* info = OutputOf(task->pInfoList, packet->stream_index, place);
    if (info == nullptr || cut.Lane(place).closed) {
      av_packet_unref(packet);
      continue;
    }
    quorvel::CutLane& lane = cut.Lane(place);
    const AVCODEC_FORMATINFO& format = info->FormatInfo;
    AVFormatContext* output = info->pFormatContext.get();
    const AVStream* in = input->streams[packet->stream_index];
    const AVStream* out = output->streams[0];
    // By default written with its input timestamps, counted in the output stream's time base.
    packet->stream_index = 0;
    cut.FillTimes(lane, packet, in);
    if (options.rescale_times) quorvel::RescaleTimes(packet, in->time_base, out->time_base);
    const AVRational base = options.rescale_times ? out->time_base : in->time_base;
    const double seconds = static_cast<double>(packet->pts) * av_q2d(out->time_base);

    if (cut.Admit(lane, packet, base, seconds)) {
      cut.Shift(packet, base);
      if (task->stTally.Write(output, packet, info->llBytesSeen) < 0) {
        // An output that can take nothing more ends alone; one refused packet ends nothing.
        if (!options.outputs_independent) {
          av_packet_unref(packet);
          break;
        }
        if (output->pb != nullptr && output->pb->error < 0) cut.Close(lane);
      }
    }
    if (task->fpProgress != nullptr)
      task->fpProgress(task->lpReserved, format.nStreamIndex, info->nPacketCount, seconds, task->lpCallbackContext);
    ++info->nPacketCount;
    av_packet_unref(packet);

    // By default an exact time, and the end of one output is the end of all.
    if (!options.end_exclusive && format.dlEndTime > 0.0 && seconds == format.dlEndTime) break;
    if ((options.end_exclusive || options.outputs_independent) && cut.AllClosed()) break;
  }
  task->bRunning = false;
  quorvel::FinishOnExit(task->pThread, task->stInterrupt.abort, task->stCalls, Release, task);
  return 0;
}

bool CAVFormat_UNPack::AVFormat_UNPack_Suspend(void* lpTask, bool bPause) {
  return quorvel::SetPause<AVPACKET_FILE_UNPACK>(lpTask, bPause, ERROR_AVFORMAT_PACKET_PARAMETER);
}

bool CAVFormat_UNPack::AVFormat_UNPack_GetStatus(void* lpTask, bool* pbRunning) {
  return quorvel::ReportRunning<AVPACKET_FILE_UNPACK>(lpTask, pbRunning, ERROR_AVFORMAT_PACKET_PARAMETER,
                                                      ERROR_AVFORMAT_PACKET_STATUS);
}

bool CAVFormat_UNPack::AVFormat_UNPack_Seek(void* lpTask, int nStreamIndex, unsigned long long ullTimestamp) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (task == nullptr || !task->bInputReady) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  AVFormatContext* input = task->pFormatContext.get();
  // Allowed while the worker runs, which then goes on from the new position;
  // its reads may add streams, so the count too is read under the lock.
  std::lock_guard<std::mutex> lock(task->mtxInput);
  if (nStreamIndex < -1 || nStreamIndex >= static_cast<int>(input->nb_streams)) return Fail(ERROR_AVFORMAT_PACKET_SEEK);
  if (av_seek_frame(input, nStreamIndex, static_cast<int64_t>(ullTimestamp), AVSEEK_FLAG_BACKWARD) < 0)
    return Fail(ERROR_AVFORMAT_PACKET_SEEK);
  // Reading goes on from the new position, not from a packet kept before it.
  task->DropKeptPacket();
  return true;
}

bool CAVFormat_UNPack::AVFormat_UNPack_Stop(void* lpTask) noexcept {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (task == nullptr) return true;

  // The worker is stopped first, so that nothing released runs under its feet;
  // called on the worker's own thread, the worker releases the task as it ends.
  return quorvel::StopTask(task, Release, ERROR_AVFORMAT_PACKET_PARAMETER);
}
