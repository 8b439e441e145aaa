// SPDX-License-Identifier: MIT
// Demultiplexing set-up: Init, Input, Output.
#include <cstring>
#include <new>

#include "core/error.h"
#include "core/remux.h"
#include "core/task.h"
#include "unpack/unpack.h"
#include "unpack/unpack_task.h"

using quorvel::Fail;
using quorvel::OpenResult;
using quorvel::StreamStep;

namespace {

constexpr quorvel::OpenCodes kOpenCodes{ERROR_AVFORMAT_PACKET_MALLOC, ERROR_AVFORMAT_PACKET_OPEN,
                                        ERROR_AVFORMAT_PACKET_OUTPUTFORMAT, ERROR_AVFORMAT_PACKET_OPTION_UNUSED,
                                        ERROR_AVFORMAT_PACKET_POLICY};
constexpr quorvel::OptionCodes kOptionCodes{ERROR_AVFORMAT_PACKET_PARAMETER, ERROR_AVFORMAT_PACKET_OPTION,
                                            ERROR_AVFORMAT_PACKET_OPTION_VALUE, ERROR_AVFORMAT_PACKET_OPTION_LATE};

// Makes output `index` from `record`, with its one stream described by input
// stream `index` and its header written. On failure records the code and
// returns false; what was made stays in `info` for the caller to drop. What
// the header wrote goes to `tally`.
bool MakeOutput(AVPACKET_FILE_INFO& info, const AVCODEC_FORMATINFO& record, const AVStream* source,
                quorvel::TaskTally& tally, const quorvel::TaskOptions& options) {
  std::memcpy(&info.FormatInfo, &record, sizeof record);
  // The name is read as a string that lives in the record's 264 bytes.
  info.FormatInfo.szName[sizeof info.FormatInfo.szName - 1] = '\0';
  const AVCODEC_FORMATINFO& format = info.FormatInfo;

  const OpenResult opened = quorvel::OpenOutput(info.pFormatContext, info.pIOBuffer, info.pIOContext, format.szName,
                                                format.pWriteFunc, format.pWriteContext);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;
  AVFormatContext* output = info.pFormatContext.get();
  switch (quorvel::NewOutputStream(output, source->codecpar, options.keep_codec_tag)) {
    case StreamStep::kDone: break;
    // Making the stream and copying its description are one step, with one code.
    case StreamStep::kNewStream:
    case StreamStep::kCopyParameters: return Fail(ERROR_AVFORMAT_PACKET_CODECPAR);
  }

  const quorvel::HeaderResult header = quorvel::WriteHeader(output, options);
  // The header is out at once, before any packet: a file output is readable from here on.
  if (header == quorvel::HeaderResult::kWritten && output->pb != nullptr) avio_flush(output->pb);
  tally.Observe(output, info.llBytesSeen);
  if (header == quorvel::HeaderResult::kUnused) return Fail(ERROR_AVFORMAT_PACKET_OPTION_UNUSED);
  return header == quorvel::HeaderResult::kWritten || Fail(ERROR_AVFORMAT_PACKET_WRITEHEADER);
}

}  // namespace

void* CAVFormat_UNPack::AVFormat_UNPack_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext) {
  return quorvel::NewTask<AVPACKET_FILE_UNPACK>(fpProgress, lpCallbackContext, ERROR_AVFORMAT_PACKET_MALLOC);
}

bool CAVFormat_UNPack::AVFormat_UNPack_Input(void* lpTask, const char* szUrl, AVFORMAT_IO_FUNCTION fpRead,
                                             void* lpReadContext) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  // Once started, the worker owns the input; and there must be something to open.
  if (task == nullptr || task->bStarted || (szUrl == nullptr && fpRead == nullptr))
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  task->bInputReady = false;
  const quorvel::OpenDeadline deadline(task->stInterrupt, task->stOptions.open_timeout);
  const OpenResult opened =
      quorvel::OpenInput(task->pFormatContext, task->pIOBuffer, task->pIOContext, szUrl, fpRead, lpReadContext,
                         quorvel::UrlBesideRead::kIgnored, quorvel::InterruptOn(task->stInterrupt), &task->stOptions);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;

  // The family has no code of its own for streams that cannot be analysed.
  if (avformat_find_stream_info(task->pFormatContext.get(), nullptr) < 0 || deadline.Expired())
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  task->bInputReady = true;
  return true;
}

bool CAVFormat_UNPack::AVFormat_UNPack_Output(void* lpTask, AVCODEC_FORMATINFO*** pppInfos, int nCount) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (task == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // No output asked for is no work, whatever stage the task is at.
  if (nCount <= 0) return true;
  // Outputs are described from the input's streams, and the running worker walks the list.
  if (!task->bInputReady || task->bStarted) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  const AVFormatContext* input = task->pFormatContext.get();
  if (pppInfos == nullptr || *pppInfos == nullptr || static_cast<unsigned>(nCount) > input->nb_streams)
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  AVCODEC_FORMATINFO** records = *pppInfos;
  for (int i = 0; i < nCount; ++i) {
    if (records[i] == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
    // Only a finished output joins the list; a failed one is released here.
    AVPACKET_FILE_INFO info;
    if (!MakeOutput(info, *records[i], input->streams[i], task->stTally, task->stOptions)) return false;
    task->pInfoList.push_back(std::move(info));
  }
  return true;
}

bool CAVFormat_UNPack::AVFormat_UNPack_SetOption(void* lpTask, const char* szName, const char* szValue) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  if (task == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // Output writes each output's header, Start runs.
  return quorvel::SetTaskOption(task->stOptions, quorvel::kUnpackFamily, szName, szValue, kOptionCodes,
                                [task](quorvel::OptionTime time) {
                                  switch (time) {
                                    case quorvel::OptionTime::kInputOpen: return task->bInputReady || task->bStarted;
                                    case quorvel::OptionTime::kHeaderWrite: return !task->pInfoList.empty() || task->bStarted;
                                    case quorvel::OptionTime::kRun: break;
                                  }
                                  return task->bStarted;
                                });
}
