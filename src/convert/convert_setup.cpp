// Conversion set-up: Init, Output, Input.
#include <new>

#include "convert/convert.h"
#include "convert/convert_task.h"
#include "core/error.h"
#include "core/task.h"

using quorvel::Fail;
using quorvel::OpenResult;

void* CAVFormat_Convert::AVFormat_Convert_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext) {
  return quorvel::NewTask<AVPACKET_FILE_CONVERT>(fpProgress, lpCallbackContext, ERROR_AVFORMAT_CONVERT_MALLOC);
}

bool CAVFormat_Convert::AVFormat_Convert_Output(void* lpTask, const char* szUrl, double dlStartTime, double dlEndTime,
                                                AVFORMAT_IO_FUNCTION fpWrite, void* lpWriteContext) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_CONVERT*>(lpTask);
  if (task == nullptr || task->bStarted) return Fail(ERROR_AVFORMAT_CONVERT_PARAMETER);

  task->bOutputReady = false;
  switch (
      quorvel::OpenOutput(task->pOutputContext, task->pOutputBuffer, task->pOutputIO, szUrl, fpWrite, lpWriteContext)) {
    case OpenResult::kOk: break;
    case OpenResult::kNoFormat: return Fail(ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT);
    case OpenResult::kNoMemory: return Fail(ERROR_AVFORMAT_CONVERT_MALLOC);
    case OpenResult::kOpenFailed: return Fail(ERROR_AVFORMAT_CONVERT_OPEN);
  }
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
  const AVIOInterruptCB interrupt = quorvel::InterruptOn(task->bAbort);
  // With both a url and a read function, the url is opened first (its failure
  // ends the call) and then replaced by the bridged input.
  if (szUrl != nullptr) {
    const OpenResult opened = quorvel::OpenUrlInput(task->pInputContext, szUrl, interrupt);
    if (opened == OpenResult::kNoMemory) return Fail(ERROR_AVFORMAT_CONVERT_MALLOC);
    if (opened != OpenResult::kOk) return Fail(ERROR_AVFORMAT_CONVERT_OPEN);
  }
  if (fpRead != nullptr) {
    const OpenResult opened = quorvel::OpenBridgeInput(task->pInputContext, task->pInputBuffer, task->pInputIO, fpRead,
                                                       lpReadContext, interrupt);
    if (opened == OpenResult::kNoMemory) return Fail(ERROR_AVFORMAT_CONVERT_MALLOC);
    if (opened != OpenResult::kOk) return Fail(ERROR_AVFORMAT_CONVERT_OPEN);
  }

  AVFormatContext* input = task->pInputContext.get();
  if (avformat_find_stream_info(input, nullptr) < 0) return Fail(ERROR_AVFORMAT_CONVERT_STREAMINFO);

  task->nStreamCount = input->nb_streams;
  task->pnStreamMap.reset(new (std::nothrow) int[input->nb_streams]);
  if (!task->pnStreamMap) return Fail(ERROR_AVFORMAT_CONVERT_MALLOC);

  AVFormatContext* output = task->pOutputContext.get();
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    const AVCodecParameters* parameters = input->streams[i]->codecpar;
    switch (parameters->codec_type) {
      case AVMEDIA_TYPE_VIDEO:
      case AVMEDIA_TYPE_AUDIO:
      case AVMEDIA_TYPE_SUBTITLE: break;
      default: task->pnStreamMap[i] = -1; continue;
    }
    task->pnStreamMap[i] = static_cast<int>(i);
    AVStream* stream = avformat_new_stream(output, nullptr);
    if (stream == nullptr) return Fail(ERROR_AVFORMAT_CONVERT_NEWSTREAM);
    if (avcodec_parameters_copy(stream->codecpar, parameters) < 0) return Fail(ERROR_AVFORMAT_CONVERT_CODECPAR);
    // The output container chooses its own tag.
    stream->codecpar->codec_tag = 0;
  }
  task->bInputReady = true;
  return true;
}
