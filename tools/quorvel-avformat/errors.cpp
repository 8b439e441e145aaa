// SPDX-License-Identifier: MIT
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

// What to check, for each code that the user can do something about; the name
// and what went wrong come from the library, and any other code is the tool's bug.
struct Hint {
  uint64_t code;
  const char* check;
};

const Hint kHints[] = {
    {ERROR_AVFORMAT_CONVERT_MALLOC, kMemory},
    {ERROR_AVFORMAT_CONVERT_OPEN, kOpen},
    {ERROR_AVFORMAT_CONVERT_STREAMINFO, kStreamInfo},
    {ERROR_AVFORMAT_CONVERT_OUTPUTFORMAT, kFormat},
    {ERROR_AVFORMAT_CONVERT_NEWSTREAM, kMemory},
    {ERROR_AVFORMAT_CONVERT_CODECPAR, kMemory},
    {ERROR_AVFORMAT_CONVERT_WRITEHEADER, kHeader},
    {ERROR_AVFORMAT_CONVERT_THREAD, kThreads},
    {ERROR_AVFORMAT_CONVERT_SEEK,
     "Check that the position lies within the input and that the input can seek (a "
     "pipe can't)."},
    {ERROR_AVFORMAT_PACKET_MALLOC, kMemory},
    {ERROR_AVFORMAT_PACKET_PARAMETER,
     "Check that the input is a complete media file and that the stream numbers "
     "you gave exist (`quorvel-avformat streams IN` lists them)."},
    {ERROR_AVFORMAT_PACKET_READ, "Check that the input is complete and readable."},
    {ERROR_AVFORMAT_PACKET_OPEN, kOpen},
    {ERROR_AVFORMAT_PACKET_OUTPUTFORMAT, kFormat},
    {ERROR_AVFORMAT_PACKET_CODECPAR, kMemory},
    {ERROR_AVFORMAT_PACKET_WRITEHEADER, kHeader},
    {ERROR_AVFORMAT_PACKET_THREAD, kThreads},
    {ERROR_AVFORMAT_PACKET_SEEK,
     "Check the stream number (`quorvel-avformat streams IN` lists them) and that the "
     "input can seek."},
    {ERROR_AVFORMAT_PACKET_WRITEFRAME,
     "Check that the packets' times increase within each stream and that the "
     "container accepts the codec."},
    {ERROR_AVFORMAT_PACKET_BUFFERSIZE,
     "Read again with a buffer of at least the size reported; this tool grows its "
     "buffer by itself."},
    {ERROR_AVFORMAT_LINK_MALLOC, kMemory},
    {ERROR_AVFORMAT_LINK_OPEN, kOpen},
    {ERROR_AVFORMAT_LINK_STREAMINFO, kStreamInfo},
    {ERROR_AVFORMAT_LINK_OUTPUTFORMAT, kFormat},
    {ERROR_AVFORMAT_LINK_CODECPAR, kMemory},
    {ERROR_AVFORMAT_LINK_WRITEHEADER,
     "Check that the output container can hold the codecs of the first input that "
     "has each kind of stream."},
    {ERROR_AVFORMAT_LINK_THREAD, kThreads},
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
  const char* name = AVFormat_GetErrorName(code);
  if (name == nullptr)
    return {nullptr, AVFormat_GetErrorText(code), "Check that the tool and the library come from the same version."};
  const char* check = kOurBug;
  for (const Hint& hint : kHints)
    if (hint.code == code) check = hint.check;
  return {name, AVFormat_GetErrorText(code), check};
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
