// SPDX-License-Identifier: MIT
// Conversion: one input remuxed into one output container on a worker thread.
//
// Deliberate behaviours, kept as callers rely on them (options change them:
// dense_streams, keyframe_start, end_exclusive, dts_as_pts; see core/cut.h):
//  - packets are routed to the output stream whose index equals their input
//    stream's index, while output streams are numbered densely among the kept
//    streams: when a dropped (data, attachment) stream precedes a kept one, a
//    kept stream's packets go into another output stream (input [data, video,
//    audio]: video's packets into output stream 1, the audio stream, with
//    their times rescaled to its time base), and those of a stream whose index
//    is past the last output stream (audio there) are dropped;
//  - packets before the start time are read, counted and reported to the
//    progress callback, but not written; their times are not shifted;
//  - the end time ends the task only on a packet whose time equals it exactly;
//  - packets without a presentation time get times made from the task-wide
//    packet counter (all kept streams together), not a per-stream frame number.
#pragma once

#include <shared_mutex>
#include <unordered_map>

#include "Quorvel_AVFormat.h"

struct AVPACKET_FILE_CONVERT;

class QUORVEL_AVFORMAT_API CAVFormat_Convert {
 public:
  void* AVFormat_Convert_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext);
  bool AVFormat_Convert_Output(void* lpTask, const char* szUrl, double dlStartTime, double dlEndTime,
                               AVFORMAT_IO_FUNCTION fpWrite, void* lpWriteContext);
  bool AVFormat_Convert_Input(void* lpTask, const char* szUrl, AVFORMAT_IO_FUNCTION fpRead, void* lpReadContext);
  bool AVFormat_Convert_Start(void* lpTask);
  bool AVFormat_Convert_Suspend(void* lpTask, bool bPause);
  bool AVFormat_Convert_GetStatus(void* lpTask, bool* pbRunning);
  bool AVFormat_Convert_Stop(void* lpTask) noexcept;
  bool AVFormat_Convert_Seek(void* lpTask, long long llSeconds);
  bool AVFormat_Convert_SetOption(void* lpTask, const char* szName, const char* szValue);

  static int AVFormat_Convert_Thread(void* lpTask);

 private:
  // Not used by any operation: every task keeps all of its state in its own record.
  [[maybe_unused]] std::unordered_map<void*, AVPACKET_FILE_CONVERT*> m_TaskMap;
  [[maybe_unused]] std::shared_mutex m_TaskLock;
};
