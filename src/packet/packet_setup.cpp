// SPDX-License-Identifier: MIT
// Multiplexing set-up: Init, Output, Input.
#include <new>
#include <string>
#include <utility>

#include "core/error.h"
#include "core/remux.h"
#include "core/task.h"
#include "packet/packet.h"
#include "packet/packet_task.h"

using quorvel::Fail;
using quorvel::OpenResult;

namespace {

constexpr quorvel::OpenCodes kOpenCodes{ERROR_AVFORMAT_PACKET_MALLOC, ERROR_AVFORMAT_PACKET_OPEN,
                                        ERROR_AVFORMAT_PACKET_OUTPUTFORMAT, ERROR_AVFORMAT_PACKET_OPTION_UNUSED,
                                        ERROR_AVFORMAT_PACKET_POLICY};
constexpr quorvel::OptionCodes kOptionCodes{ERROR_AVFORMAT_PACKET_PARAMETER, ERROR_AVFORMAT_PACKET_OPTION,
                                            ERROR_AVFORMAT_PACKET_OPTION_VALUE, ERROR_AVFORMAT_PACKET_OPTION_LATE};

// Video and audio are carried over, but not still pictures such as cover art.
bool IsCarried(const AVCodecParameters* parameters) {
  if (parameters->codec_type == AVMEDIA_TYPE_AUDIO) return true;
  return parameters->codec_type == AVMEDIA_TYPE_VIDEO && parameters->codec_id != AV_CODEC_ID_MJPEG &&
         parameters->codec_id != AV_CODEC_ID_JPEG2000;
}

// all_streams, streams: each stream that the specifier `chosen` matches (or,
// without one, each carried stream) into an output stream of its own. No
// stream taken, or a specifier FFmpeg can't read, is refused before any
// stream is made. `keep_tag` as for NewOutputStream.
bool RouteEachStream(AVFormatContext* output, AVPACKET_FILE_AVINFO& element, const std::string& chosen,
                     bool keep_tag) {
  AVFormatContext* input = element.pInputContext.get();
  element.vRoutes.assign(input->nb_streams, -1);
  element.vStreamCounts.assign(input->nb_streams, 0);
  bool any = false;
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    AVStream* stream = input->streams[i];
    const int match =
        chosen.empty() ? IsCarried(stream->codecpar) : avformat_match_stream_specifier(input, stream, chosen.c_str());
    if (match < 0) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
    element.vRoutes[i] = match > 0 ? 0 : -1;
    any = any || match > 0;
  }
  if (!any) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    if (element.vRoutes[i] < 0) continue;
    AVStream* made = nullptr;
    if (quorvel::NewOutputStream(output, input->streams[i]->codecpar, keep_tag, &made) != quorvel::StreamStep::kDone)
      return Fail(ERROR_AVFORMAT_PACKET_CODECPAR);  // streams already made stay in the output
    element.vRoutes[i] = made->index;
  }
  return true;
}

}  // namespace

void* CAVFormat_Packet::AVFormat_Packet_Init(AVFORMAT_PROGRESS_CALLBACK fpProgress, void* lpCallbackContext) {
  return quorvel::NewTask<AVPACKET_FILE_PACKET>(fpProgress, lpCallbackContext, ERROR_AVFORMAT_PACKET_MALLOC);
}

bool CAVFormat_Packet::AVFormat_Packet_Output(void* lpTask, const char* szName, double dlStartTime, double dlEndTime,
                                              AVFORMAT_IO_FUNCTION fpWrite, void* lpWriteContext) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  // Once a header has been tried, the output is the muxer's; once streams are
  // in it, inputs hold their indices: either way it is not replaced.
  if (task == nullptr || szName == nullptr || task->HeaderTried() || task->HasStreams())
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  task->bOutputReady = false;
  const OpenResult opened =
      quorvel::OpenOutput(task->pOutputContext, task->pOutputBuffer, task->pOutputIO, szName, fpWrite, lpWriteContext);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;
  // Neither value nor order is checked: 0 or less switches either bound off.
  task->dlStartTime = dlStartTime;
  task->dlEndTime = dlEndTime;
  task->bOutputReady = true;
  return true;
}

bool CAVFormat_Packet::AVFormat_Packet_Input(void* lpTask, const char* szUrl, AVFORMAT_IO_FUNCTION fpRead,
                                             void* lpReadContext) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  // The output streams are made here, so the output must exist and its header
  // must not be written yet; and there must be something to open.
  if (task == nullptr || !task->bOutputReady || task->HeaderTried() || (szUrl == nullptr && fpRead == nullptr))
    return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  // The stream choice is for this Input only, whatever becomes of it.
  const std::string chosen = std::exchange(task->stOptions.streams, std::string());
  // Built here and appended only on success; on failure its holders release
  // whatever was opened.
  AVPACKET_FILE_AVINFO element;
  const quorvel::OpenDeadline deadline(task->stInterrupt, task->stOptions.open_timeout);
  const OpenResult opened = quorvel::OpenInput(element.pInputContext, element.pInputBuffer, element.pInputIO, szUrl,
                                               fpRead, lpReadContext, quorvel::UrlBesideRead::kOpenedFirst,
                                               quorvel::InterruptOn(task->stInterrupt), &task->stOptions);
  if (!quorvel::FailOpen(opened, kOpenCodes)) return false;

  AVFormatContext* input = element.pInputContext.get();
  // This family has no code of its own for it.
  if (avformat_find_stream_info(input, nullptr) < 0 || deadline.Expired()) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  if (!chosen.empty() || task->stOptions.all_streams) {
    if (!RouteEachStream(task->pOutputContext.get(), element, chosen, task->stOptions.keep_codec_tag)) return false;
    task->pInputList.push_back(std::move(element));
    return true;
  }

  // An input with nothing to carry would feed its packets to a stream that
  // is not its own: refused before any stream is made.
  bool usable = false;
  for (unsigned i = 0; i < input->nb_streams; ++i) usable = usable || IsCarried(input->streams[i]->codecpar);
  if (!usable) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);

  AVFormatContext* output = task->pOutputContext.get();
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    const AVStream* source = input->streams[i];
    const AVCodecParameters* parameters = source->codecpar;
    if (!IsCarried(parameters)) continue;

    AVStream* stream = nullptr;
    if (quorvel::NewOutputStream(output, parameters, task->stOptions.keep_codec_tag, &stream) !=
        quorvel::StreamStep::kDone)
      return Fail(ERROR_AVFORMAT_PACKET_CODECPAR);  // streams already made stay in the output
    // Recorded from the stream mapped before this one (stream 0 at first), as
    // the record has always done; nothing reads these fields.
    const AVRational previous = input->streams[element.nInputStream]->time_base;
    if (parameters->codec_type == AVMEDIA_TYPE_VIDEO) {
      task->bHasVideo = true;
      task->stVideoTimeBase = previous;
    } else {
      task->bHasAudio = true;
      element.stTimeBase = previous;
    }
    // Each mapping replaces the previous one: the last mapped stream carries the input.
    element.nInputStream = static_cast<int>(i);
    element.nOutputStream = stream->index;
    element.nMediaType = parameters->codec_type;
  }
  task->pInputList.push_back(std::move(element));
  return true;
}

bool CAVFormat_Packet::AVFormat_Packet_SetOption(void* lpTask, const char* szName, const char* szValue) {
  quorvel::ClearError();
  auto* task = static_cast<AVPACKET_FILE_PACKET*>(lpTask);
  if (task == nullptr) return Fail(ERROR_AVFORMAT_PACKET_PARAMETER);
  // Options for the inputs come before the first Input; the header is
  // written by Start or the first StreamWrite.
  return quorvel::SetTaskOption(task->stOptions, quorvel::kMuxFamily, szName, szValue, kOptionCodes,
                                [task](quorvel::OptionTime time) {
                                  return task->HeaderTried() ||
                                         (time == quorvel::OptionTime::kInputOpen && !task->pInputList.empty());
                                });
}
