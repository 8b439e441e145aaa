// SPDX-License-Identifier: MIT
// quorvel-avformat: the library's four families of container operations from
// a shell, plus a look at an input's container, streams and packets.
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <new>
#include <utility>

extern "C" {
#include <libavutil/log.h>
}

#include "Quorvel_AVFormat.h"
#include "batch.h"
#include "commands.h"
#include "errors.h"
#include "terminal.h"

namespace {

int LogLevel(const qtool::CommonOptions& common) {
  const std::pair<const char*, int> levels[] = {
      {"quiet", AV_LOG_QUIET}, {"panic", AV_LOG_PANIC},     {"fatal", AV_LOG_FATAL}, {"error", AV_LOG_ERROR},
      {"warning", AV_LOG_WARNING}, {"info", AV_LOG_INFO}, {"verbose", AV_LOG_VERBOSE}, {"debug", AV_LOG_DEBUG},
      {"trace", AV_LOG_TRACE}};
  for (const auto& [name, level] : levels) {
    if (common.loglevel == name) return level;
  }
  // FFmpeg's own errors say which stream or packet a failure was about; its
  // warnings and notices would only crowd the progress line.
  return common.quiet ? AV_LOG_QUIET : AV_LOG_ERROR;
}

// help [SUBCOMMAND]: the same text as --help.
void AddHelp(CLI::App& app, qtool::Action& action) {
  auto topic = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("help", "Show the help of the tool or of one subcommand");
  command->add_option("SUBCOMMAND", *topic, "The subcommand to explain");
  command->callback([&app, topic, &action] {
    action = [&app, topic] {
      if (topic->empty()) {
        fmt::print("{}", app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal));
        return 0;
      }
      for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) {
        if (sub->check_name(*topic)) {
          fmt::print("{}", sub->help());
          return 0;
        }
      }
      throw qtool::UsageError(fmt::format("there is no subcommand \"{}\"", *topic));
    };
  });
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qtool;
  CLI::App app{"Remux, cut, extract, multiplex and join media files without re-encoding them.", "quorvel-avformat"};
  // The tool's version is that of the header it was built with; the library's, that of the one loaded.
  const unsigned library = AVFormat_GetVersion();
  app.set_version_flag("--version",
                       fmt::format("quorvel-avformat {}.{}.{} (library {}.{}.{})", QUORVEL_AVFORMAT_VERSION_MAJOR,
                                   QUORVEL_AVFORMAT_VERSION_MINOR, QUORVEL_AVFORMAT_VERSION_PATCH, library >> 16U,
                                   (library >> 8U) & 0xFFU, library & 0xFFU));
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Keys while a task runs on a terminal: p pauses and resumes, q stops (the output stays valid).\n"
      "Ctrl-C and SIGTERM stop cleanly too. An existing output file is overwritten only with -y (or a yes\n"
      "on the terminal); a failed run removes the files it wrote. Exit status: 0 done, 1 failed,\n"
      "2 bad command line, 128 + signal number when a signal stopped the task.\n"
      "`quorvel-avformat help SUBCOMMAND` explains each subcommand; docs/tool.md has more.");

  CommonOptions common;
  AddCommonOptions(app, common);

  Action action;
  Builder builder;
  AddConvert(app, builder);
  AddExtract(app, builder);
  AddMux(app, builder);
  AddConcat(app, builder);
  AddBatch(app, common, action);
  AddInfo(app, common, action);
  AddStreams(app, common, action);
  AddPackets(app, common, action);
  AddHelp(app, action);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (app.get_subcommands().empty() && !app.remaining().empty() && app.remaining().front()[0] != '-') {
      fmt::print(stderr,
                 "quorvel-avformat: there is no subcommand \"{}\"; run `quorvel-avformat --help` for the list\n",
                 app.remaining().front());
      return 2;
    }
    return app.exit(error) == 0 ? 0 : 2;
  }
  const std::string command = app.get_subcommands().front()->get_name();
  if (builder) {
    action = [&] {
      Prepared prepared;
      builder(common, prepared);
      return RunPrepared(prepared);
    };
  }
  InstallStopSignals();
  av_log_set_level(LogLevel(common));
  try {
    return action();
  } catch (const UsageError& error) {
    fmt::print(stderr, "quorvel-avformat {}: {}\nRun `quorvel-avformat {} --help` for the usage.\n", command,
               error.what(), command);
    return 2;
  } catch (const LibraryFailure& failure) {
    // A signal during set-up ends a read from a pipe, which the library then
    // reports as a failed open: the signal is the news, not the code.
    if (StopSignal() != 0) {
      fmt::print(stderr, "quorvel-avformat {}: interrupted\n", command);
      return 128 + StopSignal();
    }
    Report(command, failure);
    return 1;
  } catch (const ToolFailure& error) {
    fmt::print(stderr, "quorvel-avformat {}: {}\n", command, error.what());
    return 1;
  } catch (const std::bad_alloc&) {
    fmt::print(stderr, "quorvel-avformat {}: out of memory\n", command);
    return 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "quorvel-avformat {}: {}\n", command, error.what());
    return 1;
  }
}
