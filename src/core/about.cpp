// SPDX-License-Identifier: MIT
// What the library tells about itself: its version, and each error code by
// its name and in a sentence.
#include "Quorvel_AVFormat.h"

namespace {

struct ErrorEntry {
  uint64_t code;
  const char* name;
  const char* text;
};

// The name is spelled from the macro itself, so that it can't drift from the code.
#define QUORVEL_ERROR(name, text) \
  { ERROR_AVFORMAT_##name, "ERROR_AVFORMAT_" #name, text }

constexpr ErrorEntry kErrors[] = {
    QUORVEL_ERROR(CONVERT_MALLOC,
                  "Conversion: an allocation failed (task, I/O buffer, format context or stream "
                  "map); the machine is out of memory."),
    QUORVEL_ERROR(CONVERT_PARAMETER,
                  "Conversion: the call was refused: a null task handle, or a call out of "
                  "order (Input before Output, Start twice, ...)."),
    QUORVEL_ERROR(CONVERT_OPEN,
                  "Conversion: the input could not be opened (missing or unreadable file, "
                  "unrecognised content) or the output file could not be created."),
    QUORVEL_ERROR(CONVERT_STREAMINFO,
                  "Conversion: the input was opened but its streams could not be analysed; "
                  "it is usually damaged or truncated."),
    QUORVEL_ERROR(CONVERT_OUTPUTFORMAT,
                  "Conversion: no output container goes by that name: an unknown format "
                  "name or file extension."),
    QUORVEL_ERROR(CONVERT_NEWSTREAM,
                  "Conversion: an output stream could not be created, usually for lack of "
                  "memory."),
    QUORVEL_ERROR(CONVERT_CODECPAR,
                  "Conversion: a stream's codec parameters could not be copied into the "
                  "output, usually for lack of memory."),
    QUORVEL_ERROR(CONVERT_WRITEHEADER,
                  "Conversion: the output container refused its header: it can't hold one "
                  "of the codecs, has no stream, or must seek and is written to a function."),
    QUORVEL_ERROR(CONVERT_THREAD, "Conversion: the worker thread could not be started (thread limit or memory)."),
    QUORVEL_ERROR(CONVERT_STATUS, "Conversion: GetStatus was given no place to store the status."),
    QUORVEL_ERROR(CONVERT_SEEK,
                  "Conversion: the input could not seek to that time: it lies outside the input, or "
                  "the input can't seek (a pipe)."),
    QUORVEL_ERROR(CONVERT_OPTION, "Conversion: SetOption does not know that option name for this family."),
    QUORVEL_ERROR(CONVERT_OPTION_VALUE, "Conversion: the option does not take that value (see the option table)."),
    QUORVEL_ERROR(CONVERT_OPTION_LATE,
                  "Conversion: the option was set after the call it acts on (Input or "
                  "Start); set it earlier."),
    QUORVEL_ERROR(CONVERT_OPTION_UNUSED,
                  "Conversion: FFmpeg used no such input. or output. option: a misspelt "
                  "name, or one that this demuxer or muxer does not have."),
    QUORVEL_ERROR(CONVERT_POLICY,
                  "Conversion: the strict policy refused the input: a URL or protocol other than "
                  "a local file, or a demuxer that opens further resources."),
    QUORVEL_ERROR(PACKET_MALLOC,
                  "Multiplexing or demultiplexing: an allocation failed; the machine is out of "
                  "memory."),
    QUORVEL_ERROR(PACKET_PARAMETER,
                  "Multiplexing or demultiplexing: the call was refused: a null handle or "
                  "pointer, an index out of range, a call out of order, or an input whose "
                  "streams could not be analysed."),
    QUORVEL_ERROR(PACKET_READ, "Demultiplexing Read: no further packet: the input ended or could not be read."),
    QUORVEL_ERROR(PACKET_OPEN,
                  "Multiplexing or demultiplexing: an input could not be opened (missing or "
                  "unreadable file, unrecognised content) or an output file could not be created."),
    QUORVEL_ERROR(PACKET_OUTPUTFORMAT,
                  "Multiplexing or demultiplexing: no output container goes by that name: "
                  "an unknown format name or file extension."),
    QUORVEL_ERROR(PACKET_CODECPAR,
                  "Multiplexing or demultiplexing: a stream's codec parameters could not be "
                  "copied into an output stream, usually for lack of memory."),
    QUORVEL_ERROR(PACKET_WRITEHEADER,
                  "Multiplexing or demultiplexing: an output container refused its header: "
                  "it can't hold the codec, or must seek and is written to a function."),
    QUORVEL_ERROR(PACKET_THREAD,
                  "Multiplexing or demultiplexing: the worker could not be started, or the call "
                  "is refused while the worker runs."),
    QUORVEL_ERROR(PACKET_STATUS,
                  "Multiplexing or demultiplexing: GetStatus was given no place to store the "
                  "status."),
    QUORVEL_ERROR(PACKET_SEEK,
                  "Demultiplexing: the input could not seek there, or GetAVCodec found no input or "
                  "no stream of that index."),
    QUORVEL_ERROR(PACKET_WRITEFRAME,
                  "Multiplexing StreamWrite: the muxer refused the packet, usually for times "
                  "that do not increase within its stream."),
    QUORVEL_ERROR(PACKET_BUFFERSIZE,
                  "Demultiplexing ReadSized: the packet is larger than the buffer; its size "
                  "was stored and the packet is kept for the next read."),
    QUORVEL_ERROR(PACKET_OPTION,
                  "Multiplexing or demultiplexing: SetOption does not know that option name for "
                  "this family."),
    QUORVEL_ERROR(PACKET_OPTION_VALUE,
                  "Multiplexing or demultiplexing: the option does not take that value (see "
                  "the option table)."),
    QUORVEL_ERROR(PACKET_OPTION_LATE,
                  "Multiplexing or demultiplexing: the option was set after the call it acts "
                  "on (Input, Output or Start); set it earlier."),
    QUORVEL_ERROR(PACKET_OPTION_UNUSED,
                  "Multiplexing or demultiplexing: FFmpeg used no such input. or output. "
                  "option: a misspelt name, or one this demuxer or muxer does not have."),
    QUORVEL_ERROR(PACKET_POLICY,
                  "Multiplexing or demultiplexing: the strict policy refused the input: a URL or "
                  "protocol other than a local file, or a demuxer that opens further resources."),
    QUORVEL_ERROR(LINK_MALLOC,
                  "Concatenation: an allocation failed (task or input list); the machine is out of "
                  "memory."),
    QUORVEL_ERROR(LINK_PARAMETER,
                  "Concatenation: the call was refused: a null task handle or file name, or a "
                  "call out of order."),
    QUORVEL_ERROR(LINK_OPEN,
                  "Concatenation: an input could not be opened (missing or unreadable file, "
                  "unrecognised content) or the output file could not be created."),
    QUORVEL_ERROR(LINK_STREAMINFO,
                  "Concatenation: an input was opened but its streams could not be analysed; it "
                  "is usually damaged or truncated."),
    QUORVEL_ERROR(LINK_OUTPUTFORMAT,
                  "Concatenation: no output container matches the output file's name or "
                  "extension."),
    QUORVEL_ERROR(LINK_CODECPAR,
                  "Concatenation: a stream's codec parameters could not be copied into the "
                  "output, usually for lack of memory."),
    QUORVEL_ERROR(LINK_WRITEHEADER,
                  "Concatenation: the output container refused its header: it can't hold the "
                  "codecs of the first input with each kind of stream."),
    QUORVEL_ERROR(LINK_THREAD, "Concatenation: the worker thread could not be started (thread limit or memory)."),
    QUORVEL_ERROR(LINK_OPTION, "Concatenation: SetOption does not know that option name for this family."),
    QUORVEL_ERROR(LINK_OPTION_VALUE, "Concatenation: the option does not take that value (see the option table)."),
    QUORVEL_ERROR(LINK_OPTION_LATE,
                  "Concatenation: the option was set after the call it acts on (Input or "
                  "Start); set it earlier."),
    QUORVEL_ERROR(LINK_OPTION_UNUSED,
                  "Concatenation: FFmpeg used no such input. or output. option: a misspelt "
                  "name, or one that this demuxer or muxer does not have."),
    QUORVEL_ERROR(LINK_POLICY,
                  "Concatenation: the strict policy refused the input: a URL or protocol other than "
                  "a local file, or a demuxer that opens further resources."),
};

#undef QUORVEL_ERROR

const ErrorEntry* FindError(uint64_t code) noexcept {
  for (const ErrorEntry& entry : kErrors)
    if (entry.code == code) return &entry;
  return nullptr;
}

}  // namespace

extern "C" {

QUORVEL_AVFORMAT_API const char* AVFormat_GetErrorName(uint64_t code) {
  const ErrorEntry* entry = FindError(code);
  return entry != nullptr ? entry->name : nullptr;
}

QUORVEL_AVFORMAT_API const char* AVFormat_GetErrorText(uint64_t code) {
  const ErrorEntry* entry = FindError(code);
  return entry != nullptr ? entry->text : "Not an error code of this library (or of a newer version of it).";
}

QUORVEL_AVFORMAT_API unsigned AVFormat_GetVersion(void) {
  return QUORVEL_AVFORMAT_VERSION;
}

}  // extern "C"
