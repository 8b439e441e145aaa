// SPDX-License-Identifier: MIT
// The record behind a conversion task handle.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "Quorvel_AVFormat.h"
#include "core/io.h"
#include "core/options.h"
#include "core/report.h"
#include "core/worker.h"

struct AVPACKET_FILE_CONVERT {
  std::thread pThread;
  void* lpReserved = nullptr;          // first argument of every progress call; never set
  double dlStartTime = 0.0;            // seconds; 0 or less: from the beginning
  double dlEndTime = 0.0;              // seconds; 0 or less: to the end
  int64_t nPacketCount = 0;            // packets of kept streams handled by the worker
  unsigned nStreamCount = 0;           // the input's number of streams
  std::unique_ptr<int[]> pnStreamMap;  // per input stream: its own index if kept, -1 if dropped
  std::atomic<bool> bRunning{false};
  std::atomic<bool> bPause{false};
  quorvel::BridgeBuffer pInputBuffer;
  quorvel::BridgeBuffer pOutputBuffer;
  quorvel::BridgeIO pInputIO;
  quorvel::BridgeIO pOutputIO;
  quorvel::InputContext pInputContext;
  quorvel::OutputContext pOutputContext;
  void* lpCallbackContext = nullptr;
  AVFORMAT_PROGRESS_CALLBACK fpProgress = nullptr;

  // The inputs' interrupt: set by Stop (it aborts FFmpeg I/O that blocks, a
  // network read), and bounded during Input by open_timeout.
  quorvel::Interrupt stInterrupt;
  // Held by the calls that reach FFmpeg on the caller's thread; Stop waits for them.
  quorvel::CallGate stCalls;
  bool bOutputReady = false;    // Output succeeded
  bool bInputReady = false;     // Input succeeded
  bool bStarted = false;        // Start has been called with success
  bool bHeaderWritten = false;  // the trailer may only follow a written header
  // What the task has done, for GetReport; written by whichever thread writes the output.
  // What SetOption set; read by the set-up calls and the worker.
  quorvel::TaskOptions stOptions;
  quorvel::TaskTally stTally;
  int64_t llBytesSeen = 0;  // the output's bytes that stTally has counted
  // Seek runs on the caller's thread against the input the worker reads.
  std::mutex mtxInput;
};
