// SPDX-License-Identifier: MIT
// The exported C interface: each function forwards its arguments unchanged to
// the method of the same name on its family's process-wide object.
#include <new>

#include "Quorvel_AVFormat.h"
#include "api/objects.h"
#include "convert/convert_task.h"
#include "core/error.h"
#include "core/report.h"
#include "link/link_task.h"
#include "packet/packet_task.h"
#include "unpack/unpack_task.h"

namespace {

// No exception crosses the C interface. The only ones the methods can raise
// are allocation failures of the standard library, reported with the
// family's allocation code.
template <typename Result, typename Method>
Result Guarded(uint64_t malloc_code, Result failed, Method&& method) noexcept {
  try {
    return method();
  } catch (...) {
    quorvel::Fail(malloc_code);
    return failed;
  }
}

// A call that reaches FFmpeg on the caller's thread holds the task's call
// gate for its length, so that a Stop from another thread waits for it
// instead of releasing what it uses (see quorvel::CallGate).
template <typename Task, typename Method>
bool Gated(uint64_t malloc_code, void* task, Method&& method) noexcept {
  if (task == nullptr) return Guarded(malloc_code, false, method);
  const quorvel::CallGate::Held call(static_cast<Task*>(task)->stCalls);
  return Guarded(malloc_code, false, method);
}

constexpr uint64_t kConvert = ERROR_AVFORMAT_CONVERT_MALLOC;
constexpr uint64_t kPacket = ERROR_AVFORMAT_PACKET_MALLOC;
constexpr uint64_t kLink = ERROR_AVFORMAT_LINK_MALLOC;
void* const kNoTask = nullptr;

}  // namespace

extern "C" {

// Conversion

QUORVEL_AVFORMAT_API void* AVFormat_Convert_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context) {
  return Guarded(kConvert, kNoTask, [&] { return m_FileConvert.AVFormat_Convert_Init(progress, context); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Output(void* task, const char* url, double start, double end,
                                                  AVFORMAT_IO_FUNCTION write, void* opaque) {
  return Gated<AVPACKET_FILE_CONVERT>(
      kConvert, task, [&] { return m_FileConvert.AVFormat_Convert_Output(task, url, start, end, write, opaque); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Input(void* task, const char* url, AVFORMAT_IO_FUNCTION read, void* opaque) {
  return Gated<AVPACKET_FILE_CONVERT>(kConvert, task,
                                      [&] { return m_FileConvert.AVFormat_Convert_Input(task, url, read, opaque); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Start(void* task) {
  return Gated<AVPACKET_FILE_CONVERT>(kConvert, task, [&] { return m_FileConvert.AVFormat_Convert_Start(task); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Suspend(void* task, bool pause) {
  return Guarded(kConvert, false, [&] { return m_FileConvert.AVFormat_Convert_Suspend(task, pause); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_GetStatus(void* task, bool* running) {
  return Guarded(kConvert, false, [&] { return m_FileConvert.AVFormat_Convert_GetStatus(task, running); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Stop(void* task) {
  return m_FileConvert.AVFormat_Convert_Stop(task);
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_Seek(void* task, long long seconds) {
  return Gated<AVPACKET_FILE_CONVERT>(kConvert, task,
                                      [&] { return m_FileConvert.AVFormat_Convert_Seek(task, seconds); });
}

// Multiplexing

QUORVEL_AVFORMAT_API void* AVFormat_Packet_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context) {
  return Guarded(kPacket, kNoTask, [&] { return m_FilePacket.AVFormat_Packet_Init(progress, context); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Output(void* task, const char* name, double start, double end,
                                                 AVFORMAT_IO_FUNCTION write, void* opaque) {
  return Gated<AVPACKET_FILE_PACKET>(
      kPacket, task, [&] { return m_FilePacket.AVFormat_Packet_Output(task, name, start, end, write, opaque); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Input(void* task, const char* url, AVFORMAT_IO_FUNCTION read, void* opaque) {
  return Gated<AVPACKET_FILE_PACKET>(kPacket, task,
                                     [&] { return m_FilePacket.AVFormat_Packet_Input(task, url, read, opaque); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Start(void* task) {
  return Gated<AVPACKET_FILE_PACKET>(kPacket, task, [&] { return m_FilePacket.AVFormat_Packet_Start(task); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_GetStatus(void* task, bool* running) {
  return Guarded(kPacket, false, [&] { return m_FilePacket.AVFormat_Packet_GetStatus(task, running); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Suspend(void* task, bool pause) {
  return Guarded(kPacket, false, [&] { return m_FilePacket.AVFormat_Packet_Suspend(task, pause); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_Stop(void* task) {
  return m_FilePacket.AVFormat_Packet_Stop(task);
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_StreamCreate(void* task, void* codec_parameters) {
  return Gated<AVPACKET_FILE_PACKET>(kPacket, task,
                                     [&] { return m_FilePacket.AVFormat_Packet_StreamCreate(task, codec_parameters); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_StreamWrite(void* task, int stream_index, const unsigned char* data, int size,
                                                      AVCODEC_TIMEBASE* time_base, AVCODEC_PACKETINFO* info) {
  return Gated<AVPACKET_FILE_PACKET>(kPacket, task, [&] {
    return m_FilePacket.AVFormat_Packet_StreamWrite(task, stream_index, data, size, time_base, info);
  });
}

// Demultiplexing

QUORVEL_AVFORMAT_API void* AVFormat_UNPack_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context) {
  return Guarded(kPacket, kNoTask, [&] { return m_FileUNPack.AVFormat_UNPack_Init(progress, context); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Input(void* task, const char* url, AVFORMAT_IO_FUNCTION read, void* opaque) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task,
                                     [&] { return m_FileUNPack.AVFormat_UNPack_Input(task, url, read, opaque); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Output(void* task, AVCODEC_FORMATINFO*** infos, int count) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task,
                                     [&] { return m_FileUNPack.AVFormat_UNPack_Output(task, infos, count); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Start(void* task) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task, [&] { return m_FileUNPack.AVFormat_UNPack_Start(task); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Read(void* task, int* stream_index, unsigned char* data, int* size,
                                               AVCODEC_PACKETINFO* info, AVCODEC_TIMEBASE* time_base) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task, [&] {
    return m_FileUNPack.AVFormat_UNPack_Read(task, stream_index, data, size, info, time_base);
  });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_ReadSized(void* task, int* stream_index, unsigned char* data, int capacity,
                                                    int* size, int* flags, AVCODEC_PACKETINFO* info,
                                                    AVCODEC_TIMEBASE* time_base) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task, [&] {
    return m_FileUNPack.AVFormat_UNPack_ReadSized(task, stream_index, data, capacity, size, flags, info, time_base);
  });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_GetStatus(void* task, bool* running) {
  return Guarded(kPacket, false, [&] { return m_FileUNPack.AVFormat_UNPack_GetStatus(task, running); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Suspend(void* task, bool pause) {
  return Guarded(kPacket, false, [&] { return m_FileUNPack.AVFormat_UNPack_Suspend(task, pause); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Seek(void* task, int stream_index, unsigned long long timestamp) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task,
                                     [&] { return m_FileUNPack.AVFormat_UNPack_Seek(task, stream_index, timestamp); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_Stop(void* task) {
  return m_FileUNPack.AVFormat_UNPack_Stop(task);
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_GetAVCodec(void* task, int stream_index, void** codec_parameters,
                                                     AVCODEC_TIMEBASE* time_base) {
  return Gated<AVPACKET_FILE_UNPACK>(kPacket, task, [&] {
    return m_FileUNPack.AVFormat_UNPack_GetAVCodec(task, stream_index, codec_parameters, time_base);
  });
}

// Concatenation

QUORVEL_AVFORMAT_API void* AVFormat_Link_Init(AVFORMAT_PROGRESS_CALLBACK progress, void* context) {
  return Guarded(kLink, kNoTask, [&] { return m_FileLink.AVFormat_Link_Init(progress, context); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_Output(void* task, const char* file) {
  return Gated<AVPACKET_FILELINK>(kLink, task, [&] { return m_FileLink.AVFormat_Link_Output(task, file); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_Input(void* task, const char* file, double start, double end, int video,
                                              int audio) {
  return Gated<AVPACKET_FILELINK>(kLink, task,
                                  [&] { return m_FileLink.AVFormat_Link_Input(task, file, start, end, video, audio); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_Start(void* task) {
  return Gated<AVPACKET_FILELINK>(kLink, task, [&] { return m_FileLink.AVFormat_Link_Start(task); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_GetStatus(void* task, bool* running) {
  return Guarded(kLink, false, [&] { return m_FileLink.AVFormat_Link_GetStatus(task, running); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_Suspend(void* task, bool pause) {
  return Guarded(kLink, false, [&] { return m_FileLink.AVFormat_Link_Suspend(task, pause); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_Stop(void* task) {
  return m_FileLink.AVFormat_Link_Stop(task);
}

// Task options

QUORVEL_AVFORMAT_API bool AVFormat_Convert_SetOption(void* task, const char* name, const char* value) {
  return Guarded(kConvert, false, [&] { return m_FileConvert.AVFormat_Convert_SetOption(task, name, value); });
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_SetOption(void* task, const char* name, const char* value) {
  return Guarded(kPacket, false, [&] { return m_FileUNPack.AVFormat_UNPack_SetOption(task, name, value); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_SetOption(void* task, const char* name, const char* value) {
  return Guarded(kPacket, false, [&] { return m_FilePacket.AVFormat_Packet_SetOption(task, name, value); });
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_SetOption(void* task, const char* name, const char* value) {
  return Guarded(kLink, false, [&] { return m_FileLink.AVFormat_Link_SetOption(task, name, value); });
}

// Task reports

QUORVEL_AVFORMAT_API bool AVFormat_Convert_GetReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::ReportOf<AVPACKET_FILE_CONVERT>(task, report, ERROR_AVFORMAT_CONVERT_PARAMETER);
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_GetReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::ReportOf<AVPACKET_FILE_UNPACK>(task, report, ERROR_AVFORMAT_PACKET_PARAMETER);
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_GetReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::ReportOf<AVPACKET_FILE_PACKET>(task, report, ERROR_AVFORMAT_PACKET_PARAMETER);
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_GetReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::ReportOf<AVPACKET_FILELINK>(task, report, ERROR_AVFORMAT_LINK_PARAMETER);
}
QUORVEL_AVFORMAT_API bool AVFormat_Convert_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::StopReporting<AVPACKET_FILE_CONVERT>(task, report, ERROR_AVFORMAT_CONVERT_PARAMETER,
                                                       AVFormat_Convert_Stop);
}
QUORVEL_AVFORMAT_API bool AVFormat_UNPack_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::StopReporting<AVPACKET_FILE_UNPACK>(task, report, ERROR_AVFORMAT_PACKET_PARAMETER,
                                                      AVFormat_UNPack_Stop);
}
QUORVEL_AVFORMAT_API bool AVFormat_Packet_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::StopReporting<AVPACKET_FILE_PACKET>(task, report, ERROR_AVFORMAT_PACKET_PARAMETER,
                                                      AVFormat_Packet_Stop);
}
QUORVEL_AVFORMAT_API bool AVFormat_Link_StopWithReport(void* task, AVFORMAT_TASK_REPORT* report) {
  return quorvel::StopReporting<AVPACKET_FILELINK>(task, report, ERROR_AVFORMAT_LINK_PARAMETER, AVFormat_Link_Stop);
}

}  // extern "C"
