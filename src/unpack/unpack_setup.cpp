// Demultiplexing set-up: Init, Input, Output.
#include <cstring>
#include <new>

#include "core/error.h"
#include "core/task.h"
#include "unpack/unpack.h"
#include "unpack/unpack_task.h"

using quorvel::Fail;
using quorvel::OpenResult;

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
  const AVIOInterruptCB interrupt = quorvel::InterruptOn(task->bAbort);
  // A read function wins: the url is not even looked at then.
  const OpenResult opened = fpRead != nullptr
                                ? quorvel::OpenBridgeInput(task->pFormatContext, task->pIOBuffer, task->pIOContext,
                                                           fpRead, lpReadContext, interrupt)
                                : quorvel::OpenUrlInput(task->pFormatContext, szUrl, interrupt);
  if (opened == OpenResult::kNoMemory) return Fail(ERROR_AVFORMAT_PACKET_MALLOC);
  if (opened != OpenResult::kOk) return Fail(ERROR_AVFORMAT_PACKET_OPEN);

  // The family has no code of its own for streams that cannot be analysed.
  if (avformat_find_stream_info(task->pFormatContext.get(), nullptr) < 0) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  task->bInputReady = true;
  return true;
}

namespace {

// Makes output `index` from `record`, with its one stream described by input
// stream `index` and its header written. On failure returns the code; what was
// made stays in `info` for the caller to drop.
uint64_t MakeOutput(AVPACKET_FILE_INFO& info, const AVCODEC_FORMATINFO& record, const AVStream* source) {
  std::memcpy(&info.FormatInfo, &record, sizeof record);
  // The name is read as a string that lives in the record's 264 bytes.
  info.FormatInfo.szName[sizeof info.FormatInfo.szName - 1] = '\0';
  const AVCODEC_FORMATINFO& format = info.FormatInfo;

  switch (quorvel::OpenOutput(info.pFormatContext, info.pIOBuffer, info.pIOContext, format.szName, format.pWriteFunc,
                              format.pWriteContext)) {
    case OpenResult::kOk: break;
    case OpenResult::kNoFormat: return ERROR_AVFORMAT_PACKET_OUTPUTFORMAT;
    case OpenResult::kNoMemory: return ERROR_AVFORMAT_PACKET_MALLOC;
    case OpenResult::kOpenFailed: return ERROR_AVFORMAT_PACKET_OPEN;
  }
  AVFormatContext* output = info.pFormatContext.get();
  AVStream* stream = avformat_new_stream(output, nullptr);
  if (stream == nullptr) return ERROR_AVFORMAT_PACKET_MALLOC;
  if (avcodec_parameters_copy(stream->codecpar, source->codecpar) < 0) return ERROR_AVFORMAT_PACKET_CODECPAR;
  // The output container chooses its own tag.
  stream->codecpar->codec_tag = 0;

  if (avformat_write_header(output, nullptr) < 0) return ERROR_AVFORMAT_PACKET_WRITEHEADER;
  // The header is out at once, before any packet: a file output is readable from here on.
  if (output->pb != nullptr) avio_flush(output->pb);
  return 0;
}

}  // namespace

bool CAVFormat_UNPack::AVFormat_UNPack_Output(void* lpTask, AVCODEC_FORMATINFO*** pppInfos, int nCount) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_UNPACK*>(lpTask);
  // Outputs are described from the input's streams, and the running worker walks the list.
  if (task == nullptr || !task->bInputReady || task->bStarted) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  if (nCount <= 0) return true;

  const AVFormatContext* input = task->pFormatContext.get();
  if (pppInfos == nullptr || *pppInfos == nullptr || static_cast<unsigned>(nCount) > input->nb_streams)
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  AVCODEC_FORMATINFO** records = *pppInfos;
  for (int i = 0; i < nCount; ++i) {
    if (records[i] == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
    // Only a finished output joins the list; a failed one is released here.
    AVPACKET_FILE_INFO info;
    const uint64_t failure = MakeOutput(info, *records[i], input->streams[i]);
    if (failure != 0) return Fail(failure);
    task->pInfoList.push_back(std::move(info));
  }
  return true;
}
