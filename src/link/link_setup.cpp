// SPDX-License-Identifier: MIT
// Concatenation set-up: Init, Output, Input.
#include <new>
#include <utility>

#include "core/error.h"
#include "core/io.h"
#include "core/remux.h"
#include "core/task.h"
#include "link/link.h"
#include "link/link_task.h"

using quorvel::Fail;
using quorvel::OpenResult;

namespace {

// This family opens files by name only, where a failed allocation is a failed open.
constexpr quorvel::OpenCodes kOpenCodes{ERROR_AVFORMAT_LINK_OPEN, ERROR_AVFORMAT_LINK_OPEN,
                                        ERROR_AVFORMAT_LINK_OUTPUTFORMAT, ERROR_AVFORMAT_LINK_OPTION_UNUSED,
                                        ERROR_AVFORMAT_LINK_POLICY};
constexpr quorvel::OptionCodes kOptionCodes{ERROR_AVFORMAT_LINK_PARAMETER, ERROR_AVFORMAT_LINK_OPTION,
                                            ERROR_AVFORMAT_LINK_OPTION_VALUE, ERROR_AVFORMAT_LINK_OPTION_LATE};

// Describes the output's stream of one kind from `parameters`, unless an
// earlier input already did; `keep_tag` as for NewOutputStream.
bool DescribeOutputStream(AVFormatContext* output, int& output_index, const AVCodecParameters* parameters,
                          bool keep_tag) {
  if (output_index != -1) return true;
  AVStream* stream = nullptr;
  switch (quorvel::NewOutputStream(output, parameters, keep_tag, &stream)) {
    case quorvel::StreamStep::kDone: break;
    // Making the stream and copying its description are one step, with one code.
    case quorvel::StreamStep::kNewStream:
    case quorvel::StreamStep::kCopyParameters: return Fail(ERROR_AVFORMAT_LINK_CODECPAR);
  }
  output_index = stream->index;
  return true;
}

}  // namespace

void* CAVFormat_Link::AVFormat_Link_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext) {
  return quorvel::NewTask<AVPACKET_FILELINK>(fpProgress, lpCallbackContext, ERROR_AVFORMAT_LINK_MALLOC);
}

bool CAVFormat_Link::AVFormat_Link_Output(void* lpTask, const char* szFile) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  // Once inputs have described streams of this output, or the worker writes
  // to it, it can no longer be replaced.
  if (task == nullptr || task->bStarted || !task->pInputList.empty()) return Fail(ERROR_AVFORMAT_LINK_PARAMETER);

  task->bOutputReady = false;
  // No name gives no output context, as a name without a known extension does:
  // the previous output, if any, is let go the same way.
  if (szFile == nullptr) {
    task->pOutputContext.reset();
    return Fail(ERROR_AVFORMAT_LINK_OUTPUTFORMAT);
  }
  // The output is a local file: no interrupt, so that a Stop never cuts a write short.
  quorvel::BridgeBuffer no_buffer;
  quorvel::BridgeIO no_io;
  const OpenResult opened = quorvel::OpenOutput(task->pOutputContext, no_buffer, no_io, szFile, nullptr, nullptr);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;
  task->bOutputReady = true;
  return true;
}

bool CAVFormat_Link::AVFormat_Link_Input(void* lpTask, const char* szFile, double dlStartTime, double dlEndTime,
                                         int nVideoIndex, int nAudioIndex) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  // Streams are described into the output, so it must exist; and a running
  // worker walks the list, so it is complete once started.
  if (task == nullptr || szFile == nullptr || !task->bOutputReady || task->bStarted)
    return Fail(ERROR_AVFORMAT_LINK_PARAMETER);

  // Whatever this call opened is released when it fails.
  AVPACKET_LINKINFO element;
  // Files and URLs only: this family takes no read function.
  const quorvel::OpenDeadline deadline(task->stInterrupt, task->stOptions.open_timeout);
  const OpenResult opened =
      quorvel::OpenUrlInput(element.pInputContext, szFile, quorvel::InterruptOn(task->stInterrupt), &task->stOptions);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;
  AVFormatContext* input = element.pInputContext.get();
  if (avformat_find_stream_info(input, nullptr) < 0 || deadline.Expired()) return Fail(ERROR_AVFORMAT_LINK_STREAMINFO);

  // The caller's index is taken on meeting the first stream of the kind,
  // whichever stream it names; -1 lets later streams of the kind through
  // again, which then only matters for describing the output.
  element.nVideoIndex = -1;
  element.nAudioIndex = -1;
  AVFormatContext* output = task->pOutputContext.get();
  const bool keep_tag = task->stOptions.keep_codec_tag;
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    const AVCodecParameters* parameters = input->streams[i]->codecpar;
    if (parameters->codec_type == AVMEDIA_TYPE_VIDEO && element.nVideoIndex == -1) {
      element.nVideoIndex = nVideoIndex;
      if (!DescribeOutputStream(output, task->nVideoStream, parameters, keep_tag)) return false;
    } else if (parameters->codec_type == AVMEDIA_TYPE_AUDIO && element.nAudioIndex == -1) {
      element.nAudioIndex = nAudioIndex;
      if (!DescribeOutputStream(output, task->nAudioStream, parameters, keep_tag)) return false;
    }
  }
  element.dlStartTime = dlStartTime;
  element.dlEndTime = dlEndTime;
  task->pInputList.push_back(std::move(element));
  return true;
}

bool CAVFormat_Link::AVFormat_Link_SetOption(void* lpTask, const char* szName, const char* szValue) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILELINK*>(lpTask);
  if (task == nullptr) return Fail(ERROR_AVFORMAT_LINK_PARAMETER);
  // Options for the inputs come before the first Input; Start writes the header and runs.
  return quorvel::SetTaskOption(task->stOptions, quorvel::kLinkFamily, szName, szValue, kOptionCodes,
                                [task](quorvel::OptionTime time) {
                                  return task->bStarted ||
                                         (time == quorvel::OptionTime::kInputOpen && !task->pInputList.empty());
                                });
}
