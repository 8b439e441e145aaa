// SPDX-License-Identifier: MIT
// Demultiplexing: an input split into one container per stream on a worker
// thread, or its packets and codec parameters pulled by the caller.
//
// Deliberate behaviours, kept as callers rely on them (options change them:
// rescale_times, keyframe_start, end_exclusive, outputs_independent; see core/cut.h):
//  - output i takes the codec parameters of input stream i (its place in the
//    array) but receives the packets of the stream its record names: a
//    caller gets coherent files by naming stream i in record i;
//  - packets reach their output with their input timestamps, not rescaled to
//    the output stream's time base (exact when the container keeps the
//    input's time base, as Matroska to Matroska does);
//  - packets before an output's start time are read, reported to the
//    progress callback and counted, but not written;
//  - an output's end time ends the whole task, for every output, and only on
//    a packet whose time equals it exactly;
//  - a null task handle in GetAVCodec is reported as ERROR_AVFORMAT_PACKET_SEEK.
#pragma once

#include "Quorvel_AVFormat.h"

class QUORVEL_AVFORMAT_API CAVFormat_UNPack {
 public:
  void* AVFormat_UNPack_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext);
  bool AVFormat_UNPack_Input(void* lpTask, const char* szUrl, AVFORMAT_IO_FUNCTION fpRead, void* lpReadContext);
  bool AVFormat_UNPack_Output(void* lpTask, AVCODEC_FORMATINFO*** pppInfos, int nCount);
  bool AVFormat_UNPack_Start(void* lpTask);
  bool AVFormat_UNPack_Read(void* lpTask, int* pnStreamIndex, unsigned char* pData, int* pnSize,
                            AVCODEC_PACKETINFO* pInfo, AVCODEC_TIMEBASE* pTimeBase);
  bool AVFormat_UNPack_ReadSized(void* lpTask, int* pnStreamIndex, unsigned char* pData, int nCapacity, int* pnSize,
                                 int* pnFlags, AVCODEC_PACKETINFO* pInfo, AVCODEC_TIMEBASE* pTimeBase);
  bool AVFormat_UNPack_GetStatus(void* lpTask, bool* pbRunning);
  bool AVFormat_UNPack_Suspend(void* lpTask, bool bPause);
  bool AVFormat_UNPack_Seek(void* lpTask, int nStreamIndex, unsigned long long ullTimestamp);
  bool AVFormat_UNPack_Stop(void* lpTask) noexcept;
  bool AVFormat_UNPack_SetOption(void* lpTask, const char* szName, const char* szValue);
  bool AVFormat_UNPack_GetAVCodec(void* lpTask, int nStreamIndex, void** ppCodecParameters,
                                  AVCODEC_TIMEBASE* pTimeBase);

  static int AVFormat_UNPack_Thread(void* lpTask);
};
