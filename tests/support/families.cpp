#include "support/families.h"

#include <algorithm>
#include <cstdio>
#include <thread>

namespace qtest {
namespace {

// The calls every family has, in the order of Family.
struct Calls {
  void* (*init)(AVFORMAT_PROGRESS_CALLBACK, void*);
  bool (*start)(void*);
  bool (*suspend)(void*, bool);
  bool (*status)(void*, bool*);
  bool (*stop)(void*);
};
const Calls kCalls[] = {
    {AVFormat_Convert_Init, AVFormat_Convert_Start, AVFormat_Convert_Suspend, AVFormat_Convert_GetStatus,
     AVFormat_Convert_Stop},
    {AVFormat_UNPack_Init, AVFormat_UNPack_Start, AVFormat_UNPack_Suspend, AVFormat_UNPack_GetStatus,
     AVFormat_UNPack_Stop},
    {AVFormat_Packet_Init, AVFormat_Packet_Start, AVFormat_Packet_Suspend, AVFormat_Packet_GetStatus,
     AVFormat_Packet_Stop},
    {AVFormat_Link_Init, AVFormat_Link_Start, AVFormat_Link_Suspend, AVFormat_Link_GetStatus, AVFormat_Link_Stop},
};
const Calls& Of(Family family) { return kCalls[static_cast<int>(family)]; }

const char* const kMissing = "/nonexistent/missing.mkv";

}  // namespace

const char* Name(Family family) {
  static const char* const names[] = {"conversion", "demultiplexing", "multiplexing", "concatenation"};
  return names[static_cast<int>(family)];
}

const Codes& CodesOf(Family family) {
  static const Codes convert{ERROR_AVFORMAT_CONVERT_PARAMETER,   ERROR_AVFORMAT_CONVERT_PARAMETER,
                             ERROR_AVFORMAT_CONVERT_STATUS,      ERROR_AVFORMAT_CONVERT_OPEN,
                             ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT, ERROR_AVFORMAT_CONVERT_STREAMINFO,
                             ERROR_AVFORMAT_CONVERT_CODECPAR,    ERROR_AVFORMAT_CONVERT_WRITEHEADER};
  // The multiplexing range has no code of its own for unreadable stream information.
  static const Codes packet{ERROR_AVFORMAT_PACKET_PARAMETER,    ERROR_AVFORMAT_PACKET_PARAMETER,
                            ERROR_AVFORMAT_PACKET_STATUS,       ERROR_AVFORMAT_PACKET_OPEN,
                            ERROR_AVFORMAT_PACKET_OUTPUTFORMAT, ERROR_AVFORMAT_PACKET_PARAMETER,
                            ERROR_AVFORMAT_PACKET_CODECPAR,     ERROR_AVFORMAT_PACKET_WRITEHEADER};
  static const Codes link{ERROR_AVFORMAT_LINK_PARAMETER,    ERROR_AVFORMAT_PACKET_PARAMETER,
                          ERROR_AVFORMAT_PACKET_STATUS,     ERROR_AVFORMAT_LINK_OPEN,
                          ERROR_AVFORMAT_LINK_OUTPUTFORMAT, ERROR_AVFORMAT_LINK_STREAMINFO,
                          ERROR_AVFORMAT_LINK_CODECPAR,     ERROR_AVFORMAT_LINK_WRITEHEADER};
  const Codes* codes[] = {&convert, &packet, &packet, &link};
  return *codes[static_cast<int>(family)];
}

AnyTask::AnyTask(Family which, std::chrono::microseconds delay)
    : family(which), delay_(delay), handle_(Of(which).init(Progress, this)) {}

void AnyTask::Progress(void* reserved, int type, long long number, double seconds, void* context) {
  auto* self = static_cast<AnyTask*>(context);
  ProgressLog::Record(reserved, type, number, seconds, &self->log);
  if (self->armed_ && static_cast<long long>(self->log.Count()) == self->hold_at + 1) {
    self->held = true;
    while (!self->released) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (self->delay_.count() > 0) std::this_thread::sleep_for(self->delay_);
}

bool AnyTask::Check(bool ok) {
  if (!ok) code = AVFormat_GetLastError(nullptr);
  return ok;
}

bool AnyTask::Input(const std::vector<Source>& sources) {
  bool ok = !sources.empty();
  for (const Source& s : sources) {
    const char* url = s.reader != nullptr && s.url.empty() ? nullptr : s.url.c_str();
    const AVFORMAT_IO_FUNCTION read = s.reader != nullptr ? MemoryReader::Read : nullptr;
    switch (family) {
      case Family::kConvert: return Check(AVFormat_Convert_Input(handle_, url, read, s.reader));
      case Family::kUnpack: return Check(AVFormat_UNPack_Input(handle_, url, read, s.reader));
      case Family::kPacket: ok = ok && Check(AVFormat_Packet_Input(handle_, url, read, s.reader)); break;
      case Family::kLink: ok = ok && Check(AVFormat_Link_Input(handle_, url, s.start, s.end, s.video, s.audio));
    }
  }
  return ok;
}

bool AnyTask::Output(const std::vector<Sink>& sinks) {
  if (sinks.empty()) return false;
  const Sink& s = sinks.front();
  const AVFORMAT_IO_FUNCTION write = s.writer != nullptr ? MemoryWriter::Write : nullptr;
  switch (family) {
    case Family::kConvert: return Check(AVFormat_Convert_Output(handle_, s.name.c_str(), s.start, s.end, write, s.writer));
    case Family::kPacket: return Check(AVFormat_Packet_Output(handle_, s.name.c_str(), s.start, s.end, write, s.writer));
    case Family::kLink: return Check(AVFormat_Link_Output(handle_, s.name.c_str()));
    case Family::kUnpack: break;
  }
  std::vector<AVCODEC_FORMATINFO> records(sinks.size());
  std::vector<AVCODEC_FORMATINFO*> pointers;
  for (size_t i = 0; i < sinks.size(); ++i) {
    const Sink& sink = sinks[i];
    std::snprintf(records[i].szName, sizeof records[i].szName, "%s", sink.name.c_str());
    records[i].dlStartTime = sink.start;
    records[i].dlEndTime = sink.end;
    records[i].nStreamIndex = sink.stream;
    records[i].pWriteFunc = sink.writer != nullptr ? MemoryWriter::Write : nullptr;
    records[i].pWriteContext = sink.writer;
    pointers.push_back(&records[i]);
  }
  AVCODEC_FORMATINFO** list = pointers.data();
  return Check(AVFormat_UNPack_Output(handle_, &list, static_cast<int>(sinks.size())));
}

bool AnyTask::Reach(Stage stage, const std::vector<Source>& sources, const std::vector<Sink>& sinks) {
  if (stage == Stage::kNull) return Stop();
  const bool input_first = family == Family::kUnpack;
  const auto call = [&](bool first, bool fail) {
    if (first == input_first) return Input(fail ? std::vector<Source>{{kMissing}} : sources);
    return Output(fail ? std::vector<Sink>{{kMissing}} : sinks);
  };
  if (stage == Stage::kInit) return handle_ != nullptr;
  if (stage == Stage::kFirstFailed) return !call(true, true);
  if (!call(true, false)) return false;
  if (stage == Stage::kFirst) return true;
  if (stage == Stage::kSecondFailed) return !call(false, true);
  if (!call(false, false)) return false;
  if (stage == Stage::kSetUp) return true;
  armed_ = stage == Stage::kHeld || stage == Stage::kPaused;
  if (!Start()) return false;
  if (stage == Stage::kEnded) return WaitForEnd();
  if (!WaitUntil([this] { return held.load(); })) return false;
  if (stage == Stage::kHeld) return true;
  const bool paused = Suspend(true);
  released = true;
  return paused;
}

bool AnyTask::Start() { return Check(Of(family).start(handle_)); }
bool AnyTask::Suspend(bool pause) { return Check(Of(family).suspend(handle_, pause)); }
bool AnyTask::Status(bool* running) { return Check(Of(family).status(handle_, running)); }

bool AnyTask::Running() {
  bool running = false;
  return Status(&running) && running;
}

bool AnyTask::WaitForEnd(std::chrono::milliseconds timeout) {
  return WaitUntil([this] { return !Running(); }, timeout);
}

bool AnyTask::Stop() {
  void* handle = handle_;
  handle_ = nullptr;
  released = true;
  if (family == Family::kLink && handle != nullptr) AVFormat_Link_Suspend(handle, false);
  return Of(family).stop(handle);
}

bool AnyTask::StopFromAnotherThread(std::chrono::milliseconds after) {
  void* handle = handle_;
  handle_ = nullptr;
  std::atomic<bool> returned{false};
  std::thread stopper([&] { returned = Of(family).stop(handle); });
  std::this_thread::sleep_for(after);
  const bool early = returned;
  // Resumed before the held call is let go: until then the worker keeps Stop, and the handle, alive.
  if (family == Family::kLink) AVFormat_Link_Suspend(handle, false);
  released = true;
  stopper.join();
  return early;
}

std::vector<uint8_t> Bytes(const Sink& sink) {
  return sink.writer != nullptr ? sink.writer->data : ReadFile(sink.name);
}

std::vector<ProbePacket> ProbeOutput(const Sink& sink) {
  if (sink.writer == nullptr) return ProbePackets(sink.name);
  static std::atomic<int> written{0};
  const std::string path = TempPath("written-" + std::to_string(++written) + "." + sink.name);
  WriteFile(path, sink.writer->data);
  return ProbePackets(path);
}

}  // namespace qtest
