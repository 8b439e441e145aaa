// SPDX-License-Identifier: MIT
#include "task.h"

#include <fmt/core.h>

#include <string>

extern "C" {
#include <libavutil/error.h>
}

#include "Quorvel_AVFormat.h"
#include "caller_io.h"
#include "errors.h"
#include "terminal.h"

namespace qtool {

const Family kConversion{"conversion",           kConvertBit, AVFormat_Convert_Init,
                         AVFormat_Convert_SetOption, AVFormat_Convert_GetStatus,
                         AVFormat_Convert_Suspend,   AVFormat_Convert_StopWithReport,
                         ERROR_AVFORMAT_CONVERT_OPEN, ERROR_AVFORMAT_CONVERT_POLICY};
const Family kDemultiplexing{"demultiplexing",       kUnpackBit, AVFormat_UNPack_Init,
                             AVFormat_UNPack_SetOption, AVFormat_UNPack_GetStatus,
                             AVFormat_UNPack_Suspend,   AVFormat_UNPack_StopWithReport,
                             ERROR_AVFORMAT_PACKET_OPEN, ERROR_AVFORMAT_PACKET_POLICY};
const Family kMultiplexing{"multiplexing",         kMuxBit, AVFormat_Packet_Init,
                           AVFormat_Packet_SetOption, AVFormat_Packet_GetStatus,
                           AVFormat_Packet_Suspend,   AVFormat_Packet_StopWithReport,
                           ERROR_AVFORMAT_PACKET_OPEN, ERROR_AVFORMAT_PACKET_POLICY};
const Family kConcatenation{"concatenation",      kLinkBit, AVFormat_Link_Init,
                            AVFormat_Link_SetOption, AVFormat_Link_GetStatus,
                            AVFormat_Link_Suspend,   AVFormat_Link_StopWithReport,
                            ERROR_AVFORMAT_LINK_OPEN, ERROR_AVFORMAT_LINK_POLICY};

void Task::Stop() {
  if (handle_ == nullptr) return;
  family_.suspend(handle_, false);
  report_.dwSize = sizeof report_;
  family_.stop_with_report(handle_, &report_);
  handle_ = nullptr;
}

// A write the output refused, or a failed trailer, fails the command with the
// system's reason. Standard output's own failures are told by the command. An
// output without a single packet is no result either.
void CheckWrites(const AVFORMAT_TASK_REPORT& report) {
  if (StandardOutputError() != 0) return;
  const int error = report.nWriteError != 0 ? report.nWriteError : report.nTrailerResult;
  if (error != 0) {
    char reason[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, reason, sizeof reason);
    throw ToolFailure(fmt::format("writing the output failed: {}", reason));
  }
  if (report.llPacketsWritten == 0)
    throw ToolFailure(report.llPacketsRefused > 0
                          ? fmt::format("the output refused all {} packets it was given", report.llPacketsRefused)
                          : std::string("no packet was written: the input holds none in the chosen streams and span"));
}

Outcome RunTask(Task& task, ProgressCounter& counter, const RunSettings& settings) {
  KeyReader keys(settings.keys);
  ProgressDisplay display(settings.mode, settings.span, keys.active());
  const Family& family = task.family();
  bool paused = false;
  Outcome outcome = Outcome::kFinished;
  for (;;) {
    if (StopRequested()) {
      outcome = StopSignal() != 0 ? Outcome::kInterrupted : Outcome::kStopped;
      break;
    }
    bool running = false;
    Check(family.get_status(task.get(), &running), std::string("asking the ") + family.name + " task for its status");
    if (!running) break;
    display.Update(counter, paused);
    const char key = keys.Wait(std::chrono::milliseconds(100));
    if (key == 'p' || key == 'P' || key == ' ') {
      paused = !paused;
      Check(family.suspend(task.get(), paused), paused ? "pausing the task" : "resuming the task");
      display.Update(counter, paused);
    } else if (key == 'q' || key == 'Q') {
      RequestStop();
    }
  }
  keys.Restore();
  task.Stop();
  display.Finish(counter,
                 outcome == Outcome::kFinished  ? "finished"
                 : outcome == Outcome::kStopped ? "stopped"
                                                : "interrupted",
                 task.report().llPacketsRefused);
  CheckWrites(task.report());
  return outcome;
}

int ExitStatus(Outcome outcome, const Task& task) {
  if (outcome == Outcome::kInterrupted) return 128 + StopSignal();
  if (task.report().llPacketsRefused == 0) return 0;
  fmt::print(stderr, "quorvel-avformat: the output lacks {} packets that its muxer refused (see the lines above)\n",
             task.report().llPacketsRefused);
  return 1;
}

}  // namespace qtool
