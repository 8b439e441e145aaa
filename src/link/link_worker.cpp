// SPDX-License-Identifier: MIT
// Concatenation worker and control: Start, the worker's loop, Suspend,
// GetStatus and Stop.
#include <cmath>
#include <mutex>
#include <thread>
#include <vector>

#include "core/checked.h"
#include "core/cut.h"
#include "core/error.h"
#include "core/remux.h"
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

// continuous_times: every stream of an input shifted by one amount, so that
// the input starts where the previous one ended (the largest pts + duration
// written), and decode times kept strictly increasing per output stream.
// Times here are the output streams'.
class Joint {
 public:
  // A new input, whose first time is `start` (AV_TIME_BASE units).
  void BeginInput(int64_t start) {
    end_ = reached_;
    start_ = start;
  }
  void Shift(AVPacket* packet) {
    const AVRational base = packet->time_base;
    // An offset beyond 64 bits leaves the times unset.
    const int64_t start = av_rescale_q(start_, AV_TIME_BASE_Q, base);
    const int64_t offset =
        start == AV_NOPTS_VALUE ? AV_NOPTS_VALUE : quorvel::AddTimes(av_rescale_q(end_.value, end_.base, base), -start);
    packet->pts = quorvel::AddTimes(packet->pts, offset);
    packet->dts = quorvel::AddTimes(packet->dts, offset);
    const int64_t last = LastDts(packet->stream_index);
    if (packet->dts != AV_NOPTS_VALUE && last != AV_NOPTS_VALUE && packet->dts <= last)
      packet->dts = quorvel::AddTimes(last, 1);
    if (packet->pts != AV_NOPTS_VALUE && packet->dts != AV_NOPTS_VALUE && packet->pts < packet->dts)
      packet->pts = packet->dts;
  }
  // A packet about to be written: its decode time and where it ends.
  void Wrote(const AVPacket* packet) {
    if (packet->dts != AV_NOPTS_VALUE) LastDts(packet->stream_index) = packet->dts;
    const int64_t end = quorvel::AddTimes(packet->pts, packet->duration);
    if (end != AV_NOPTS_VALUE && av_compare_ts(end, packet->time_base, reached_.value, reached_.base) > 0)
      reached_ = {end, packet->time_base};
  }

 private:
  struct Time {
    int64_t value = 0;
    AVRational base{1, AV_TIME_BASE};
  };
  int64_t& LastDts(int stream) {
    if (static_cast<size_t>(stream) >= last_dts_.size()) last_dts_.resize(stream + 1, AV_NOPTS_VALUE);
    return last_dts_[stream];
  }
  Time end_, reached_;
  int64_t start_ = 0;
  std::vector<int64_t> last_dts_;
};

// A time in AV_TIME_BASE units, for a positive `seconds`; past 64 bits, the largest.
int64_t Microseconds(double seconds) {
  return seconds < 9e12 ? static_cast<int64_t>(std::llround(seconds * AV_TIME_BASE)) : INT64_MAX;
}

// The lane of a routed stream: 0 video, 1 audio (a stream named as both is
// audio); -1 for a stream not copied.
int LaneOf(const AVPACKET_LINKINFO& element, int stream) {
  return stream == element.nAudioIndex ? 1 : stream == element.nVideoIndex ? 0 : -1;
}

// cut_per_input: the input's start and end on its own timeline, through the
// cut that conversion and demultiplexing use, one lane per routed stream. The
// input is sought to the start, also without keyframe_start, so that the
// packets before it are not read. A packet is kept from the start (with
// keyframe_start: every stream from where the seek to the key frame at or
// before it lands, video from that key frame) while its decode time is before
// the end (always the exclusive end); a stream whose decode time has reached
// the end is done, and the input with it once both are.
class PartCut {
 public:
  explicit PartCut(bool keyframe_start) {
    rules_.keyframe_start = keyframe_start;
    rules_.end_exclusive = true;
  }

  // Opens the lanes of `element`'s routed streams and seeks `input` to its
  // start. False when the lanes can't be allocated.
  bool Place(AVFormatContext* input, const AVPACKET_LINKINFO& element) {
    if (!cut_.Allocate(2)) return false;
    const int streams[2] = {element.nVideoIndex, element.nAudioIndex};
    for (int index : {0, 1}) {
      const int stream = streams[index];
      quorvel::CutLane& lane = Lane(index);
      if (stream < 0 || static_cast<unsigned>(stream) >= input->nb_streams || LaneOf(element, stream) != index) {
        cut_.Close(lane);
        continue;
      }
      lane.start = element.dlStartTime;
      lane.end = element.dlEndTime;
      lane.video = input->streams[stream]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    }
    cut_.SeekToStart(input, input_lock_, element.dlStartTime, true);
    return true;
  }

  // Whether `packet` of lane `index` (times in `base`, on the input's own timeline) is kept.
  bool Keeps(const AVPacket* packet, AVRational base, int index) {
    const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    const double seconds = time == AV_NOPTS_VALUE ? std::nan("") : static_cast<double>(time) * av_q2d(base);
    return cut_.Admit(Lane(index), packet, base, seconds);
  }
  quorvel::CutLane& Lane(int index) { return cut_.Lane(static_cast<size_t>(index)); }
  bool Done() const { return cut_.AllClosed(); }
  bool Landed() const { return cut_.Landed(); }

 private:
  quorvel::TaskOptions rules_;
  quorvel::Cut cut_{rules_};
  std::mutex input_lock_;  // the cut's seek takes one; no other thread uses this family's inputs
};

// keyframe_start: where a cut part begins, the earliest presentation time
// (AV_TIME_BASE units) of the first packet that each lane keeps from the
// landing point; audio ahead of the key frame counts. Found by a cut run over
// the packets up to there; the caller's own cut then seeks again. Unset when
// the seek did not land or nothing is kept.
int64_t FirstKept(AVFormatContext* input, const AVPACKET_LINKINFO& element, AVPacket* packet) {
  PartCut ahead(true);
  if (!ahead.Place(input, element) || !ahead.Landed()) return AV_NOPTS_VALUE;
  const auto waiting = [&ahead](int index) { return !ahead.Lane(index).closed && !ahead.Lane(index).begun; };
  int64_t first = AV_NOPTS_VALUE;
  while ((waiting(0) || waiting(1)) && av_read_frame(input, packet) >= 0) {
    const int index = LaneOf(element, packet->stream_index);
    const AVRational base = quorvel::PacketTimeBase(packet, input);
    const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (index >= 0 && waiting(index) && ahead.Keeps(packet, base, index) && time != AV_NOPTS_VALUE) {
      const int64_t micro = av_rescale_q(time, base, AV_TIME_BASE_Q);
      if (first == AV_NOPTS_VALUE || micro < first) first = micro;
    }
    av_packet_unref(packet);
  }
  return first;
}

// Copies one input until it ends, fails to read, or the task is stopped.
void CopyInput(AVPACKET_FILELINK* task, const AVPACKET_LINKINFO& element, AVPacket* packet, Timelines& timelines,
               Joint& joint) {
  AVFormatContext* input = element.pInputContext.get();
  AVFormatContext* output = task->pOutputContext.get();
  const quorvel::TaskOptions& options = task->stOptions;
  int64_t start = input->start_time != AV_NOPTS_VALUE ? input->start_time : 0;
  PartCut cut(options.keyframe_start);
  if (options.cut_per_input && element.dlStartTime > 0.0) {
    const int64_t first = options.keyframe_start ? FirstKept(input, element, packet) : AV_NOPTS_VALUE;
    start = first != AV_NOPTS_VALUE ? first : Microseconds(element.dlStartTime);
  }
  if (options.cut_per_input && !cut.Place(input, element)) return;
  joint.BeginInput(start);
  while (!(options.cut_per_input && cut.Done()) && av_read_frame(input, packet) >= 0) {
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
    const bool kept = !options.cut_per_input || cut.Keeps(packet, in_time_base, timeline == &timelines.video ? 0 : 1);

    packet->stream_index = out_index;
    packet->pos = -1;
    if (options.continuous_times) {
      ++timeline->count;
      quorvel::RescaleTimes(packet, in_time_base, out->time_base);
      joint.Shift(packet);
    } else {
      timeline->Shift(packet);
      // Not quorvel::RescaleTimes, on purpose: av_packet_rescale_ts leaves a
      // negative duration as it is and rescales an INT64_MAX time (which turns
      // into AV_NOPTS_VALUE when it overflows), where RescaleTimes rescales
      // every duration and passes INT64_MAX through. The joined output keeps
      // the timing this family has always written.
      av_packet_rescale_ts(packet, in_time_base, out->time_base);
      packet->time_base = out->time_base;
    }
    const double position = static_cast<double>(packet->pts) * av_q2d(out->time_base);

    // A packet the muxer refuses is dropped and the run goes on.
    if (options.cut_per_input ? kept : KeptByCut(element, position)) {
      // Taken before the muxer takes the packet over.
      if (options.continuous_times) joint.Wrote(packet);
      task->stTally.Write(output, packet, task->llBytesSeen);
    }
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
  Joint joint;
  // A stopped task still visits every remaining input, each ending at its first read.
  for (const AVPACKET_LINKINFO& element : task->pInputList) {
    if (!packet) break;
    timelines.video.BeginInput();
    timelines.audio.BeginInput();
    CopyInput(task, element, packet.get(), timelines, joint);
    timelines.audio.EndInput();
    timelines.video.EndInput();
  }
  task->bRunning = false;
  quorvel::FinishOnExit(task->pThread, task->stInterrupt.abort, task->stCalls, Release, task);
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
  return quorvel::StopTask(task, Release, ERROR_AVFORMAT_LINK_PARAMETER);
}
