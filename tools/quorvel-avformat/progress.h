// SPDX-License-Identifier: MIT
// Progress of a running task: what the library's progress callback reports,
// shown as a one-line bar on a terminal or as JSON lines.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

namespace qtool {

enum class ProgressMode { kBar, kJson, kNone };

// The stretch of an input's timeline that a task goes through, in seconds.
struct Span {
  double first = 0.0, last = 0.0;
};

// Counts the packets that the library reports and keeps the furthest time
// seen. The callback runs on the task's worker thread, the display reads on
// the tool's own.
class ProgressCounter {
 public:
  static void Record(void* reserved, int type, long long number, double seconds, void* context);
  long long packets() const { return packets_.load(); }
  // The furthest packet time reported so far, and the first one, if any.
  std::optional<double> position() const { return Known(position_.load()); }
  std::optional<double> first() const { return Known(first_.load()); }

 private:
  static constexpr double kNone = -1e300;
  static std::optional<double> Known(double value) {
    return value > kNone ? std::optional<double>(value) : std::nullopt;
  }
  std::atomic<long long> packets_{0};
  std::atomic<double> position_{kNone};
  std::atomic<double> first_{kNone};
};

class ProgressDisplay {
 public:
  // `span`, when known, turns the position into a percentage; `keys` adds the
  // key help to the bar.
  ProgressDisplay(ProgressMode mode, std::optional<Span> span, bool keys);
  void Update(const ProgressCounter& counter, bool paused);
  // Last line: `outcome` is "finished", "stopped" or "interrupted"; `refused`
  // counts the packets that the output's muxer did not take.
  void Finish(const ProgressCounter& counter, const std::string& outcome, long long refused);

 private:
  using Clock = std::chrono::steady_clock;
  double Elapsed() const;
  std::optional<double> Percent(std::optional<double> position) const;
  std::optional<double> Speed(const ProgressCounter& counter) const;
  void PrintJson(const char* event, const ProgressCounter& counter, const std::string& outcome, bool paused,
                 long long refused = 0);
  void PrintBar(const ProgressCounter& counter, bool paused, bool final);

  ProgressMode mode_;
  std::optional<Span> span_;
  bool keys_;
  bool terminal_;
  Clock::time_point started_ = Clock::now();
  Clock::time_point last_print_{};
  Clock::duration paused_for_{};
  std::optional<Clock::time_point> paused_since_;
  long long last_packets_ = -1;
};

}  // namespace qtool
