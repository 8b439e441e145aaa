// SPDX-License-Identifier: MIT
// Multiplexing: one output built from the streams of input files (a worker
// thread interleaves them) or from packets that the caller writes.
//
// Deliberate behaviours, kept as callers rely on them (the task options
// change several of them: docs/options.md):
//  - an input carries one stream mapping only: every packet of an input goes
//    to the output stream of its last mapped stream, with that stream's time
//    base; the earlier streams of a multi-stream input get output streams that
//    stay empty. Still pictures (MJPEG, JPEG 2000 video: cover art) are not
//    mapped;
//  - the worker takes one packet from each input in turn and the whole run
//    ends when the first input runs out; times are rescaled, never shifted;
//  - packets before the start time are read, counted and reported but not
//    written; the end time ends the run only on a packet whose time equals it
//    exactly;
//  - a written packet of the caller's video stream lasts 1/den seconds of the
//    time base given with it (den read as the frame rate, truncated to whole
//    microseconds), whatever duration the caller gave;
//  - the header is tried once per task (by Start or by the first StreamWrite);
//    after a failed header no packet reaches the muxer;
//  - the time-base fields that Input records (stVideoTimeBase, stTimeBase,
//    taken from the previously mapped stream) and bHasAudio, bHasVideo and
//    nAudioStream are written for the record's sake and read nowhere.
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
  bool AVFormat_Packet_SetOption(void* lpTask, const char* szName, const char* szValue);
  bool AVFormat_Packet_StreamCreate(void* lpTask, void* lpCodecParameters);
  bool AVFormat_Packet_StreamWrite(void* lpTask, int nStreamIndex, const unsigned char* pData, int nSize,
                                   AVCODEC_TIMEBASE* pTimeBase, AVCODEC_PACKETINFO* pInfo);

  static int AVFormat_Packet_Thread(void* lpTask);
};
