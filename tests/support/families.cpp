#include "support/families.h"

#include <atomic>
#include <cstdio>
#include <thread>

#include "support/fixtures.h"

namespace qtest {

const char* Name(Family family) {
  switch (family) {
    case Family::kConvert: return "conversion";
    case Family::kUnpack: return "demultiplexing";
    case Family::kPacket: return "multiplexing";
    case Family::kLink: return "concatenation";
  }
  return "?";
}

AnyTask::AnyTask(Family which, ProgressLog& log, std::chrono::microseconds delay)
    : family(which), log_(log), delay_(delay) {
  switch (family) {
    case Family::kConvert: handle_ = AVFormat_Convert_Init(Progress, this); break;
    case Family::kUnpack: handle_ = AVFormat_UNPack_Init(Progress, this); break;
    case Family::kPacket: handle_ = AVFormat_Packet_Init(Progress, this); break;
    case Family::kLink: handle_ = AVFormat_Link_Init(Progress, this); break;
  }
}

void AnyTask::Progress(void* reserved, int type, long long number, double seconds, void* context) {
  auto* self = static_cast<AnyTask*>(context);
  ProgressLog::Record(reserved, type, number, seconds, &self->log_);
  if (self->delay_.count() > 0) std::this_thread::sleep_for(self->delay_);
}

bool AnyTask::Check(bool ok) {
  if (!ok) code = AVFormat_GetLastError(nullptr);
  return ok;
}

bool AnyTask::SetUp(const Source& source, const Sink& sink) {
  const char* url = source.reader != nullptr ? nullptr : source.url.c_str();
  const AVFORMAT_IO_FUNCTION read = source.reader != nullptr ? MemoryReader::Read : nullptr;
  const AVFORMAT_IO_FUNCTION write = sink.writer != nullptr ? MemoryWriter::Write : nullptr;
  switch (family) {
    case Family::kConvert:
      return Check(AVFormat_Convert_Output(handle_, sink.name.c_str(), 0, 0, write, sink.writer)) &&
             Check(AVFormat_Convert_Input(handle_, url, read, source.reader));
    case Family::kPacket:
      return Check(AVFormat_Packet_Output(handle_, sink.name.c_str(), 0, 0, write, sink.writer)) &&
             Check(AVFormat_Packet_Input(handle_, url, read, source.reader));
    case Family::kLink:
      return Check(AVFormat_Link_Output(handle_, sink.name.c_str())) &&
             Check(AVFormat_Link_Input(handle_, url, 0, 0, 0, 1));
    case Family::kUnpack: {
      if (!Check(AVFormat_UNPack_Input(handle_, url, read, source.reader))) return false;
      AVCODEC_FORMATINFO record{};
      std::snprintf(record.szName, sizeof record.szName, "%s", sink.name.c_str());
      record.pWriteFunc = write;
      record.pWriteContext = sink.writer;
      AVCODEC_FORMATINFO* records[] = {&record};
      AVCODEC_FORMATINFO** list = records;
      return Check(AVFormat_UNPack_Output(handle_, &list, 1));
    }
  }
  return false;
}

bool AnyTask::Start() {
  switch (family) {
    case Family::kConvert: return Check(AVFormat_Convert_Start(handle_));
    case Family::kUnpack: return Check(AVFormat_UNPack_Start(handle_));
    case Family::kPacket: return Check(AVFormat_Packet_Start(handle_));
    case Family::kLink: return Check(AVFormat_Link_Start(handle_));
  }
  return false;
}

bool AnyTask::Suspend(bool pause) {
  switch (family) {
    case Family::kConvert: return Check(AVFormat_Convert_Suspend(handle_, pause));
    case Family::kUnpack: return Check(AVFormat_UNPack_Suspend(handle_, pause));
    case Family::kPacket: return Check(AVFormat_Packet_Suspend(handle_, pause));
    case Family::kLink: return Check(AVFormat_Link_Suspend(handle_, pause));
  }
  return false;
}

bool AnyTask::Running() {
  bool running = false;
  bool ok = false;
  switch (family) {
    case Family::kConvert: ok = AVFormat_Convert_GetStatus(handle_, &running); break;
    case Family::kUnpack: ok = AVFormat_UNPack_GetStatus(handle_, &running); break;
    case Family::kPacket: ok = AVFormat_Packet_GetStatus(handle_, &running); break;
    case Family::kLink: ok = AVFormat_Link_GetStatus(handle_, &running); break;
  }
  return Check(ok) && running;
}

bool AnyTask::WaitForEnd(std::chrono::milliseconds timeout) {
  return WaitUntil([this] { return !Running(); }, timeout);
}

bool AnyTask::Stop() {
  void* handle = handle_;
  handle_ = nullptr;
  if (handle == nullptr) return true;
  switch (family) {
    case Family::kConvert: return AVFormat_Convert_Stop(handle);
    case Family::kUnpack: return AVFormat_UNPack_Stop(handle);
    case Family::kPacket: return AVFormat_Packet_Stop(handle);
    case Family::kLink: AVFormat_Link_Suspend(handle, false); return AVFormat_Link_Stop(handle);
  }
  return false;
}

std::vector<ProbePacket> ProbeOutput(const Sink& sink) {
  if (sink.writer == nullptr) return ProbePackets(sink.name);
  static std::atomic<int> written{0};
  const std::string path = TempPath("written-" + std::to_string(++written) + "." + sink.name);
  WriteFile(path, sink.writer->data);
  return ProbePackets(path);
}

}  // namespace qtest
