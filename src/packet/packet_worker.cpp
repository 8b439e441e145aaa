// Multiplexing worker and control: Start, the worker's loop, Suspend,
// GetStatus and Stop.
#include <thread>

#include "core/error.h"
#include "core/remux.h"
#include "core/report.h"
#include "core/task.h"
#include "core/worker.h"
#include "packet/packet.h"
#include "packet/packet_task.h"

using quorvel::Fail;

namespace {

// Reads one packet of `input` and carries it into the output. False when the
// run is to end: this input ran out (or failed), or the end time was met.
bool CarryOnePacket(AVPACKET_FILE_PACKET* task, AVPACKET_FILE_AVINFO& input, AVPacket* packet) {
  // Once Stop has set the abort flag, the rest of the pass is not read.
  if (task->bAbort) return false;
  AVFormatContext* source = input.pInputContext.get();
  AVFormatContext* output = task->pOutputContext.get();
  if (av_read_frame(source, packet) < 0) return false;
  task->stTally.CountRead();

  // An input without a stream of its own has nowhere to go.
  if (static_cast<unsigned>(input.nInputStream) >= source->nb_streams ||
      static_cast<unsigned>(input.nOutputStream) >= output->nb_streams) {
    av_packet_unref(packet);
    return true;
  }
  // Whichever stream of the input the packet came from, it is handled as a
  // packet of the input's mapped stream.
  const AVStream* in = source->streams[input.nInputStream];
  const AVStream* out = output->streams[input.nOutputStream];

  if (packet->pts == AV_NOPTS_VALUE) quorvel::SynthesizeTimestamps(packet, in, input.nPacketCount);
  // Rescaled only: each input's times go to the output as they are.
  quorvel::RescaleTimes(packet, in->time_base, out->time_base);
  packet->pos = -1;
  packet->stream_index = input.nOutputStream;

  const double seconds = static_cast<double>(packet->pts) * av_q2d(out->time_base);
  // A refused packet is dropped and the run goes on.
  if (task->dlStartTime <= 0.0 || seconds >= task->dlStartTime) task->stTally.Write(output, packet, task->llBytesSeen);
  // Every packet read is reported, also one before the start time.
  if (task->fpProgress != nullptr)
    task->fpProgress(task->lpReserved, input.nMediaType, input.nPacketCount, seconds, task->lpCallbackContext);
  ++input.nPacketCount;
  av_packet_unref(packet);

  // Exact equality on purpose: an end time that no packet hits runs on.
  return !(task->dlEndTime > 0.0 && seconds == task->dlEndTime);
}

// Stop's steps once no worker runs, in this order: trailer (only after a
// header), each input with its bridge, the output's bridge, the output's file
// and context; then the record.
void Release(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  AVFormatContext* output = task->pOutputContext.get();
  if (task->bHeaderOk) task->stTally.WriteTrailer(output, task->llBytesSeen);
  for (AVPACKET_FILE_AVINFO& input : task->pInputList) {
    input.pInputContext.reset();
    input.pInputIO.reset();
    input.pInputBuffer.reset();
  }
  task->pInputList.clear();
  // The bridge is released once, here, never through the output context.
  if (output != nullptr && task->pOutputIO && output->pb == task->pOutputIO.get()) output->pb = nullptr;
  task->pOutputIO.reset();
  task->pOutputBuffer.reset();
  task->pOutputContext.reset();
  delete task;
}

}  // namespace

bool CAVFormat_Packet::AVFormat_Packet_Start(void* lpTask) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  // Started once, with an output, and never after the caller has fed packets
  // (their first write wrote the header). Without inputs the header is still
  // written, and the muxer decides whether it takes a header with no stream.
  if (task == nullptr || !task->bOutputReady || task->HeaderTried()) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  task->bStarted = true;
  const quorvel::HeaderResult header = quorvel::WriteHeader(task->pOutputContext.get(), task->stOptions);
  task->stTally.Observe(task->pOutputContext.get(), task->llBytesSeen);
  if (header == quorvel::HeaderResult::kUnused) return Fail(ERROR_AVFORMAT_PACKET_OPTION_UNUSED);
  if (header != quorvel::HeaderResult::kWritten) return Fail(ERROR_AVFORMAT_PACKET_WRITEHEADER);
  task->bHeaderOk = true;

  task->bRunning = true;
  task->bPause = false;
  if (!quorvel::StartWorker(task->pThread, AVFormat_Packet_Thread, task)) return Fail(ERROR_AVFORMAT_PACKET_THREAD);
  return true;
}

int CAVFormat_Packet::AVFormat_Packet_Thread(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  quorvel::Packet owned = quorvel::MakePacket();
  AVPacket* packet = owned.get();

  // One pass takes at most one packet from every input, in the order they
  // were added; stop and pause requests are seen between passes.
  // With no input there is nothing to read: the run ends at once.
  bool finished = packet == nullptr || task->pInputList.empty();
  while (!finished && task->bRunning) {
    if (task->bPause) {
      std::this_thread::sleep_for(quorvel::kPausePoll);
      continue;
    }
    for (AVPACKET_FILE_AVINFO& input : task->pInputList) {
      if (!CarryOnePacket(task, input, packet)) {
        finished = true;  // the first input that runs out ends the whole run
        break;
      }
    }
  }
  task->bRunning = false;
  quorvel::FinishOnExit(task->pThread, task->bAbort, Release, task);
  return 0;
}

bool CAVFormat_Packet::AVFormat_Packet_Suspend(void* lpTask, bool bPause) {
  return quorvel::SetPause<AVPACKET_FILE_PACKET>(lpTask, bPause, ERROR_AVFORMAT_PACKET_PARAMETER);
}

bool CAVFormat_Packet::AVFormat_Packet_GetStatus(void* lpTask, bool* pbRunning) {
  return quorvel::ReportRunning<AVPACKET_FILE_PACKET>(lpTask, pbRunning, ERROR_AVFORMAT_PACKET_PARAMETER,
                                                      ERROR_AVFORMAT_PACKET_STATUS);
}

bool CAVFormat_Packet::AVFormat_Packet_Stop(void* lpTask) noexcept {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  if (task == nullptr) return true;

  // The worker is stopped first, also out of a blocking read or write, so that
  // nothing released runs under its feet (a task that never started has none);
  // called on the worker's own thread, the worker releases the task as it ends.
  if (quorvel::StopWorker(task->pThread, task->bRunning, task->bAbort)) Release(task);
  return true;
}
