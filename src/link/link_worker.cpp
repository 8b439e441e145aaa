// Concatenation worker and control: Start, the worker's loop, Suspend,
// GetStatus and Stop.
#include <thread>

#include "core/checked.h"
#include "core/error.h"
#include "core/report.h"
#include "core/task.h"
#include "core/worker.h"
#include "link/link.h"
#include "link/link_task.h"

using quorvel::Fail;

namespace {

// The timeline of one kind (video or audio) across the inputs. Offsets and
// last timestamps are in the inputs' own time base.
struct Timeline {
  int64_t pts_offset = 0;
  int64_t dts_offset = 0;
  int64_t total = 0;  // packets of the inputs already finished
  int64_t last_pts = 0;
  int64_t last_dts = 0;
  int64_t count = 0;  // packets of the current input

  void BeginInput() { last_pts = last_dts = count = 0; }

  // Shifts a routed packet onto the joined timeline. An unset time stays
  // unset; a time that the shift takes past 64 bits becomes unset, and so
  // does every later time of this timeline.
  void Shift(AVPacket* packet) {
    if (packet->pts != AV_NOPTS_VALUE) last_pts = packet->pts = quorvel::AddTimes(packet->pts, pts_offset);
    if (packet->dts != AV_NOPTS_VALUE) last_dts = packet->dts = quorvel::AddTimes(packet->dts, dts_offset);
    ++count;
  }

  // The next input follows on one average spacing after this one's last
  // packet, the spacing being estimated as last / count.
  void EndInput() {
    if (count <= 0) return;
    pts_offset = quorvel::AddTimes(last_pts, last_pts / count);
    dts_offset = quorvel::AddTimes(last_dts, last_dts / count);
    total += count;
  }

  long long Number() const { return total + count; }
};

struct Timelines {
  Timeline video;
  Timeline audio;
};

// Whether the cut keeps a packet at `position`. Packets at or before the start
// bound are the ones kept: this direction is the family's behaviour.
bool KeptByCut(const AVPACKET_LINKINFO& element, double position) {
  if (element.dlStartTime <= 0.0 || element.dlEndTime <= 0.0) return true;
  return !(element.dlStartTime < position || position > element.dlEndTime);
}

// Copies one input until it ends, fails to read, or the task is stopped.
void CopyInput(AVPACKET_FILELINK* task, const AVPACKET_LINKINFO& element, AVPacket* packet, Timelines& timelines) {
  AVFormatContext* input = element.pInputContext.get();
  AVFormatContext* output = task->pOutputContext.get();
  while (av_read_frame(input, packet) >= 0) {
    if (!task->bRunning) {
      av_packet_unref(packet);
      return;
    }
    // Only a resume ends the pause, also once the task is stopped.
    while (task->bPause) std::this_thread::sleep_for(quorvel::kPausePoll);
    task->stTally.CountRead();

    const AVStream* in = input->streams[packet->stream_index];
    const AVRational in_time_base = quorvel::PacketTimeBase(packet, input);
    Timeline* timeline = nullptr;
    int out_index = -1;
    if (packet->stream_index == element.nAudioIndex) {
      timeline = &timelines.audio;
      out_index = task->nAudioStream;
    } else if (packet->stream_index == element.nVideoIndex) {
      timeline = &timelines.video;
      out_index = task->nVideoStream;
    }
    if (timeline == nullptr || out_index < 0 || out_index >= static_cast<int>(output->nb_streams)) {
      av_packet_unref(packet);
      continue;
    }
    const AVStream* out = output->streams[out_index];

    timeline->Shift(packet);
    packet->stream_index = out_index;
    packet->pos = -1;
    // Not quorvel::RescaleTimes, on purpose: av_packet_rescale_ts leaves a
    // negative duration as it is and rescales an INT64_MAX time (which turns
    // into AV_NOPTS_VALUE when it overflows), where RescaleTimes rescales every
    // duration and passes INT64_MAX through. The joined output keeps the
    // timing this family has always written.
    av_packet_rescale_ts(packet, in_time_base, out->time_base);
    packet->time_base = out->time_base;
    const double position = static_cast<double>(packet->pts) * av_q2d(out->time_base);

    // A packet the muxer refuses is dropped and the run goes on.
    if (KeptByCut(element, position)) task->stTally.Write(output, packet, task->llBytesSeen);
    // Numbered by the kind of the stream the packet came from, cut or not.
    const Timeline& numbering = in->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? timelines.video : timelines.audio;
    if (task->fpProgress != nullptr)
      task->fpProgress(task->lpReserved, in->codecpar->codec_type, numbering.Number(), position,
                       task->lpCallbackContext);
    av_packet_unref(packet);
  }
}

// Stop's steps once no worker runs, in this order: trailer (only after a
// header), inputs front to back, the list, output file and context; then the record.
void Release(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  if (task->bHeaderWritten) task->stTally.WriteTrailer(task->pOutputContext.get(), task->llBytesSeen);
  for (AVPACKET_LINKINFO& element : task->pInputList) element.pInputContext.reset();
  task->pInputList.clear();
  task->pOutputContext.reset();
  delete task;
}

}  // namespace

bool CAVFormat_Link::AVFormat_Link_Start(void* lpTask) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  // Started once, and only with an output.
  if (task == nullptr || task->bStarted || !task->bOutputReady) return Fail(ERROR_AVFORMAT_LINK_PARAMETER);

  task->bStarted = true;
  const quorvel::HeaderResult header = quorvel::WriteHeader(task->pOutputContext.get(), task->stOptions);
  task->stTally.Observe(task->pOutputContext.get(), task->llBytesSeen);
  if (header == quorvel::HeaderResult::kUnused) return Fail(ERROR_AVFORMAT_LINK_OPTION_UNUSED);
  if (header != quorvel::HeaderResult::kWritten) return Fail(ERROR_AVFORMAT_LINK_WRITEHEADER);
  task->bHeaderWritten = true;

  task->bRunning = true;
  task->bPause = false;
  if (!quorvel::StartWorker(task->pThread, AVFormat_Link_Thread, task)) return Fail(ERROR_AVFORMAT_LINK_THREAD);
  return true;
}

int CAVFormat_Link::AVFormat_Link_Thread(void* lpTask) {
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  quorvel::Packet packet = quorvel::MakePacket();
  Timelines timelines;
  // A stopped task still visits every remaining input, each ending at its first read.
  for (const AVPACKET_LINKINFO& element : task->pInputList) {
    if (!packet) break;
    timelines.video.BeginInput();
    timelines.audio.BeginInput();
    CopyInput(task, element, packet.get(), timelines);
    timelines.audio.EndInput();
    timelines.video.EndInput();
  }
  task->bRunning = false;
  quorvel::FinishOnExit(task->pThread, task->bAbort, Release, task);
  return 0;
}

bool CAVFormat_Link::AVFormat_Link_Suspend(void* lpTask, bool bPause) {
  // The multiplexing range's code, as callers of this family expect.
  return quorvel::SetPause<AVPACKET_FILELINK>(lpTask, bPause, ERROR_AVFORMAT_PACKET_PARAMETER);
}

bool CAVFormat_Link::AVFormat_Link_GetStatus(void* lpTask, bool* pbRunning) {
  // The multiplexing range's codes, as callers of this family expect.
  return quorvel::ReportRunning<AVPACKET_FILELINK>(lpTask, pbRunning, ERROR_AVFORMAT_PACKET_PARAMETER,
                                                   ERROR_AVFORMAT_PACKET_STATUS);
}

bool CAVFormat_Link::AVFormat_Link_Stop(void* lpTask) noexcept {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  if (task == nullptr) return true;

  // The worker ends the current input at its next read and passes the others
  // by one read each; a blocking read is aborted. A paused worker is not woken:
  // the join waits until the caller resumes it. Called on the worker's own
  // thread, Stop returns at once and the worker releases the task as it ends.
  if (quorvel::StopWorker(task->pThread, task->bRunning, task->bAbort)) Release(task);
  return true;
}
