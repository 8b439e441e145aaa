// Multiplexing: one output built from the streams of input files (a worker
// thread interleaves them) or from packets that the caller writes.
#pragma once

#include "Quorvel_AVFormat.h"

class QUORVEL_AVFORMAT_API CAVFormat_Packet {
 public:
  void* AVFormat_Packet_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext);
  bool AVFormat_Packet_Output(void* lpTask, const char* szName, double dlStartTime, double dlEndTime,
                              AVFORMAT_IO_FUNCTION fpWrite, void* lpWriteContext);
  bool AVFormat_Packet_Input(void* lpTask, const char* szUrl, AVFORMAT_IO_FUNCTION fpRead, void* lpReadContext);
  bool AVFormat_Packet_Start(void* lpTask);
  bool AVFormat_Packet_GetStatus(void* lpTask, bool* pbRunning);
  bool AVFormat_Packet_Suspend(void* lpTask, bool bPause);
  bool AVFormat_Packet_Stop(void* lpTask) noexcept;
  bool AVFormat_Packet_StreamCreate(void* lpTask, void* lpCodecParameters);
  bool AVFormat_Packet_StreamWrite(void* lpTask, int nStreamIndex, const unsigned char* pData, int nSize,
                                   AVCODEC_TIMEBASE* pTimeBase, AVCODEC_PACKETINFO* pInfo);

  static int AVFormat_Packet_Thread(void* lpTask);
};
