// SPDX-License-Identifier: MIT
// Conversion set-up: Init, Output, Input.
#include <new>

#include "convert/convert.h"
#include "convert/convert_task.h"
#include "core/error.h"
#include "core/remux.h"
#include "core/task.h"

using quorvel::Fail;
using quorvel::OpenResult;
using quorvel::StreamStep;

namespace {

constexpr quorvel::OpenCodes kOpenCodes{ERROR_AVFORMAT_CONVERT_MALLOC, ERROR_AVFORMAT_CONVERT_OPEN,
                                        ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT, ERROR_AVFORMAT_CONVERT_OPTION_UNUSED,
                                        ERROR_AVFORMAT_CONVERT_POLICY};
constexpr quorvel::OptionCodes kOptionCodes{ERROR_AVFORMAT_CONVERT_PARAMETER, ERROR_AVFORMAT_CONVERT_OPTION,
                                            ERROR_AVFORMAT_CONVERT_OPTION_VALUE, ERROR_AVFORMAT_CONVERT_OPTION_LATE};

}  // namespace

void* CAVFormat_Convert::AVFormat_Convert_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext) {
  return quorvel::NewTask<AVPACKET_FILE_CONVERT>(fpProgress, lpCallbackContext, ERROR_AVFORMAT_CONVERT_MALLOC);
}

bool CAVFormat_Convert::AVFormat_Convert_Output(void* lpTask, const char* szUrl, double dlStartTime, double dlEndTime,
                                                AVFORMAT_IO_FUNCTION fpWrite, void* lpWriteContext) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  if (task == nullptr || task->bStarted) return Fail(ERROR_AVFORMAT_CONVERT_PARAMETER);

  task->bOutputReady = false;
  const OpenResult opened =
      quorvel::OpenOutput(task->pOutputContext, task->pOutputBuffer, task->pOutputIO, szUrl, fpWrite, lpWriteContext);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;
  // Neither value nor order is checked: 0 or less switches either bound off.
  task->dlStartTime = dlStartTime;
  task->dlEndTime = dlEndTime;
  task->bOutputReady = true;
  return true;
}

bool CAVFormat_Convert::AVFormat_Convert_Input(void* lpTask, const char* szUrl, AVFORMAT_IO_FUNCTION fpRead,
                                               void* lpReadContext) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  // The output streams are made here, so the output must exist; and there must be something to open.
  if (task == nullptr || task->bStarted || !task->bOutputReady || (szUrl == nullptr && fpRead == nullptr))
    return Fail(ERROR_AVFORMAT_CONVERT_PARAMETER);

  task->bInputReady = false;
  const quorvel::OpenDeadline deadline(task->stInterrupt, task->stOptions.open_timeout);
  const OpenResult opened = quorvel::OpenInput(task->pInputContext, task->pInputBuffer, task->pInputIO, szUrl, fpRead,
                                               lpReadContext, quorvel::UrlBesideRead::kOpenedFirst,
                                               quorvel::InterruptOn(task->stInterrupt), &task->stOptions);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;

  AVFormatContext* input = task->pInputContext.get();
  if (avformat_find_stream_info(input, nullptr) < 0 || deadline.Expired())
    return Fail(ERROR_AVFORMAT_CONVERT_STREAMINFO);

  task->nStreamCount = input->nb_streams;
  task->pnStreamMap.reset(new (std::nothrow) int[input->nb_streams]);
  if (!task->pnStreamMap) return Fail(ERROR_AVFORMAT_CONVERT_MALLOC);

  AVFormatContext* output = task->pOutputContext.get();
  int made = 0;  // output streams so far
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    const AVCodecParameters* parameters = input->streams[i]->codecpar;
    switch (parameters->codec_type) {
      case AVMEDIA_TYPE_VIDEO:
      case AVMEDIA_TYPE_AUDIO:
      case AVMEDIA_TYPE_SUBTITLE: break;
      default: task->pnStreamMap[i] = -1; continue;
    }
    // By default packets go to the output stream of their own index (see convert.h).
    task->pnStreamMap[i] = task->stOptions.dense_streams ? made++ : static_cast<int>(i);
    switch (quorvel::NewOutputStream(output, parameters, task->stOptions.keep_codec_tag)) {
      case StreamStep::kDone: break;
      case StreamStep::kNewStream: return Fail(ERROR_AVFORMAT_CONVERT_NEWSTREAM);
      case StreamStep::kCopyParameters: return Fail(ERROR_AVFORMAT_CONVERT_CODECPAR);
    }
  }
  task->bInputReady = true;
  return true;
}

bool CAVFormat_Convert::AVFormat_Convert_SetOption(void* lpTask, const char* szName, const char* szValue) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  if (task == nullptr) return Fail(ERROR_AVFORMAT_CONVERT_PARAMETER);
  // Input makes the output streams and Start writes the header and runs.
  return quorvel::SetTaskOption(task->stOptions, quorvel::kConvertFamily, szName, szValue, kOptionCodes,
                                [task](quorvel::OptionTime time) {
                                  return task->bStarted || (time == quorvel::OptionTime::kInputOpen && task->bInputReady);
                                });
}
