#include "terminal.h"

#include <csignal>
#include <cstdio>

#if defined(_WIN32)

#include <io.h>
#include <windows.h>

#include <iostream>

namespace tool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

BOOL WINAPI OnConsoleControl(DWORD type) {
  if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT) return FALSE;
  g_interrupted = 1;
  return TRUE;
}

} // namespace

bool ErrorIsTerminal() { return _isatty(_fileno(stderr)) != 0; }

int TerminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info))
    return info.srWindow.Right - info.srWindow.Left + 1;
  return 80;
}

void InstallInterruptHandler() { SetConsoleCtrlHandler(OnConsoleControl, TRUE); }
bool Interrupted() { return g_interrupted != 0; }
void RequestInterrupt() { g_interrupted = 1; }
bool CanAsk() { return _isatty(_fileno(stdin)) != 0; }

std::optional<std::string> AskTerminal(const std::string& question) {
  if (!CanAsk()) return std::nullopt;
  std::fflush(stdout);
  std::fputs(question.c_str(), stderr);
  std::fflush(stderr);
  std::string line;
  if (!std::getline(std::cin, line) || g_interrupted) return std::nullopt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

} // namespace tool

#else // POSIX

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// The terminal that questions are read from: standard input when it is a
// terminal, else the controlling terminal. -1 when there is none.
int QuestionInput(bool& owned) {
  owned = false;
  if (isatty(STDIN_FILENO)) return STDIN_FILENO;
  const int fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (fd >= 0) owned = true;
  return fd;
}

} // namespace

bool ErrorIsTerminal() { return isatty(STDERR_FILENO) != 0; }

int TerminalColumns() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0; // no restart: a pending read of an answer returns at once
  // Being told to end (by kill, timeout or a service manager) or losing the
  // terminal cancels the work as Ctrl-C does, so that nothing is left half
  // done.
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

bool Interrupted() { return g_interrupted != 0; }

void RequestInterrupt() { g_interrupted = 1; }

bool CanAsk() {
  bool owned = false;
  const int fd = QuestionInput(owned);
  if (owned) close(fd);
  return fd >= 0;
}

std::optional<std::string> AskTerminal(const std::string& question) {
  bool owned = false;
  const int fd = QuestionInput(owned);
  if (fd < 0) return std::nullopt;
  // The question goes where the answer comes from.
  const int out = owned ? fd : (isatty(STDERR_FILENO) ? STDERR_FILENO : STDOUT_FILENO);
  std::fflush(stdout);
  std::fflush(stderr);
  if (write(out, question.data(), question.size()) < 0) {
    // A question that cannot be shown is still answered; nothing to do.
  }
  std::string line;
  bool complete = false;
  while (!g_interrupted) {
    char c = 0;
    const ssize_t n = read(fd, &c, 1);
    if (n <= 0) break; // end of input, or Ctrl-C
    if (c == '\n') {
      complete = true;
      break;
    }
    if (c != '\r') line += c;
  }
  if (owned) close(fd);
  if (!complete || g_interrupted) return std::nullopt;
  return line;
}

} // namespace tool

#endif // _WIN32
