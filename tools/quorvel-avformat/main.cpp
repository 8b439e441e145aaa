// quorvel-avformat: the library's four families of container operations from
// a shell, plus a look at an input's packets and streams.
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <new>

extern "C" {
#include <libavutil/log.h>
}

#include "Quorvel_AVFormat.h"
#include "commands.h"
#include "errors.h"
#include "terminal.h"

int main(int argc, char** argv) {
  using namespace qtool;
  CLI::App app{"Remux, split, multiplex and join media files without re-encoding them.", "quorvel-avformat"};
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
      "Ctrl-C and SIGTERM stop cleanly too. Exit status: 0 done, 1 failed, 2 bad command line,\n"
      "128 + signal number when a signal stopped the task.");

  CommonOptions common;
  app.add_option("--progress", common.progress,
                 "auto (a bar on a terminal), bar, json (JSON lines) or none; written to standard error")
      ->check(CLI::IsMember({"auto", "bar", "json", "none"}));
  app.add_flag("-q,--quiet", common.quiet, "No progress and no notes");

  Action action;
  AddConvert(app, common, action);
  AddSplit(app, common, action);
  AddMux(app, common, action);
  AddConcat(app, common, action);
  AddPackets(app, common, action);
  AddStreams(app, common, action);

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
  InstallStopSignals();
  // FFmpeg's own errors say which stream or packet a failure was about; its
  // warnings and notices would only crowd the progress line.
  av_log_set_level(AV_LOG_ERROR);
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
