#include "errors.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Quorvel_AVFormat.h"

namespace qtool {
namespace {

constexpr const char* kOurBug =
    "The tool drove the library in a way it refuses; this is a bug in quorvel-avformat, please report it with the "
    "command line you used.";
constexpr const char* kMemory = "Check that the machine has free memory, or try with a smaller input.";
constexpr const char* kThreads = "Check the limits on threads and processes (ulimit -u) and the free memory.";
constexpr const char* kOpen =
    "For an input, check that the path exists, is readable and holds a complete media container; for an output, "
    "check that its folder exists and can be written to.";
constexpr const char* kFormat =
    "Check the output's file extension (.mkv, .mp4, .ts, .flv, ...) or the name given to --format; `ffmpeg "
    "-muxers` lists the container names.";
constexpr const char* kHeader =
    "Check that the container can hold these codecs (MPEG-4 video does not go into WebM, for instance), that "
    "the input has a video, audio or subtitle stream, and, when writing to a pipe, that the format can be "
    "streamed: mp4 can't, matroska, mpegts, nut and flv can.";
constexpr const char* kStreamInfo =
    "Check that the input is a complete, undamaged media file; input read from a pipe must start at the "
    "beginning of its container.";

struct Entry {
  uint64_t code;
  ErrorText text;
};

const Entry kEntries[] = {
    {ERROR_AVFORMAT_CONVERT_MALLOC, {"ERROR_AVFORMAT_CONVERT_MALLOC", "The library ran out of memory.", kMemory}},
    {ERROR_AVFORMAT_CONVERT_PARAMETER,
     {"ERROR_AVFORMAT_CONVERT_PARAMETER", "A conversion call was refused as out of order.", kOurBug}},
    {ERROR_AVFORMAT_CONVERT_OPEN,
     {"ERROR_AVFORMAT_CONVERT_OPEN", "An input could not be opened, or the output file could not be created.", kOpen}},
    {ERROR_AVFORMAT_CONVERT_STREAMINFO,
     {"ERROR_AVFORMAT_CONVERT_STREAMINFO", "The input was opened, but its streams could not be analysed.",
      kStreamInfo}},
    {ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT,
     {"ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT", "No output container goes by that name.", kFormat}},
    {ERROR_AVFORMAT_CONVERT_NEWSTREAM,
     {"ERROR_AVFORMAT_CONVERT_NEWSTREAM", "An output stream could not be created.", kMemory}},
    {ERROR_AVFORMAT_CONVERT_CODECPAR,
     {"ERROR_AVFORMAT_CONVERT_CODECPAR", "A stream's codec parameters could not be copied to the output.", kMemory}},
    {ERROR_AVFORMAT_CONVERT_WRITEHEADER,
     {"ERROR_AVFORMAT_CONVERT_WRITEHEADER", "The output container refused its header.", kHeader}},
    {ERROR_AVFORMAT_CONVERT_THREAD,
     {"ERROR_AVFORMAT_CONVERT_THREAD", "The worker thread could not be started.", kThreads}},
    {ERROR_AVFORMAT_CONVERT_STATUS, {"ERROR_AVFORMAT_CONVERT_STATUS", "A status query was refused.", kOurBug}},
    {ERROR_AVFORMAT_CONVERT_SEEK,
     {"ERROR_AVFORMAT_CONVERT_SEEK", "The input could not move to that position.",
      "Check that the position lies within the input and that the input can seek (a pipe can't)."}},
    {ERROR_AVFORMAT_PACKET_MALLOC, {"ERROR_AVFORMAT_PACKET_MALLOC", "The library ran out of memory.", kMemory}},
    {ERROR_AVFORMAT_PACKET_PARAMETER,
     {"ERROR_AVFORMAT_PACKET_PARAMETER",
      "A call was refused: when opening an input, its streams could not be analysed; otherwise an argument was "
      "missing, a stream number out of range or a call out of order.",
      "Check that the input is a complete media file and that the stream numbers you gave exist "
      "(`quorvel-avformat streams IN` lists them)."}},
    {ERROR_AVFORMAT_PACKET_READ,
     {"ERROR_AVFORMAT_PACKET_READ", "No further packet could be read: the input ended or could not be read.",
      "Check that the input is complete and readable."}},
    {ERROR_AVFORMAT_PACKET_OPEN,
     {"ERROR_AVFORMAT_PACKET_OPEN", "An input could not be opened, or an output file could not be created.", kOpen}},
    {ERROR_AVFORMAT_PACKET_OUTPUTFORMAT,
     {"ERROR_AVFORMAT_PACKET_OUTPUTFORMAT", "No output container goes by that name.", kFormat}},
    {ERROR_AVFORMAT_PACKET_CODECPAR,
     {"ERROR_AVFORMAT_PACKET_CODECPAR", "A stream's codec parameters could not be copied to the output.", kMemory}},
    {ERROR_AVFORMAT_PACKET_WRITEHEADER,
     {"ERROR_AVFORMAT_PACKET_WRITEHEADER", "An output container refused its header.", kHeader}},
    {ERROR_AVFORMAT_PACKET_THREAD,
     {"ERROR_AVFORMAT_PACKET_THREAD",
      "The worker thread could not be started, or a call was refused because the worker runs.", kThreads}},
    {ERROR_AVFORMAT_PACKET_STATUS, {"ERROR_AVFORMAT_PACKET_STATUS", "A status query was refused.", kOurBug}},
    {ERROR_AVFORMAT_PACKET_SEEK,
     {"ERROR_AVFORMAT_PACKET_SEEK", "The input could not seek, or it has no stream of that number.",
      "Check the stream number (`quorvel-avformat streams IN` lists them) and that the input can seek."}},
    {ERROR_AVFORMAT_PACKET_WRITEFRAME,
     {"ERROR_AVFORMAT_PACKET_WRITEFRAME", "The output container refused a packet.",
      "Check that the packets' times increase within each stream and that the container accepts the codec."}},
    {ERROR_AVFORMAT_PACKET_BUFFERSIZE,
     {"ERROR_AVFORMAT_PACKET_BUFFERSIZE", "A packet was larger than the buffer given to read it; it was kept.",
      "Read again with a buffer of at least the size reported; this tool grows its buffer by itself."}},
    {ERROR_AVFORMAT_LINK_MALLOC, {"ERROR_AVFORMAT_LINK_MALLOC", "The library ran out of memory.", kMemory}},
    {ERROR_AVFORMAT_LINK_PARAMETER,
     {"ERROR_AVFORMAT_LINK_PARAMETER", "A concatenation call was refused as out of order.", kOurBug}},
    {ERROR_AVFORMAT_LINK_OPEN,
     {"ERROR_AVFORMAT_LINK_OPEN", "An input could not be opened, or the output file could not be created.", kOpen}},
    {ERROR_AVFORMAT_LINK_STREAMINFO,
     {"ERROR_AVFORMAT_LINK_STREAMINFO", "An input was opened, but its streams could not be analysed.", kStreamInfo}},
    {ERROR_AVFORMAT_LINK_OUTPUTFORMAT,
     {"ERROR_AVFORMAT_LINK_OUTPUTFORMAT", "No output container matches the output file's name.", kFormat}},
    {ERROR_AVFORMAT_LINK_CODECPAR,
     {"ERROR_AVFORMAT_LINK_CODECPAR", "A stream's codec parameters could not be copied to the output.", kMemory}},
    {ERROR_AVFORMAT_LINK_WRITEHEADER,
     {"ERROR_AVFORMAT_LINK_WRITEHEADER", "The output container refused its header.",
      "Check that the output container can hold the codecs of the first input that has each kind of stream."}},
    {ERROR_AVFORMAT_LINK_THREAD, {"ERROR_AVFORMAT_LINK_THREAD", "The worker thread could not be started.", kThreads}},
};

std::string Folder(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

std::string SystemReason(const std::string& path, Role role) {
  if (path.empty() || path == "-" || path.find("://") != std::string::npos) return "";
  if (role == Role::kInput && access(path.c_str(), R_OK) != 0) return std::strerror(errno);
  if (role == Role::kOutput) {
    if (access(path.c_str(), F_OK) == 0) return access(path.c_str(), W_OK) != 0 ? std::strerror(errno) : "";
    const std::string folder = Folder(path);
    if (access(folder.c_str(), W_OK) != 0) return fmt::format("folder \"{}\": {}", folder, std::strerror(errno));
  }
  return "";
}

ErrorText DescribeError(uint64_t code) {
  for (const Entry& entry : kEntries) {
    if (entry.code == code) return entry.text;
  }
  return {nullptr, "The library reported an error code this tool does not know.",
          "Check that the tool and the library come from the same version."};
}

void Throw(uint64_t code, const std::string& doing, const std::string& path, Role role) {
  throw LibraryFailure{code, doing, SystemReason(path, role)};
}

void Check(bool ok, const std::string& doing, const std::string& path, Role role) {
  if (!ok) Throw(AVFormat_GetLastError(nullptr), doing, path, role);
}

void Report(const std::string& command, const LibraryFailure& failure) {
  const ErrorText text = DescribeError(failure.code);
  const std::string name = text.name != nullptr ? text.name : "unknown error";
  fmt::print(stderr, "quorvel-avformat {}: failed while {}{}\n", command, failure.doing,
             failure.detail.empty() ? "" : ": " + failure.detail);
  fmt::print(stderr, "  {} (0x{:X}): {}\n  {}\n", name, failure.code, text.what, text.check);
}

}  // namespace qtool
