// SPDX-License-Identifier: MIT
// Conversion worker and control: Start, the worker's loop, Suspend,
// GetStatus, Seek and Stop.
#include "convert/convert.h"
#include "convert/convert_task.h"
#include "core/checked.h"
#include "core/cut.h"
#include "core/error.h"
#include "core/remux.h"
#include "core/report.h"
#include "core/task.h"
#include "core/worker.h"

using quorvel::Fail;

namespace {

// Stop's steps once no worker runs, in this order: input closed, trailer
// (only after a header), stream map, output file and context, input bridge,
// output bridge; then the record.
void Release(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  task->pInputContext.reset();
  if (task->bHeaderWritten) task->stTally.WriteTrailer(task->pOutputContext.get(), task->llBytesSeen);
  task->pnStreamMap.reset();
  task->pOutputContext.reset();
  task->pInputIO.reset();
  task->pInputBuffer.reset();
  task->pOutputIO.reset();
  task->pOutputBuffer.reset();
  delete task;
}

}  // namespace

bool CAVFormat_Convert::AVFormat_Convert_Start(void* lpTask) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  // Started once, and only with both an output and an input.
  if (task == nullptr || task->bStarted || !task->bOutputReady || !task->bInputReady)
    return Fail(ERROR_AVFORMAT_CONVERT_PARAMETER);

  const quorvel::HeaderResult header = quorvel::WriteHeader(task->pOutputContext.get(), task->stOptions);
  task->stTally.Observe(task->pOutputContext.get(), task->llBytesSeen);
  if (header == quorvel::HeaderResult::kUnused) {
    task->bStarted = true;  // the muxer is set up: it takes no second try
    return Fail(ERROR_AVFORMAT_CONVERT_OPTION_UNUSED);
  }
  if (header != quorvel::HeaderResult::kWritten) return Fail(ERROR_AVFORMAT_CONVERT_WRITEHEADER);
  task->bHeaderWritten = true;
  task->bStarted = true;

  task->bRunning = true;
  if (!quorvel::StartWorker(task->pThread, AVFormat_Convert_Thread, task)) return Fail(ERROR_AVFORMAT_CONVERT_THREAD);
  return true;
}

int CAVFormat_Convert::AVFormat_Convert_Thread(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  AVFormatContext* input = task->pInputContext.get();
  AVFormatContext* output = task->pOutputContext.get();
  const quorvel::TaskOptions& options = task->stOptions;
  quorvel::Packet owned = quorvel::MakePacket();
  AVPacket* packet = owned.get();

  // One lane per input stream; those without an output stream never hold the run up.
  quorvel::Cut cut(options);
  if (!cut.Allocate(task->nStreamCount)) packet = nullptr;
  for (unsigned i = 0; packet != nullptr && i < task->nStreamCount; ++i) {
    quorvel::CutLane& lane = cut.Lane(i);
    lane.start = task->dlStartTime;
    lane.end = task->dlEndTime;
    lane.video = input->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    if (task->pnStreamMap[i] < 0 || task->pnStreamMap[i] >= static_cast<int>(output->nb_streams)) cut.Close(lane);
  }
  if (packet != nullptr) cut.SeekToStart(input, task->mtxInput, task->dlStartTime);

  // Read under the input's lock: Seek moves the input from the caller's thread.
  while (packet != nullptr && quorvel::ReadNextPacket(task->bRunning, task->bPause, task->mtxInput, input, packet)) {
    task->stTally.CountRead();
    // Dropped streams, and kept streams that have no output stream to go to
    // (without dense_streams, an output stream must have their own index).
    const int index = packet->stream_index;
    const int target = index >= 0 && index < static_cast<int>(task->nStreamCount) ? task->pnStreamMap[index] : -1;
    if (target < 0 || target >= static_cast<int>(output->nb_streams)) {
      av_packet_unref(packet);
      continue;
    }
    const AVStream* in = input->streams[index];
    const AVStream* out = output->streams[target];
    quorvel::CutLane& lane = cut.Lane(static_cast<size_t>(index));

    if (options.dts_as_pts)
      cut.FillTimes(lane, packet, in);
    else if (packet->pts == AV_NOPTS_VALUE)
      quorvel::SynthesizeTimestamps(packet, in, task->nPacketCount);
    quorvel::RescaleTimes(packet, in->time_base, out->time_base);
    packet->stream_index = target;
    packet->pos = -1;

    const double seconds = static_cast<double>(packet->pts) * av_q2d(out->time_base);
    if (task->fpProgress != nullptr)
      task->fpProgress(task->lpReserved, in->codecpar->codec_type, task->nPacketCount, seconds,
                       task->lpCallbackContext);

    // A refused packet is dropped and the run goes on.
    if (cut.Admit(lane, packet, out->time_base, seconds)) {
      cut.Shift(packet, out->time_base);
      task->stTally.Write(output, packet, task->llBytesSeen);
    }
    ++task->nPacketCount;
    av_packet_unref(packet);

    if (options.end_exclusive ? cut.AllClosed() : task->dlEndTime > 0.0 && seconds == task->dlEndTime) break;
  }
  task->bRunning = false;
  quorvel::FinishOnExit(task->pThread, task->stInterrupt.abort, task->stCalls, Release, task);
  return 0;
}

bool CAVFormat_Convert::AVFormat_Convert_Suspend(void* lpTask, bool bPause) {
  return quorvel::SetPause<AVPACKET_FILE_CONVERT>(lpTask, bPause, ERROR_AVFORMAT_CONVERT_PARAMETER);
}

bool CAVFormat_Convert::AVFormat_Convert_GetStatus(void* lpTask, bool* pbRunning) {
  return quorvel::ReportRunning<AVPACKET_FILE_CONVERT>(lpTask, pbRunning, ERROR_AVFORMAT_CONVERT_PARAMETER,
                                                       ERROR_AVFORMAT_CONVERT_STATUS);
}

bool CAVFormat_Convert::AVFormat_Convert_Seek(void* lpTask, long long llSeconds) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  if (task == nullptr || !task->pInputContext) return Fail(ERROR_AVFORMAT_CONVERT_PARAMETER);
  // Whole seconds on the input's own timeline, in AV_TIME_BASE units; any frame may be the landing point.
  std::lock_guard<std::mutex> lock(task->mtxInput);
  // Seconds whose microseconds do not fit in 64 bits are no position at all.
  const int64_t target = quorvel::MultiplyTimes(llSeconds, AV_TIME_BASE);
  if (target == AV_NOPTS_VALUE || av_seek_frame(task->pInputContext.get(), -1, target, AVSEEK_FLAG_ANY) < 0)
    return Fail(ERROR_AVFORMAT_CONVERT_SEEK);
  return true;
}

bool CAVFormat_Convert::AVFormat_Convert_Stop(void* lpTask) noexcept {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  if (task == nullptr) return true;

  // The worker is stopped first, so that nothing released runs under its feet;
  // called on the worker's own thread, the worker releases the task as it ends.
  return quorvel::StopTask(task, Release, ERROR_AVFORMAT_CONVERT_PARAMETER);
}
