// SPDX-License-Identifier: MIT
// batch JOBS [--jobs N] [--results FILE] [--resume] [--shard I/N]: every job
// of a JSON-lines file, as the task subcommands take them, run in this one
// process. One thread sets tasks up, starts them and polls them: the library's
// error state is process-wide, so each failing call is read on the thread
// that made it, while the tasks themselves run on their own workers. Outputs
// are written under temporary names and renamed once a job has succeeded.
#include "batch.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <list>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "errors.h"
#include "terminal.h"

namespace qtool {
namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct BatchOptions {
  std::string jobs, results, shard = "0/1";
  unsigned parallel = 0;  // 0: one per core
  bool resume = false;
};

// --shard I/N: the jobs on lines I, I + N, I + 2N, ... counted from 0.
struct Shard {
  unsigned index = 0, count = 1;
};
Shard ParseShard(const std::string& text) {
  Shard shard;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%u/%u%c", &shard.index, &shard.count, &rest) != 2 || shard.count == 0 ||
      shard.index >= shard.count || text[0] == '-')
    throw UsageError(fmt::format("--shard \"{}\": give I/N with 0 <= I < N, 2/8 for instance", text));
  return shard;
}

// A job is known by its line and its text: an edited line is another job.
std::string JobId(size_t line, const std::string& text) {
  uint64_t hash = 14695981039346656037ULL;  // FNV-1a
  for (const unsigned char c : text) hash = (hash ^ c) * 1099511628211ULL;
  return fmt::format("{}:{:016x}", line, hash);
}

// The positional arguments of each subcommand, as a job's keys: the first one
// a single name, the rest one name or an array of them.
struct Positional {
  const char* command;
  const char* first;
  const char* rest;
};
const Positional kPositional[] = {{"convert", "input", "output"}, {"extract", "input", "outputs"},
                                  {"split", "input", "outputs"},  {"mux", "output", "inputs"},
                                  {"concat", "output", "inputs"}};
// Settings of the terminal and of standard streams, which a job has none of.
const std::set<std::string> kNotForJobs = {"progress", "quiet", "loglevel", "no-keys", "format", "help", "version"};

// {"convert": {"input": "a.mp4", "output": "a.mkv", "start": 5}} as the
// command line `convert --start=5 -- a.mp4 a.mkv`: true is a flag, false and
// null leave it out. Throws UsageError.
std::vector<std::string> JobArguments(const Json& job) {
  if (!job.is_object() || job.size() != 1 || !job.begin().value().is_object())
    throw UsageError(R"(a job is an object with one key, its subcommand: {"convert": {"input": ..., "output": ...}})");
  const std::string& command = job.begin().key();
  const Json& arguments = job.begin().value();
  const Positional* positional = nullptr;
  for (const Positional& p : kPositional) {
    if (command == p.command) positional = &p;
  }
  if (positional == nullptr)
    throw UsageError(fmt::format("\"{}\" is not a subcommand that batch runs (convert, extract, mux, concat)", command));
  const auto text = [](const std::string& key, const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number()) return value.dump();
    throw UsageError(fmt::format("\"{}\" takes a string or a number", key));
  };
  std::vector<std::string> options{command}, names{"--"};
  for (const auto& [key, value] : arguments.items()) {
    if (key == positional->first) {
      names.insert(names.begin() + 1, text(key, value));
    } else if (key == positional->rest) {
      for (const Json& name : value.is_array() ? value : Json::array({value})) names.push_back(text(key, name));
    } else if (kNotForJobs.count(key) != 0) {
      throw UsageError(fmt::format("\"{}\" is not a setting of a job", key));
    } else if (value.is_boolean() || value.is_null()) {
      if (value == true) options.push_back("--" + key);
    } else {
      options.push_back(fmt::format("--{}={}", key, text(key, value)));
    }
  }
  if (!arguments.contains(positional->first))
    throw UsageError(fmt::format("a {} job needs \"{}\"", command, positional->first));
  for (size_t i = 1; i < names.size(); ++i) {
    if (names[i] == "-" || names[i].rfind("-,", 0) == 0 || names[i].rfind("-:", 0) == 0)
      throw UsageError("batch jobs read and write named files, not standard input or output");
  }
  options.insert(options.end(), names.begin(), names.end());
  return options;
}

// A job's own settings: the batch's, then the job's, parsed by the same
// subcommands as the command line.
struct ParsedJob {
  CommonOptions common;
  Builder builder;
};
void ParseJob(const std::vector<std::string>& arguments, ParsedJob& job) {
  CLI::App app;
  app.fallthrough();
  app.require_subcommand(1);
  AddCommonOptions(app, job.common);
  AddConvert(app, job.builder);
  AddExtract(app, job.builder);
  AddMux(app, job.builder);
  AddConcat(app, job.builder);
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError& error) {
    throw UsageError(error.what());
  }
  // No terminal, no questions: an existing file is replaced only when asked.
  job.common.quiet = true;
  job.common.no_keys = true;
  job.common.progress = "none";
  job.common.no_overwrite = !job.common.overwrite;
  job.common.temporary_names = true;
}

// The error of a failed job, as its results line tells it.
Json DescribeFailure(const std::exception_ptr& failure) {
  const auto make = [](const std::string& name, const std::string& text, Json code = nullptr) {
    return Json{{"name", name}, {"code", std::move(code)}, {"text", text}};
  };
  try {
    std::rethrow_exception(failure);
  } catch (const LibraryFailure& library) {
    const ErrorText text = DescribeError(library.code);
    return make(text.name != nullptr ? text.name : "unknown error",
                fmt::format("failed while {}{}: {}", library.doing,
                            library.detail.empty() ? "" : ": " + library.detail, text.what),
                fmt::format("0x{:X}", library.code));
  } catch (const UsageError& usage) {
    return make("usage", usage.what());
  } catch (const std::exception& other) {
    return make("failure", other.what());
  }
}

Json DescribeReport(const AVFORMAT_TASK_REPORT& report) {
  return {{"packets_read", report.llPacketsRead},       {"packets_written", report.llPacketsWritten},
          {"packets_refused", report.llPacketsRefused}, {"bytes_written", report.llBytesWritten},
          {"write_error", report.nWriteError},          {"trailer_written", report.bTrailerWritten != 0}};
}

// Where the results lines go: a file (appended to when resuming) or standard
// output. Each line leaves in one write, so that a kill never splits one
// line's text into another's.
class Results {
 public:
  Results(const std::string& path, bool append) {
    if (path.empty()) return;
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | (append ? 0 : O_TRUNC), 0644);
    if (fd_ < 0) throw ToolFailure(fmt::format("can't open the results file \"{}\": {}", path, std::strerror(errno)));
    // A line that a kill cut short stays a line of its own.
    struct stat status {};
    char last = '\n';
    if (fstat(fd_, &status) == 0 && status.st_size > 0) (void)!pread(fd_, &last, 1, status.st_size - 1);
    if (last != '\n') Write("");
  }
  ~Results() {
    if (fd_ != STDOUT_FILENO) close(fd_);
  }
  Results(const Results&) = delete;
  Results& operator=(const Results&) = delete;

  void Write(const std::string& line) {
    const std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
      const ssize_t n = write(fd_, text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw ToolFailure(fmt::format("writing a results line failed: {}", std::strerror(errno)));
      done += static_cast<size_t>(n);
    }
  }

 private:
  int fd_ = STDOUT_FILENO;
};

// The ids of the jobs that a results file records as done, the last line of
// a job deciding, and whose outputs are all in place: the results line of a
// job goes out before its outputs are renamed, so a kill in between leaves a
// job to run again, not one whose output would be in the way. Lines that are
// not JSON (one cut short by a kill) are passed over.
std::set<std::string> DoneJobs(const std::string& path) {
  std::map<std::string, bool> last;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const Json result = Json::parse(line, nullptr, false);
    if (!result.is_object() || !result.contains("id")) continue;
    bool done = result.value("outcome", "") == "done";
    struct stat status {};
    for (const Json& output : result.value("outputs", Json::array()))
      done = done && output.is_string() && stat(output.get<std::string>().c_str(), &status) == 0;
    last[result.value("id", "")] = done;
  }
  std::set<std::string> done;
  for (const auto& [id, finished] : last) {
    if (finished) done.insert(id);
  }
  return done;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) throw UsageError(fmt::format("can't read the jobs file \"{}\": {}", path, std::strerror(errno)));
  }
  std::istream& in = path == "-" ? std::cin : file;
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The whole batch on one line of a terminal, or as JSON lines.
class BatchProgress {
 public:
  BatchProgress(ProgressMode mode, size_t total) : mode_(mode), total_(total) {}
  size_t done = 0, failed = 0, skipped = 0, running = 0;
  long long bytes = 0;

  void Update(bool final) {
    const auto now = Clock::now();
    if (mode_ == ProgressMode::kNone || (!final && now - printed_ < (mode_ == ProgressMode::kBar ? 200ms : 1s))) return;
    printed_ = now;
    const double elapsed = std::chrono::duration<double>(now - started_).count();
    const double rate = elapsed > 0 ? static_cast<double>(bytes) / elapsed : 0.0;
    if (mode_ == ProgressMode::kJson) {
      const Json line = {{"event", final ? "end" : "progress"},
                         {"total", total_},
                         {"done", done},
                         {"failed", failed},
                         {"skipped", skipped},
                         {"running", running},
                         {"bytes", bytes},
                         {"rate", rate},
                         {"elapsed", elapsed},
                         {"schema", kJsonSchema}};
      fmt::print(stderr, "{}\n", line.dump());
    } else {
      fmt::print(stderr, "\r{}/{} jobs: {} done, {} failed, {} running{} | {:.1f} MB/s | {:.1f} s\033[K{}",
                 done + failed + skipped, total_, done, failed, running,
                 skipped > 0 ? fmt::format(", {} skipped", skipped) : "", rate / 1e6, elapsed, final ? "\n" : "");
    }
    std::fflush(stderr);
  }

 private:
  ProgressMode mode_;
  size_t total_;
  Clock::time_point started_ = Clock::now();
  Clock::time_point printed_{};
};

// A job being set up or running. `parsed` holds the settings that the
// prepared task's outputs refer to, so it is released after them.
struct Job {
  size_t line;
  std::string id;
  Json job;
  ParsedJob parsed;
  Prepared prepared;
  Clock::time_point started = Clock::now();
};

class Batch {
 public:
  Batch(const BatchOptions& options, const CommonOptions& common, size_t total)
      : options_(options),
        common_(common),
        results_(options.results, options.resume),
        progress_(ResolveBatchProgress(common), total) {}

  int Run(const std::vector<std::string>& lines, const std::vector<size_t>& queue, size_t skipped) {
    const unsigned parallel = options_.parallel != 0 ? options_.parallel : std::max(1U, std::thread::hardware_concurrency());
    progress_.skipped = skipped;
    size_t next = 0;
    while (!StopRequested() && (next < queue.size() || !running_.empty())) {
      bool busy = Reap();
      if (next < queue.size() && running_.size() < parallel) {
        Start(queue[next], lines[queue[next]]);
        ++next;
        busy = true;
      }
      progress_.running = running_.size();
      progress_.Update(false);
      if (!busy) std::this_thread::sleep_for(2ms);
    }
    // Stopped: every running task writes its trailer into its temporary
    // file, which goes away with the job; the results say which were cut short.
    for (Job& job : running_) Record(job, "interrupted", nullptr);
    running_.clear();
    progress_.running = 0;
    progress_.Update(true);
    if (StopSignal() != 0) return 128 + StopSignal();
    return progress_.failed > 0 ? 1 : 0;
  }

 private:
  static ProgressMode ResolveBatchProgress(const CommonOptions& common) {
    if (common.progress == "auto" && !common.quiet) return StderrIsTerminal() ? ProgressMode::kBar : ProgressMode::kJson;
    return ResolveProgress(common);
  }

  void Start(size_t line, const std::string& text) {
    running_.emplace_back();
    Job& job = running_.back();
    job.line = line;
    job.id = JobId(line + 1, text);
    job.parsed.common = common_;
    try {
      try {
        job.job = Json::parse(text);
      } catch (const Json::parse_error& error) {
        job.job = text;
        const std::string what = error.what();
        throw UsageError(fmt::format("line {}: not JSON: {}", line + 1, what.substr(what.find("] ") + 2)));
      }
      ParseJob(JobArguments(job.job), job.parsed);
      job.parsed.builder(job.parsed.common, job.prepared);
    } catch (...) {
      Record(job, "failed", std::current_exception());
      running_.pop_back();
    }
  }

  // Finishes the jobs whose tasks have ended; true when there were any.
  bool Reap() {
    bool any = false;
    for (auto job = running_.begin(); job != running_.end();) {
      Task& task = *job->prepared.task;
      bool on = false;
      try {
        Check(task.family().get_status(task.get(), &on), std::string("asking the ") + task.family().name +
                                                              " task for its status");
        if (on) {
          ++job;
          continue;
        }
        task.Stop();
        CheckWrites(task.report());
        if (task.report().llPacketsRefused > 0)
          throw ToolFailure(fmt::format("the output's muxer refused {} packets", task.report().llPacketsRefused));
      } catch (...) {
        Record(*job, "failed", std::current_exception());
        job = running_.erase(job);
        any = true;
        continue;
      }
      Record(*job, "done", nullptr);
      try {
        job->prepared.files->Commit();
      } catch (...) {
        --progress_.done;
        Record(*job, "failed", std::current_exception());
      }
      job = running_.erase(job);
      any = true;
    }
    return any;
  }

  void Record(Job& job, const char* outcome, const std::exception_ptr& failure) {
    Task* task = job.prepared.task.get();
    if (task != nullptr) task->Stop();
    const std::string what = outcome;
    if (what == "done") ++progress_.done;
    if (what == "failed") ++progress_.failed;
    if (task != nullptr) progress_.bytes += task->report().llBytesWritten;
    const Json line = {
        {"schema", kJsonSchema},
        {"line", job.line + 1},
        {"id", job.id},
        {"job", job.job},
        {"outcome", outcome},
        {"seconds", std::chrono::duration<double>(Clock::now() - job.started).count()},
        {"outputs", job.prepared.files ? Json(job.prepared.files->names()) : Json::array()},
        {"report", task != nullptr ? DescribeReport(task->report()) : Json(nullptr)},
        {"error", failure ? DescribeFailure(failure) : Json(nullptr)}};
    results_.Write(line.dump());
  }

  const BatchOptions& options_;
  const CommonOptions& common_;
  Results results_;
  BatchProgress progress_;
  std::list<Job> running_;
};

int RunBatch(const BatchOptions& options, const CommonOptions& common) {
  const Shard shard = ParseShard(options.shard);
  if (options.resume && options.results.empty())
    throw UsageError("--resume needs --results FILE, the record of the jobs done");
  const std::vector<std::string> lines = ReadLines(options.jobs);
  const std::set<std::string> done = options.resume ? DoneJobs(options.results) : std::set<std::string>{};
  std::vector<size_t> queue;
  size_t skipped = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i % shard.count != shard.index || lines[i].find_first_not_of(" \t\r") == std::string::npos) continue;
    if (done.count(JobId(i + 1, lines[i])) != 0) {
      ++skipped;
    } else {
      queue.push_back(i);
    }
  }
  Batch batch(options, common, queue.size() + skipped);
  return batch.Run(lines, queue, skipped);
}

}  // namespace

void AddBatch(CLI::App& app, const CommonOptions& common, Action& action) {
  auto options = std::make_shared<BatchOptions>();
  CLI::App* command = app.add_subcommand("batch", "Run the jobs of a JSON-lines file, many at once in one process");
  command
      ->add_option("JOBS", options->jobs,
                   "File of jobs, one JSON object a line, or - for standard input: "
                   R"({"convert": {"input": "a.mp4", "output": "a.mkv", "start": 5}})")
      ->required();
  command->add_option("--jobs", options->parallel, "Tasks running at once (default: one per core)")
      ->check(CLI::PositiveNumber);
  command->add_option("--results", options->results, "Append a JSON line per finished job here (default: standard output)");
  command->add_flag("--resume", options->resume, "Skip the jobs that --results FILE records as done, and append to it");
  command->add_option("--shard", options->shard, "Run only the jobs on lines I, I+N, I+2N, ... (from 0) of JOBS")
      ->type_name("I/N");
  command->footer(
      "A job names a subcommand (convert, extract, mux, concat) and its arguments: the positional ones as\n"
      "\"input\"/\"output\" (\"inputs\"/\"outputs\" for lists), the flags by their long names (\"end\": \"0:10\",\n"
      "\"exact-cut\": true). Outputs are written as NAME.part-PID.EXT and renamed when the job succeeds; an\n"
      "existing output is replaced only with \"overwrite\": true or -y. Exit status: 0 every job done, 1 some\n"
      "failed, 2 bad command line, 128 + signal when stopped. docs/batch.md has more. Example:\n"
      "  quorvel-avformat batch jobs.jsonl --jobs 8 --results results.jsonl --resume");
  command->callback([options, &common, &action] { action = [options, &common] { return RunBatch(*options, common); }; });
}

}  // namespace qtool
