// SPDX-License-Identifier: MIT
#include "core/options.h"

#include <cstring>

#include "core/error.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/parseutils.h>
}

namespace quorvel {
namespace {

constexpr unsigned kBridgedFamilies = kConvertFamily | kUnpackFamily | kMuxFamily;

// The practical behaviours: the flag each one sets, who has it, and when it acts.
struct Practical {
  const char* name;
  bool TaskOptions::*flag;
  unsigned families;
  OptionTime time;
};
constexpr Practical kPractical[] = {
    {"keyframe_start", &TaskOptions::keyframe_start, kConvertFamily | kUnpackFamily | kLinkFamily, OptionTime::kRun},
    {"end_exclusive", &TaskOptions::end_exclusive, kConvertFamily | kUnpackFamily, OptionTime::kRun},
    {"zero_start", &TaskOptions::zero_start, kConvertFamily | kUnpackFamily, OptionTime::kRun},
    {"dense_streams", &TaskOptions::dense_streams, kConvertFamily, OptionTime::kInputOpen},
    {"rescale_times", &TaskOptions::rescale_times, kUnpackFamily, OptionTime::kRun},
    {"interleave_by_time", &TaskOptions::interleave_by_time, kMuxFamily, OptionTime::kRun},
    {"until_all_inputs_end", &TaskOptions::until_all_inputs_end, kMuxFamily, OptionTime::kRun},
    {"all_streams", &TaskOptions::all_streams, kMuxFamily, OptionTime::kInputOpen},
    {"continuous_times", &TaskOptions::continuous_times, kLinkFamily, OptionTime::kRun},
    {"cut_per_input", &TaskOptions::cut_per_input, kLinkFamily, OptionTime::kRun},
    {"fragment_bridged_mp4", &TaskOptions::fragment_bridged_mp4, kBridgedFamilies, OptionTime::kHeaderWrite},
    {"dts_as_pts", &TaskOptions::dts_as_pts, kConvertFamily | kUnpackFamily | kMuxFamily | kLinkFamily,
     OptionTime::kRun},
    {"outputs_independent", &TaskOptions::outputs_independent, kUnpackFamily, OptionTime::kRun},
    {"keep_codec_tag", &TaskOptions::keep_codec_tag, kConvertFamily | kUnpackFamily | kMuxFamily | kLinkFamily,
     OptionTime::kInputOpen},
};

// The demuxers that the strict policy allows: containers and raw streams
// that read only the bytes they are given. Playlists and manifests (hls,
// dash, concat), session descriptions (sdp, rtsp), image sequences and
// anything else that opens further resources is left out.
constexpr const char* kStrictFormats =
    "mov,matroska,webm,mpegts,avi,flv,nut,ogg,wav,w64,aiff,caf,mp3,aac,ac3,eac3,flac,h264,hevc,"
    "mpegvideo,m4v,mpeg,asf,mxf,ivf,obu,srt,ass,webvtt,ape,tta,wv,amr,gsm,truehd,dts,dv,mjpeg";
// Bounds on what the strict policy lets the demuxer read before the first
// packet, and on how long one of its reads may wait.
constexpr const char* kStrictProbeSize = "5000000";       // bytes
constexpr const char* kStrictAnalyzeDuration = "5000000"; // microseconds
constexpr const char* kStrictReadTimeout = "30000000";    // microseconds
constexpr const char* kStrictMaxStreams = "64";

bool StartsWith(const char* text, const char* prefix) noexcept {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// 1/0 and its usual spellings.
bool ParseFlag(const char* value, bool& flag) noexcept {
  for (const char* yes : {"1", "true", "yes", "on"})
    if (std::strcmp(value, yes) == 0) return flag = true, true;
  for (const char* no : {"0", "false", "no", "off"})
    if (std::strcmp(value, no) == 0) return flag = false, true;
  return false;
}

// A duration in FFmpeg's syntax ("2.5", "1500ms", "00:01:30"), not negative.
bool ParseDuration(const char* value, int64_t& microseconds) noexcept {
  int64_t parsed = 0;
  if (av_parse_time(&parsed, value, 1) < 0 || parsed < 0) return false;
  microseconds = parsed;
  return true;
}

const Practical* FindPractical(unsigned family, const char* name) noexcept {
  for (const Practical& practical : kPractical)
    if ((practical.families & family) != 0 && std::strcmp(practical.name, name) == 0) return &practical;
  return nullptr;
}

bool SetDictionary(AVDictionary** dictionary, const char* key, const char* value) noexcept {
  return *key != '\0' && av_dict_set(dictionary, key, value, 0) >= 0;
}

// Output containers that need to seek back unless fragmented.
bool IsMp4Family(const AVOutputFormat* format) noexcept {
  for (const char* name : {"mp4", "mov", "ipod", "ismv", "3gp", "3g2", "psp", "f4v"})
    if (std::strcmp(format->name, name) == 0) return true;
  return false;
}

}  // namespace

TaskOptions::~TaskOptions() {
  av_dict_free(&input);
  av_dict_free(&output);
}

bool FailOption(uint64_t code) noexcept {
  return Fail(code);
}

OptionLookup FindOption(unsigned family, const char* name, OptionTime& time) noexcept {
  // The preset sets options that act at Input too: it must come before it.
  if (StartsWith(name, "input.") || std::strcmp(name, "policy") == 0 || std::strcmp(name, "mode") == 0 ||
      std::strcmp(name, "open_timeout") == 0) {
    time = OptionTime::kInputOpen;
  } else if (StartsWith(name, "output.")) {
    time = OptionTime::kHeaderWrite;
  } else if (std::strcmp(name, "streams") == 0 && family == kMuxFamily) {
    // Chooses the streams of the next Input: never too late before Start.
    time = OptionTime::kRun;
  } else if (const Practical* practical = FindPractical(family, name)) {
    time = practical->time;
  } else {
    return OptionLookup::kUnknown;
  }
  return OptionLookup::kKnown;
}

bool ApplyOption(TaskOptions& options, unsigned family, const char* name, const char* value) noexcept {
  if (std::strcmp(name, "input.format") == 0) {
    const AVInputFormat* format = av_find_input_format(value);
    if (format == nullptr) return false;
    options.input_format = format;
    return true;
  }
  if (StartsWith(name, "input.")) return SetDictionary(&options.input, name + std::strlen("input."), value);
  if (StartsWith(name, "output.")) return SetDictionary(&options.output, name + std::strlen("output."), value);
  if (std::strcmp(name, "policy") == 0) {
    if (std::strcmp(value, "strict") == 0) return options.strict = true, true;
    if (std::strcmp(value, "default") == 0) return options.strict = false, true;
    return false;
  }
  if (std::strcmp(name, "mode") == 0) {
    bool practical = false;
    if (std::strcmp(value, "practical") == 0)
      practical = true;
    else if (std::strcmp(value, "defined") != 0)
      return false;
    for (const Practical& entry : kPractical)
      if ((entry.families & family) != 0) options.*entry.flag = practical;
    return true;
  }
  if (std::strcmp(name, "open_timeout") == 0) return ParseDuration(value, options.open_timeout);
  if (std::strcmp(name, "streams") == 0) {
    if (*value == '\0') return false;
    options.streams = value;
    return true;
  }
  const Practical* practical = FindPractical(family, name);
  return practical != nullptr && ParseFlag(value, options.*practical->flag);
}

InputOpenOptions::InputOpenOptions(const TaskOptions* options, bool bridged) noexcept : bridged_(bridged) {
  if (options == nullptr) return;
  given_ = options->input;
  format_ = options->input_format;
  strict_ = options->strict;
  av_dict_copy(&entries_, options->input, 0);
}

InputOpenOptions::~InputOpenOptions() {
  av_dict_free(&entries_);
}

bool InputOpenOptions::UrlAllowed(const char* url) const noexcept {
  if (!strict_ || url == nullptr) return true;
  // A plain path has no protocol prefix, which FFmpeg takes as "file".
  const char* protocol = avio_find_protocol_name(url);
  return protocol != nullptr && std::strcmp(protocol, "file") == 0;
}

bool InputOpenOptions::Prepare(AVFormatContext* context) noexcept {
  if (!strict_) return true;
  // Nested opens: none at all through the bridge, the file itself only by name.
  // "none" names no protocol, so that the list refuses every one.
  const char* protocols = bridged_ ? "none" : "file";
  return av_opt_set(context, "protocol_whitelist", protocols, 0) >= 0 &&
         av_opt_set(context, "format_whitelist", kStrictFormats, 0) >= 0 &&
         av_opt_set(context, "probesize", kStrictProbeSize, 0) >= 0 &&
         av_opt_set(context, "analyzeduration", kStrictAnalyzeDuration, 0) >= 0 &&
         av_opt_set(context, "max_streams", kStrictMaxStreams, 0) >= 0 &&
         (bridged_ || av_dict_get(entries_, "rw_timeout", nullptr, 0) != nullptr ||
          av_dict_set(&entries_, "rw_timeout", kStrictReadTimeout, 0) >= 0);
}

bool InputOpenOptions::Unused() const noexcept {
  // An entry still in the copy was not consumed; only the caller's count
  // (the policy's own rw_timeout is not the caller's to answer for).
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_get(entries_, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr)
    if (av_dict_get(given_, entry->key, nullptr, 0) != nullptr) return true;
  return false;
}

HeaderResult WriteHeader(AVFormatContext* output, const TaskOptions& options) noexcept {
  AVDictionary* entries = nullptr;
  if (av_dict_copy(&entries, options.output, 0) < 0) return HeaderResult::kFailed;
  if (options.fragment_bridged_mp4 && (output->flags & AVFMT_FLAG_CUSTOM_IO) != 0 && IsMp4Family(output->oformat) &&
      av_dict_get(entries, "movflags", nullptr, 0) == nullptr)
    av_dict_set(&entries, "movflags", "+frag_keyframe+empty_moov+default_base_moof", 0);

  // The muxer's set-up takes the entries it knows; one left over is refused
  // before anything is written.
  const bool set_up = entries == nullptr || avformat_init_output(output, &entries) >= 0;
  HeaderResult result = HeaderResult::kFailed;
  if (set_up && av_dict_count(entries) > 0)
    result = HeaderResult::kUnused;
  else if (set_up && avformat_write_header(output, nullptr) >= 0)
    result = HeaderResult::kWritten;
  av_dict_free(&entries);
  return result;
}

}  // namespace quorvel
