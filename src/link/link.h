// SPDX-License-Identifier: MIT
// Concatenation: several files joined end to end into one, each with its own
// cut, with continuous timestamps.
//
// Deliberate behaviours, kept as callers rely on them (the task options
// change several of them: docs/options.md):
//  - each input after the first is shifted by the previous input's last
//    timestamp plus one average spacing, estimated as last / count (signed
//    64-bit integer division) in the inputs' own time base; "last" already
//    holds the earlier offsets, so the estimate grows from the second input on,
//    and an input's own first timestamp is never subtracted;
//  - a packet is routed as audio first: a stream named both as the video and
//    the audio stream goes to the audio output stream;
//  - the cut keeps a packet when its output position is at or before the start
//    bound and at or before the end bound (dropped when start < position or
//    position > end); a bound of 0 or less switches the cut off. Cut packets
//    are still reported and counted;
//  - progress numbers each kind from 1 across all inputs;
//  - the output's streams are described from the first input that has each
//    kind, from its first stream of that kind, whatever index the caller gave;
//  - every input is read from its beginning: there is no seek;
//  - GetStatus and Suspend report with the multiplexing range's codes;
//  - Stop on a paused task waits until another thread resumes it: the paused
//    worker looks at nothing but the pause flag.
#pragma once

#include "Quorvel_AVFormat.h"

class QUORVEL_AVFORMAT_API CAVFormat_Link {
 public:
  void* AVFormat_Link_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext);
  bool AVFormat_Link_Output(void* lpTask, const char* szFile);
  bool AVFormat_Link_Input(void* lpTask, const char* szFile, double dlStartTime, double dlEndTime, int nVideoIndex,
                           int nAudioIndex);
  bool AVFormat_Link_Start(void* lpTask);
  bool AVFormat_Link_GetStatus(void* lpTask, bool* pbRunning);
  bool AVFormat_Link_Suspend(void* lpTask, bool bPause);
  bool AVFormat_Link_Stop(void* lpTask) noexcept;
  bool AVFormat_Link_SetOption(void* lpTask, const char* szName, const char* szValue);

  static int AVFormat_Link_Thread(void* lpTask);
};
