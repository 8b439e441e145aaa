// SPDX-License-Identifier: MIT
#include "arguments.h"

#include <fmt/core.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/parseutils.h>
}

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <vector>

#include "errors.h"

namespace qtool {
namespace {

bool ToDouble(const std::string& text, double& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text.c_str(), &end);
  return errno == 0 && *end == '\0' && std::isfinite(value);
}

int ParseIndex(const std::string& text, const std::string& what) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || errno != 0 || *end != '\0' || value < -1 || value > 0xFFFF)
    throw UsageError(fmt::format("{} \"{}\" is not a stream number", what, text));
  return static_cast<int>(value);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::string::size_type from = 0;
  for (;;) {
    const auto at = text.find(separator, from);
    parts.push_back(text.substr(from, at - from));
    if (at == std::string::npos) return parts;
    from = at + 1;
  }
}

// Splits "NAME,key=value,key=value" into NAME and the settings. Only trailing
// parts that name a known key count as settings, so a path may hold commas.
std::string SplitSettings(const std::string& text, const std::vector<std::string>& keys,
                          std::map<std::string, std::string>& settings) {
  std::vector<std::string> parts = Split(text, ',');
  while (parts.size() > 1) {
    const std::string& last = parts.back();
    const auto equals = last.find('=');
    const std::string key = last.substr(0, equals);
    bool known = false;
    for (const auto& k : keys) known = known || (equals != std::string::npos && k == key);
    if (!known) break;
    if (settings.count(key) != 0) throw UsageError(fmt::format("\"{}\" sets {} twice", text, key));
    settings[key] = last.substr(equals + 1);
    parts.pop_back();
  }
  std::string name = parts.front();
  for (size_t i = 1; i < parts.size(); ++i) name += "," + parts[i];
  return name;
}

}  // namespace

double ParseSeconds(const std::string& text) {
  const std::vector<std::string> parts = Split(text, ':');
  double total = 0.0;
  bool ok = parts.size() <= 3;
  for (size_t i = 0; ok && i < parts.size(); ++i) {
    double value = 0.0;
    const bool last = i + 1 == parts.size();
    ok = ToDouble(parts[i], value) && value >= 0.0 && (last || value == std::floor(value)) && (i == 0 || value < 60.0);
    total = total * 60.0 + value;
  }
  if (!ok) throw UsageError(fmt::format("\"{}\" is not a time (seconds, or [[h:]m:]s)", text));
  return total;
}

double ParseTime(const std::string& text) {
  int64_t microseconds = 0;
  if (text.empty() || text[0] == '-' || av_parse_time(&microseconds, text.c_str(), 1) < 0)
    throw UsageError(fmt::format("\"{}\" is not a time (90, 1.5, 1:30, 00:01:30.5, 5s, 500ms)", text));
  return static_cast<double>(microseconds) / 1e6;
}

void CheckStreamSelector(const std::string& selector) {
  // FFmpeg tells a malformed specifier from one that matches nothing only
  // against a stream: a stream of no kind in an empty container serves.
  std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> context(avformat_alloc_context(), avformat_free_context);
  AVStream* stream = context ? avformat_new_stream(context.get(), nullptr) : nullptr;
  if (stream == nullptr) throw std::bad_alloc();
  // FFmpeg logs a malformed specifier as an error of its own; the tool's message says it better.
  const int level = av_log_get_level();
  av_log_set_level(AV_LOG_QUIET);
  const int matched = selector.empty() ? -1 : avformat_match_stream_specifier(context.get(), stream, selector.c_str());
  av_log_set_level(level);
  if (matched < 0) throw UsageError(fmt::format("\"{}\" is not a stream specifier (2, v, a:1, s:0, ...)", selector));
}

SplitTarget ParseSplitTarget(const std::string& text) {
  std::map<std::string, std::string> settings;
  const std::string base = SplitSettings(text, {"start", "end"}, settings);
  const auto equals = base.find('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == base.size())
    throw UsageError(fmt::format("\"{}\" is not STREAM=OUT[,start=S][,end=E]", text));
  SplitTarget target;
  target.selector = base.substr(0, equals);
  CheckStreamSelector(target.selector);
  const bool number = target.selector.find_first_not_of("0123456789") == std::string::npos;
  target.stream = number ? ParseIndex(target.selector, "stream") : -1;
  target.output = base.substr(equals + 1);
  if (settings.count("start")) target.start = ParseTime(settings["start"]);
  if (settings.count("end")) target.end = ParseTime(settings["end"]);
  if (target.end > 0.0 && target.start >= target.end)
    throw UsageError(fmt::format("\"{}\": the start is not before the end", text));
  return target;
}

ConcatInput ParseConcatInput(const std::string& text) {
  std::map<std::string, std::string> settings;
  ConcatInput input;
  input.path = SplitSettings(text, {"start", "end", "video", "audio"}, settings);
  if (input.path.empty()) throw UsageError(fmt::format("\"{}\" names no input file", text));
  if (settings.count("start")) input.start = ParseTime(settings["start"]);
  if (settings.count("end")) input.end = ParseTime(settings["end"]);
  if (input.end > 0.0 && input.start >= input.end)
    throw UsageError(fmt::format("\"{}\": the start is not before the end", text));
  if (settings.count("video")) input.video = ParseIndex(settings["video"], "video");
  if (settings.count("audio")) input.audio = ParseIndex(settings["audio"], "audio");
  return input;
}

}  // namespace qtool
