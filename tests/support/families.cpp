#include "support/families.h"

#include <cstdio>
#include <thread>
#include <utility>

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
#define CALLS(F) {AVFormat_##F##_Init, AVFormat_##F##_Start, AVFormat_##F##_Suspend, AVFormat_##F##_GetStatus, AVFormat_##F##_Stop}
const Calls kCalls[] = {CALLS(Convert), CALLS(UNPack), CALLS(Packet), CALLS(Link)};
const Calls& Of(Family family) { return kCalls[static_cast<int>(family)]; }

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
      {E(LINK_PARAMETER), E(PACKET_PARAMETER), E(PACKET_STATUS), E(LINK_OPEN), E(LINK_OUTPUTFORMAT),
       E(LINK_STREAMINFO), E(LINK_CODECPAR), E(LINK_WRITEHEADER)}};
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
      case Family::kLink: ok = ok && Check(AVFormat_Link_Input(handle_, url, 0, 0, 0, 1));
    }
  }
  return ok;
}

bool AnyTask::Output(const Sink& sink) {
  const char* name = sink.name.c_str();
  const AVFORMAT_IO_FUNCTION write = sink.writer != nullptr ? MemoryWriter::Write : nullptr;
  AVCODEC_FORMATINFO record{};
  AVCODEC_FORMATINFO* records[] = {&record};
  AVCODEC_FORMATINFO** list = records;
  switch (family) {
    case Family::kConvert: return Check(AVFormat_Convert_Output(handle_, name, 0, 0, write, sink.writer));
    case Family::kPacket: return Check(AVFormat_Packet_Output(handle_, name, 0, 0, write, sink.writer));
    case Family::kLink: return Check(AVFormat_Link_Output(handle_, name));
    case Family::kUnpack: break;
  }
  std::snprintf(record.szName, sizeof record.szName, "%s", name);
  record.pWriteFunc = write;
  record.pWriteContext = sink.writer;
  return Check(AVFormat_UNPack_Output(handle_, &list, 1));
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

bool AnyTask::Start() { return Check(Of(family).start(handle_)); }
bool AnyTask::Suspend(bool pause) { return Check(Of(family).suspend(handle_, pause)); }
bool AnyTask::Status(bool* running) { return Check(Of(family).status(handle_, running)); }

bool AnyTask::Running() {
  bool running = false;
  return Status(&running) && running;
}

bool AnyTask::WaitForEnd() {
  return WaitUntil([this] { return !Running(); }, std::chrono::seconds(60));
}

bool AnyTask::Stop() {
  void* handle = std::exchange(handle_, nullptr);
  released = true;
  if (family == Family::kLink && handle != nullptr) AVFormat_Link_Suspend(handle, false);
  return Of(family).stop(handle);
}

bool AnyTask::StopFromAnotherThread(std::chrono::milliseconds after) {
  void* handle = std::exchange(handle_, nullptr);
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

std::vector<uint8_t> Bytes(const Sink& sink) { return sink.writer != nullptr ? sink.writer->data : ReadFile(sink.name); }

std::vector<ProbePacket> ProbeOutput(const Sink& sink) {
  if (sink.writer == nullptr) return ProbePackets(sink.name);
  static std::atomic<int> written{0};
  const std::string path = TempPath("written-" + std::to_string(++written) + "." + sink.name);
  WriteFile(path, sink.writer->data);
  return ProbePackets(path);
}

}  // namespace qtest
