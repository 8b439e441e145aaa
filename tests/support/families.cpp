// SPDX-License-Identifier: MIT
#include "support/families.h"

#include <cstdio>
#include <thread>
#include <utility>

namespace qtest {
namespace {

// The calls of each family, in the order of Family; concatenation has other
// set-up calls and demultiplexing another Output.
struct Calls {
  void* (*init)(AVFORMAT_PROGRESS_CALLBACK, void*);
  bool (*input)(void*, const char*, AVFORMAT_IO_FUNCTION, void*);
  bool (*output)(void*, const char*, double, double, AVFORMAT_IO_FUNCTION, void*);
  bool (*start)(void*);
  bool (*suspend)(void*, bool);
  bool (*status)(void*, bool*);
  bool (*stop)(void*);
  bool (*set)(void*, const char*, const char*);
  bool (*report)(void*, AVFORMAT_TASK_REPORT*);
  bool (*stop_with_report)(void*, AVFORMAT_TASK_REPORT*);
};
const Calls kCalls[] = {
    {AVFormat_Convert_Init, AVFormat_Convert_Input, AVFormat_Convert_Output, AVFormat_Convert_Start,
     AVFormat_Convert_Suspend, AVFormat_Convert_GetStatus, AVFormat_Convert_Stop, AVFormat_Convert_SetOption,
     AVFormat_Convert_GetReport, AVFormat_Convert_StopWithReport},
    {AVFormat_UNPack_Init, AVFormat_UNPack_Input, nullptr, AVFormat_UNPack_Start, AVFormat_UNPack_Suspend,
     AVFormat_UNPack_GetStatus, AVFormat_UNPack_Stop, AVFormat_UNPack_SetOption, AVFormat_UNPack_GetReport,
     AVFormat_UNPack_StopWithReport},
    {AVFormat_Packet_Init, AVFormat_Packet_Input, AVFormat_Packet_Output, AVFormat_Packet_Start,
     AVFormat_Packet_Suspend, AVFormat_Packet_GetStatus, AVFormat_Packet_Stop, AVFormat_Packet_SetOption,
     AVFormat_Packet_GetReport, AVFormat_Packet_StopWithReport},
    {AVFormat_Link_Init, nullptr, nullptr, AVFormat_Link_Start, AVFormat_Link_Suspend, AVFormat_Link_GetStatus,
     AVFormat_Link_Stop, AVFormat_Link_SetOption, AVFormat_Link_GetReport, AVFormat_Link_StopWithReport},
};
const Calls& Of(Family family) {
  return kCalls[static_cast<int>(family)];
}

}  // namespace

const char* Name(Family family) {
  static const char* const names[] = {"conversion", "demultiplexing", "multiplexing", "concatenation"};
  return names[static_cast<int>(family)];
}

const Codes& CodesOf(Family family) {
#define E(name) ERROR_AVFORMAT_##name
  static const Codes codes[] = {
      {E(CONVERT_PARAMETER), E(CONVERT_PARAMETER), E(CONVERT_STATUS), E(CONVERT_OPEN), E(CONVERT_OUTPUTFORMAT),
       E(CONVERT_STREAMINFO), E(CONVERT_CODECPAR), E(CONVERT_WRITEHEADER)},
      // The multiplexing range has no code of its own for unreadable stream information.
      {E(PACKET_PARAMETER), E(PACKET_PARAMETER), E(PACKET_STATUS), E(PACKET_OPEN), E(PACKET_OUTPUTFORMAT),
       E(PACKET_PARAMETER), E(PACKET_CODECPAR), E(PACKET_WRITEHEADER)},
      {E(LINK_PARAMETER), E(PACKET_PARAMETER), E(PACKET_STATUS), E(LINK_OPEN), E(LINK_OUTPUTFORMAT), E(LINK_STREAMINFO),
       E(LINK_CODECPAR), E(LINK_WRITEHEADER)}};
#undef E
  return codes[family == Family::kConvert ? 0 : family == Family::kLink ? 2 : 1];
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
  std::this_thread::sleep_for(self->delay_);
  if (self->on_progress) self->on_progress();
}

bool AnyTask::Check(bool ok) {
  if (!ok) code = AVFormat_GetLastError(nullptr);
  return ok;
}

bool AnyTask::Input(const std::vector<Source>& sources) {
  bool ok = !sources.empty();
  for (const Source& s : sources) {
    const char* url = s.reader != nullptr && s.url.empty() ? nullptr : s.url.c_str();
    ok = ok && (s.streams.empty() || Set("streams", s.streams.c_str())) &&
         Check(family == Family::kLink
                         ? AVFormat_Link_Input(handle_, url, s.start, s.end, s.video, s.audio)
                         : Of(family).input(handle_, url, s.reader ? MemoryReader::Read : nullptr, s.reader));
    if (family == Family::kConvert || family == Family::kUnpack) break;
  }
  return ok;
}

bool AnyTask::Output(const Sink& sink) {
  const AVFORMAT_IO_FUNCTION write = sink.writer != nullptr ? MemoryWriter::Write : nullptr;
  if (family == Family::kLink) return Check(AVFormat_Link_Output(handle_, sink.name.c_str()));
  if (family == Family::kUnpack) return Outputs({sink});
  return Check(Of(family).output(handle_, sink.name.c_str(), sink.start, sink.end, write, sink.writer));
}

bool AnyTask::Outputs(const std::vector<Sink>& sinks) {
  std::vector<AVCODEC_FORMATINFO> records(sinks.size());
  std::vector<AVCODEC_FORMATINFO*> pointers;
  for (size_t i = 0; i < sinks.size(); ++i) {
    const Sink& s = sinks[i];
    records[i] = {{}, s.start, s.end, s.stream, 0, s.writer ? MemoryWriter::Write : nullptr, s.writer};
    std::snprintf(records[i].szName, sizeof records[i].szName, "%s", s.name.c_str());
    pointers.push_back(&records[i]);
  }
  AVCODEC_FORMATINFO** list = pointers.data();
  return Check(AVFormat_UNPack_Output(handle_, &list, static_cast<int>(sinks.size())));
}

bool AnyTask::Reach(Stage stage, const std::vector<Source>& sources, const Sink& sink) {
  if (stage == Stage::kNull) return Stop();
  const char* const missing = "/nonexistent/missing.mkv";
  const auto call = [&](bool first, bool fail) {
    if (first == (family == Family::kUnpack)) return Input(fail ? std::vector<Source>{{missing}} : sources);
    return Output(fail ? Sink{missing} : sink);
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

bool AnyTask::Set(const char* name, const char* value) {
  return Check(Of(family).set(handle_, name, value));
}
bool AnyTask::Report(AVFORMAT_TASK_REPORT* report) {
  return Check(Of(family).report(handle_, report));
}

bool AnyTask::Start() {
  return Check(Of(family).start(handle_));
}
bool AnyTask::Suspend(bool pause) {
  return Check(Of(family).suspend(handle_, pause));
}
bool AnyTask::Status(bool* running) {
  return Check(Of(family).status(handle_, running));
}

bool AnyTask::Running() {
  bool running = false;
  return Status(&running) && running;
}

bool AnyTask::WaitForEnd() {
  return WaitUntil([this] { return !Running(); }, std::chrono::seconds(60));
}

bool AnyTask::Stop(AVFORMAT_TASK_REPORT* report) {
  void* handle = std::exchange(handle_, nullptr);
  released = true;
  if (family == Family::kLink && handle != nullptr) AVFormat_Link_Suspend(handle, false);
  return report != nullptr ? Of(family).stop_with_report(handle, report) : Of(family).stop(handle);
}

bool AnyTask::StopFromAnotherThread(std::chrono::milliseconds after) {
  void* handle = std::exchange(handle_, nullptr);
  std::atomic<bool> returned{false};
  std::thread stopper([&] { returned = Of(family).stop(handle); });
  std::this_thread::sleep_for(after);
  const bool early = returned;
  // A paused concatenation's Stop waits for a resume, which keeps the handle
  // alive until then; a Stop that has returned has freed it.
  if (family == Family::kLink && !early) AVFormat_Link_Suspend(handle, false);
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
