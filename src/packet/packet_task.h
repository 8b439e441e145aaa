// SPDX-License-Identifier: MIT
// The record behind a multiplexing task handle, and its list of inputs.
#pragma once

#include <atomic>
#include <list>
#include <thread>
#include <vector>

#include "Quorvel_AVFormat.h"
#include "core/io.h"
#include "core/options.h"
#include "core/report.h"
#include "core/worker.h"

// One input file and the one stream mapping that the worker uses for all of
// its packets, or (all_streams, streams) an output stream per input stream.
struct AVPACKET_FILE_AVINFO {
  int nMediaType = 0;           // media type of the last mapped stream, for the progress callback
  int nOutputStream = 0;        // output stream of the last mapped stream
  int nInputStream = 0;         // the last mapped stream
  int64_t nPacketCount = 0;     // packets of this input handled by the worker
  AVRational stTimeBase{0, 0};  // recorded for a non-video mapping, never read
  // Per-stream routing: the output stream of each input stream (-1: not
  // taken) and the packets carried from each. Empty: the one mapping above.
  std::vector<int> vRoutes;
  std::vector<int64_t> vStreamCounts;
  // interleave_by_time: the packet read ahead, waiting for its turn.
  quorvel::Packet pPending;
  bool bPending = false;
  bool bEnded = false;  // until_all_inputs_end: this input ran out
  // Declared in this order so that the context is closed before its bridge goes.
  quorvel::BridgeIO pInputIO;
  quorvel::InputContext pInputContext;
  quorvel::BridgeBuffer pInputBuffer;
};

struct AVPACKET_FILE_PACKET {
  std::thread pThread;
  std::atomic<bool> bRunning{false};
  std::atomic<bool> bPause{false};
  bool bHasAudio = false;            // recorded, never read
  bool bHasVideo = false;            // recorded, never read
  bool bHeaderWritten = false;       // StreamWrite has tried the header (set before trying)
  int nVideoStream = 0;              // last video stream made by StreamCreate: the duration rule's stream
  int nAudioStream = 0;              // last other stream made by StreamCreate; never read
  void* lpReserved = nullptr;        // first argument of every progress call; never set
  double dlStartTime = 0.0;          // seconds; 0 or less: from the beginning
  double dlEndTime = 0.0;            // seconds; 0 or less: to the end
  AVRational stVideoTimeBase{0, 0};  // recorded for a video mapping, never read
  quorvel::BridgeBuffer pOutputBuffer;
  quorvel::BridgeIO pOutputIO;
  quorvel::OutputContext pOutputContext;
  std::list<AVPACKET_FILE_AVINFO> pInputList;  // one element per successful Input, in call order
  void* lpCallbackContext = nullptr;
  AVFORMAT_PROGRESS_CALLBACK fpProgress = nullptr;

  // The inputs' interrupt: set by Stop (it aborts FFmpeg I/O that blocks, a
  // network read), and bounded during Input by open_timeout.
  quorvel::Interrupt stInterrupt;
  // Held by the calls that reach FFmpeg on the caller's thread; Stop waits for them.
  quorvel::CallGate stCalls;
  bool bOutputReady = false;  // Output succeeded
  bool bStarted = false;      // Start has tried the header
  bool bHeaderOk = false;     // a header was written: packets and the trailer may follow
  quorvel::Packet pWritePacket;  // reused by every StreamWrite
  // What the task has done, for GetReport; written by whichever thread writes the output.
  // What SetOption set; read by the set-up calls and the worker.
  quorvel::TaskOptions stOptions;
  quorvel::TaskTally stTally;
  int64_t llBytesSeen = 0;  // the output's bytes that stTally has counted

  // The header is tried once per task, by whichever comes first.
  bool HeaderTried() const noexcept { return bStarted || bHeaderWritten; }
  // An Input or StreamCreate has put streams into the output.
  bool HasStreams() const noexcept {
    return !pInputList.empty() || (pOutputContext && pOutputContext->nb_streams > 0);
  }
};
