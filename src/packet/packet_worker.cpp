// SPDX-License-Identifier: MIT
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

// The output stream that a packet of `input` goes to, or -1: with one
// mapping, whichever stream of the input the packet came from, it is handled
// as a packet of the input's mapped stream.
int RouteOf(const AVPACKET_FILE_AVINFO& input, const AVPacket* packet, const AVFormatContext* output) {
  int route = input.nOutputStream;
  if (input.vRoutes.empty() && static_cast<unsigned>(input.nInputStream) >= input.pInputContext->nb_streams)
    route = -1;
  else if (!input.vRoutes.empty())
    route = static_cast<size_t>(packet->stream_index) < input.vRoutes.size() ? input.vRoutes[packet->stream_index] : -1;
  return route >= 0 && static_cast<unsigned>(route) < output->nb_streams ? route : -1;
}

// The input stream whose time base and frame rate a routed packet's times follow.
const AVStream* SourceOf(const AVPACKET_FILE_AVINFO& input, const AVPacket* packet) {
  const AVFormatContext* source = input.pInputContext.get();
  return source->streams[input.vRoutes.empty() ? input.nInputStream : packet->stream_index];
}

// Reads the next packet of `input`, its times completed but still in its
// input stream's time base. With a route per stream, packets of streams not
// taken are passed over; with one mapping, a packet with nowhere to go comes
// back blank, for WriteCarried to drop. False when the input ran out (or
// failed), or once Stop has set the abort flag.
bool ReadRouted(AVPACKET_FILE_PACKET* task, AVPACKET_FILE_AVINFO& input, AVPacket* packet) {
  const AVFormatContext* output = task->pOutputContext.get();
  for (;;) {
    if (task->stInterrupt.abort) return false;
    if (av_read_frame(input.pInputContext.get(), packet) < 0) return false;
    task->stTally.CountRead();
    if (RouteOf(input, packet, output) >= 0) break;
    av_packet_unref(packet);
    if (input.vRoutes.empty()) return true;
  }
  // Made-up times count the input's packets, or with dts_as_pts and a route
  // per stream, the packets of their stream.
  const bool own_count = task->stOptions.dts_as_pts && !input.vRoutes.empty();
  const int64_t number = own_count ? input.vStreamCounts[packet->stream_index] : input.nPacketCount;
  quorvel::CompleteTimes(packet, SourceOf(input, packet), number, task->stOptions.dts_as_pts);
  return true;
}

// Carries a packet that ReadRouted delivered into the output. False when the
// run is to end: the end time was met.
bool WriteCarried(AVPACKET_FILE_PACKET* task, AVPACKET_FILE_AVINFO& input, AVPacket* packet) {
  AVFormatContext* output = task->pOutputContext.get();
  // An input without a stream of its own has nowhere to go.
  const int route = RouteOf(input, packet, output);
  if (route < 0) {
    av_packet_unref(packet);
    return true;
  }
  const AVStream* in = SourceOf(input, packet);
  const AVStream* out = output->streams[route];
  const int type = input.vRoutes.empty() ? input.nMediaType : in->codecpar->codec_type;
  if (!input.vRoutes.empty()) ++input.vStreamCounts[packet->stream_index];

  const bool pts_set = packet->pts != AV_NOPTS_VALUE, dts_set = packet->dts != AV_NOPTS_VALUE;
  // Rescaled only: each input's times go to the output as they are.
  quorvel::RescaleTimes(packet, in->time_base, out->time_base);
  packet->pos = -1;
  packet->stream_index = route;

  const double seconds = static_cast<double>(packet->pts) * av_q2d(out->time_base);
  // A refused packet is dropped and the run goes on; so is one whose times
  // the muxer can't take, which never reaches it.
  if (task->dlStartTime <= 0.0 || seconds >= task->dlStartTime) {
    if (quorvel::TimesFit(*packet, pts_set, dts_set))
      task->stTally.Write(output, packet, task->llBytesSeen);
    else
      task->stTally.Refuse();
  }
  // Every packet read is reported, also one before the start time.
  if (task->fpProgress != nullptr)
    task->fpProgress(task->lpReserved, type, input.nPacketCount, seconds, task->lpCallbackContext);
  ++input.nPacketCount;
  av_packet_unref(packet);

  // Exact equality on purpose: an end time that no packet hits runs on.
  return !(task->dlEndTime > 0.0 && seconds == task->dlEndTime);
}

// An input ran out: the run ends with it, unless until_all_inputs_end lets
// the others go on. Returns whether the run goes on.
bool InputEnded(AVPACKET_FILE_PACKET* task, AVPACKET_FILE_AVINFO& input) {
  input.bEnded = true;
  return task->stOptions.until_all_inputs_end && !task->stInterrupt.abort;
}

// One pass: at most one packet from every input still running, in the order
// they were added. False when the run is to end.
bool CarryInTurn(AVPACKET_FILE_PACKET* task, AVPacket* packet) {
  bool carried = false;
  for (AVPACKET_FILE_AVINFO& input : task->pInputList) {
    if (input.bEnded) continue;
    if (!ReadRouted(task, input, packet)) {
      if (!InputEnded(task, input)) return false;
      continue;
    }
    carried = true;
    if (!WriteCarried(task, input, packet)) return false;
  }
  return carried;
}

// Whether `a`'s packet comes before `b`'s by decode time (presentation time
// when it has none), compared across time bases. An untimed packet goes first.
bool Earlier(const AVPACKET_FILE_AVINFO& a, const AVPACKET_FILE_AVINFO& b) {
  const auto decoded = [](const AVPacket* packet) { return packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts; };
  const int64_t ta = decoded(a.pPending.get());
  const int64_t tb = decoded(b.pPending.get());
  if (ta == AV_NOPTS_VALUE || tb == AV_NOPTS_VALUE) return ta == AV_NOPTS_VALUE && tb != AV_NOPTS_VALUE;
  return av_compare_ts(ta, SourceOf(a, a.pPending.get())->time_base, tb, SourceOf(b, b.pPending.get())->time_base) <
         0;
}

// interleave_by_time: every input still running holds its next packet read
// ahead; the earliest of them is carried. False when the run is to end.
bool CarryEarliest(AVPACKET_FILE_PACKET* task) {
  AVPACKET_FILE_AVINFO* earliest = nullptr;
  for (AVPACKET_FILE_AVINFO& input : task->pInputList) {
    if (input.bEnded) continue;
    if (!input.pPending) input.pPending = quorvel::MakePacket();
    if (!input.pPending) return false;
    if (!input.bPending && !ReadRouted(task, input, input.pPending.get())) {
      if (!InputEnded(task, input)) return false;
      continue;
    }
    input.bPending = true;
    if (earliest == nullptr || Earlier(input, *earliest)) earliest = &input;
  }
  if (earliest == nullptr) return false;
  earliest->bPending = false;
  return WriteCarried(task, *earliest, earliest->pPending.get());
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
  // were added (or, by time, the earliest packet of all); stop and pause
  // requests are seen between passes. By default the first input that runs
  // out ends the whole run. With no input there is nothing to read: the run
  // ends at once.
  bool finished = packet == nullptr || task->pInputList.empty();
  while (!finished && task->bRunning) {
    if (task->bPause) {
      std::this_thread::sleep_for(quorvel::kPausePoll);
      continue;
    }
    finished = !(task->stOptions.interleave_by_time ? CarryEarliest(task) : CarryInTurn(task, packet));
  }
  task->bRunning = false;
  quorvel::FinishOnExit(task->pThread, task->stInterrupt.abort, task->stCalls, Release, task);
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
  return quorvel::StopTask(task, Release, ERROR_AVFORMAT_PACKET_PARAMETER);
}
