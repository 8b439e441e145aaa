// SPDX-License-Identifier: MIT
// The records behind a concatenation task handle.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "Quorvel_AVFormat.h"
#include "core/ffmpeg.h"
#include "core/io.h"
#include "core/options.h"
#include "core/report.h"
#include "core/worker.h"

// One input file, in joining order.
struct AVPACKET_LINKINFO {
  double dlStartTime = 0.0;  // seconds on the output timeline; 0 or less: no cut
  double dlEndTime = 0.0;    // seconds on the output timeline; 0 or less: no cut
  int nVideoIndex = 0;       // the input's stream copied as video; -1: none
  int nAudioIndex = 0;       // the input's stream copied as audio; -1: none
  quorvel::InputContext pInputContext;
};

struct AVPACKET_FILELINK {
  std::thread pThread;
  void* lpReserved = nullptr;  // first argument of every progress call; never set
  std::atomic<bool> bRunning{false};
  std::atomic<bool> bPause{false};
  int nVideoStream = -1;  // the output's video stream, once an input has described it
  int nAudioStream = -1;  // the output's audio stream, likewise
  quorvel::OutputContext pOutputContext;
  std::vector<AVPACKET_LINKINFO> pInputList;
  void* lpCallbackContext = nullptr;
  AVFORMAT_PROGRESS_CALLBACK fpProgress = nullptr;

  // The inputs' interrupt: set by Stop (it aborts FFmpeg I/O that blocks, a
  // network read), and bounded during Input by open_timeout.
  quorvel::Interrupt stInterrupt;
  // Held by the calls that reach FFmpeg on the caller's thread; Stop waits for them.
  quorvel::CallGate stCalls;
  bool bOutputReady = false;    // Output succeeded
  bool bStarted = false;        // Start has been called; the header was tried
  bool bHeaderWritten = false;  // the trailer may only follow a written header
  // What the task has done, for GetReport; written by whichever thread writes the output.
  // What SetOption set; read by the set-up calls and the worker.
  quorvel::TaskOptions stOptions;
  quorvel::TaskTally stTally;
  int64_t llBytesSeen = 0;  // the output's bytes that stTally has counted
};
