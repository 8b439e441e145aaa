// SPDX-License-Identifier: MIT
#include "terminal.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace qtool {
namespace {

std::atomic<int> stop_signal{0};
std::atomic<bool> stop_requested{false};

// The terminal's settings from before raw mode; the signal handler restores
// them too (tcsetattr may be called from a handler), so that a second Ctrl-C,
// which ends the process, does not leave the shell without echo.
struct termios saved_termios;
std::atomic<bool> termios_saved{false};

void RestoreTermios() {
  if (termios_saved.exchange(false)) tcsetattr(STDIN_FILENO, TCSANOW, &saved_termios);
}

extern "C" void OnStopSignal(int signal_number) {
  RestoreTermios();
  stop_signal.store(signal_number);
  stop_requested.store(true);
}

}  // namespace

void InstallStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND;  // the second signal takes its default action
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool StopRequested() {
  return stop_requested.load();
}
int StopSignal() {
  return stop_signal.load();
}
void RequestStop() {
  stop_requested.store(true);
}

KeyReader::KeyReader(bool wanted) {
  if (!wanted || !isatty(STDIN_FILENO) || !InForeground() || tcgetattr(STDIN_FILENO, &saved_termios) != 0) return;
  struct termios raw = saved_termios;
  // No line buffering and no echo; ISIG stays on, so Ctrl-C still sends SIGINT.
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  raw.c_cc[VMIN] = 0;
  raw.c_cc[VTIME] = 0;
  termios_saved.store(true);
  if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0) {
    termios_saved.store(false);
    return;
  }
  active_ = true;
}

KeyReader::~KeyReader() {
  Restore();
}

void KeyReader::Restore() {
  active_ = false;
  RestoreTermios();
}

char KeyReader::Wait(std::chrono::milliseconds timeout) {
  if (!active_ || !termios_saved.load()) {
    std::this_thread::sleep_for(timeout);
    return 0;
  }
  struct pollfd key {
    STDIN_FILENO, POLLIN, 0
  };
  if (poll(&key, 1, static_cast<int>(timeout.count())) <= 0) return 0;
  char c = 0;
  return read(STDIN_FILENO, &c, 1) == 1 ? c : 0;
}

bool StderrIsTerminal() {
  return isatty(STDERR_FILENO) != 0;
}

bool InForeground() {
  const pid_t group = tcgetpgrp(STDIN_FILENO);
  return group != -1 && group == getpgrp();
}

int TerminalColumns() {
  struct winsize size {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20) return size.ws_col;
  return 80;
}

}  // namespace qtool
