// Concatenation: several files joined end to end into one, each with its own
// cut, with continuous timestamps.
#pragma once

#include "Quorvel_AVFormat.h"

class QUORVEL_AVFORMAT_API CAVFormat_Link {
 public:
  void* AVFormat_Link_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext);
  bool AVFormat_Link_Output(void* lpTask, const char* szFile);
  bool AVFormat_Link_Input(void* lpTask, const char* szFile, double dlStartTime, double dlEndTime,
                           int nVideoIndex, int nAudioIndex);
  bool AVFormat_Link_Start(void* lpTask);
  bool AVFormat_Link_GetStatus(void* lpTask, bool* pbRunning);
  bool AVFormat_Link_Suspend(void* lpTask, bool bPause);
  bool AVFormat_Link_Stop(void* lpTask) noexcept;

  static int AVFormat_Link_Thread(void* lpTask);
};
