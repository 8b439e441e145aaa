// SPDX-License-Identifier: MIT
#include "progress.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "terminal.h"

namespace qtool {
namespace {

// As kJsonSchema in commands.h; a progress line carries it last, after the fields that scripts match on.
constexpr int kProgressSchema = 1;

std::string ClockText(double seconds) {
  if (seconds < 0) seconds = 0;
  const auto whole = static_cast<long long>(seconds);
  const int centis = static_cast<int>((seconds - static_cast<double>(whole)) * 100);
  if (whole >= 3600) return fmt::format("{}:{:02}:{:02}.{:02}", whole / 3600, whole / 60 % 60, whole % 60, centis);
  return fmt::format("{}:{:02}.{:02}", whole / 60, whole % 60, centis);
}

nlohmann::ordered_json OrNull(std::optional<double> value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

}  // namespace

void ProgressCounter::Record(void*, int, long long, double seconds, void* context) {
  auto* counter = static_cast<ProgressCounter*>(context);
  counter->packets_.fetch_add(1);
  // Times of unset timestamps come out hugely negative; they move nothing.
  if (!std::isfinite(seconds) || seconds <= kNone) return;
  double none = kNone;
  counter->first_.compare_exchange_strong(none, seconds);
  double furthest = counter->position_.load();
  while (seconds > furthest && !counter->position_.compare_exchange_weak(furthest, seconds)) {
  }
}

ProgressDisplay::ProgressDisplay(ProgressMode mode, std::optional<Span> span, bool keys)
    : mode_(mode), span_(span), keys_(keys), terminal_(StderrIsTerminal()) {
  if (span_ && !(span_->last > span_->first)) span_.reset();
}

double ProgressDisplay::Elapsed() const {
  auto paused = paused_for_;
  if (paused_since_) paused += Clock::now() - *paused_since_;
  return std::chrono::duration<double>(Clock::now() - started_ - paused).count();
}

std::optional<double> ProgressDisplay::Percent(std::optional<double> position) const {
  if (!span_ || !position) return std::nullopt;
  return std::clamp(100.0 * (*position - span_->first) / (span_->last - span_->first), 0.0, 100.0);
}

// Seconds of media per second of work.
std::optional<double> ProgressDisplay::Speed(const ProgressCounter& counter) const {
  const auto position = counter.position(), first = counter.first();
  const double elapsed = Elapsed();
  if (!position || !first || elapsed < 0.05) return std::nullopt;
  return (*position - *first) / elapsed;
}

void ProgressDisplay::Update(const ProgressCounter& counter, bool paused) {
  if (paused && !paused_since_) paused_since_ = Clock::now();
  if (!paused && paused_since_) {
    paused_for_ += Clock::now() - *paused_since_;
    paused_since_.reset();
  }
  if (mode_ == ProgressMode::kJson) {
    if (counter.packets() == 0 || counter.packets() == last_packets_) return;
    last_packets_ = counter.packets();
    PrintJson("progress", counter, "", paused);
  } else if (mode_ == ProgressMode::kBar) {
    // A terminal line is redrawn in place; in a log, one line a second is plenty.
    if (!terminal_ && (counter.packets() == 0 || Clock::now() - last_print_ < std::chrono::seconds(1))) return;
    last_print_ = Clock::now();
    PrintBar(counter, paused, false);
  }
}

void ProgressDisplay::Finish(const ProgressCounter& counter, const std::string& outcome, long long refused) {
  if (mode_ == ProgressMode::kJson) PrintJson("end", counter, outcome, false, refused);
  if (mode_ != ProgressMode::kBar) return;
  PrintBar(counter, false, true);
  const auto position = counter.position();
  fmt::print(stderr, "{}: {} packets up to {} in {:.1f} s{}\n", outcome, counter.packets(),
             position ? ClockText(*position) : "-", Elapsed(),
             refused > 0 ? fmt::format(", {} refused by the output", refused) : "");
}

void ProgressDisplay::PrintJson(const char* event, const ProgressCounter& counter, const std::string& outcome,
                                bool paused, long long refused) {
  const auto position = counter.position();
  nlohmann::ordered_json line = {{"event", event},
                                 {"packets", counter.packets()},
                                 {"position", OrNull(position)},
                                 {"percent", OrNull(Percent(position))},
                                 {"speed", OrNull(Speed(counter))},
                                 {"elapsed", Elapsed()}};
  if (outcome.empty()) {
    line["paused"] = paused;
  } else {
    line["outcome"] = outcome;
    line["refused"] = refused;
  }
  line["schema"] = kProgressSchema;
  fmt::print(stderr, "{}\n", line.dump());
  std::fflush(stderr);
}

void ProgressDisplay::PrintBar(const ProgressCounter& counter, bool paused, bool final) {
  const auto position = counter.position();
  const auto percent = Percent(position);
  const auto speed = Speed(counter);
  std::string text = fmt::format("{:>7} packets  {}", counter.packets(), position ? ClockText(*position) : "-");
  if (span_) text += " / " + ClockText(span_->last);
  if (speed) text += fmt::format("  {:.1f}x", *speed);
  if (paused) text += "  paused";
  if (keys_ && !final) text += paused ? "  (p: resume, q: stop)" : "  (p: pause, q: stop)";
  if (percent) {
    const int width = std::clamp(TerminalColumns() - static_cast<int>(text.size()) - 10, 10, 40);
    const int filled = static_cast<int>(*percent / 100.0 * width);
    text =
        fmt::format("[{}{}] {:3.0f}%  ", std::string(filled, '#'), std::string(width - filled, '.'), *percent) + text;
  }
  if (terminal_) {
    fmt::print(stderr, "\r{}\x1b[K{}", text, final ? "\n" : "");
  } else {
    fmt::print(stderr, "{}\n", text);
  }
  std::fflush(stderr);
}

}  // namespace qtool
