// SPDX-License-Identifier: MIT
// The records behind a demultiplexing task handle.
#pragma once

#include <atomic>
#include <list>
#include <mutex>
#include <thread>

#include "Quorvel_AVFormat.h"
#include "core/io.h"
#include "core/options.h"
#include "core/report.h"
#include "core/worker.h"

// One output: a container that holds the packets of one input stream.
struct AVPACKET_FILE_INFO {
  AVCODEC_FORMATINFO FormatInfo{};        // the caller's record, copied
  int64_t nPacketCount = 0;               // packets of this output handled by the worker
  quorvel::BridgeBuffer pIOBuffer;        // caller-write outputs only
  quorvel::BridgeIO pIOContext;           // caller-write outputs only
  quorvel::OutputContext pFormatContext;  // one stream, header written
  int64_t llBytesSeen = 0;                // this output's bytes that the task's tally has counted
};

struct AVPACKET_FILE_UNPACK {
  std::thread pThread;
  std::list<AVPACKET_FILE_INFO> pInfoList;  // in the order Output was given them
  std::atomic<bool> bRunning{false};
  std::atomic<bool> bPause{false};
  void* lpReserved = nullptr;       // first argument of every progress call; never set
  quorvel::BridgeBuffer pIOBuffer;  // caller-read input only
  quorvel::BridgeIO pIOContext;     // caller-read input only
  quorvel::InputContext pFormatContext;
  void* lpCallbackContext = nullptr;
  AVFORMAT_PROGRESS_CALLBACK fpProgress = nullptr;

  // The inputs' interrupt: set by Stop (it aborts FFmpeg I/O that blocks, a
  // network read), and bounded during Input by open_timeout.
  quorvel::Interrupt stInterrupt;
  // Held by the calls that reach FFmpeg on the caller's thread; Stop waits for them.
  quorvel::CallGate stCalls;
  bool bInputReady = false;  // Input succeeded: the input is open and its streams known
  bool bStarted = false;     // Start has been called with success
  quorvel::Packet pReadPacket;  // reused by every Read
  // pReadPacket holds a packet that a sized Read found too large for the
  // caller's buffer: the next Read of either kind delivers it.
  bool bReadKept = false;

  // Forgets a kept packet: after a seek or once the worker reads, it is stale.
  void DropKeptPacket() noexcept {
    if (bReadKept) av_packet_unref(pReadPacket.get());
    bReadKept = false;
  }
  // What the task has done over all its outputs, for GetReport.
  // What SetOption set; read by the set-up calls and the worker.
  quorvel::TaskOptions stOptions;
  quorvel::TaskTally stTally;
  // Read, Seek and GetAVCodec run on the caller's thread against the input the worker reads.
  std::mutex mtxInput;
};
