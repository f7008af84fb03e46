// The person at the terminal: whether output goes to a terminal, how wide it
// is, questions asked on it, and Ctrl-C. This is the one part of the tool
// that talks to the operating system directly rather than through the Win32
// layer.
#pragma once

#include <optional>
#include <string>

namespace tool {

// Whether standard error is a terminal (the progress bar goes there).
bool ErrorIsTerminal();
// Columns of the terminal on standard error; 80 when unknown.
int TerminalColumns();

// Ctrl-C (and SIGTERM or SIGHUP) sets a flag that the hooks read; the
// library then cancels cleanly.
void InstallInterruptHandler();
bool Interrupted();
// Marks the run as interrupted (a prompt that was answered with "cancel").
void RequestInterrupt();

// Asks a question on the terminal (standard input when it is one, else
// /dev/tty) and returns the answer line without its end, or nothing when
// there is no terminal, the input ended or Ctrl-C was pressed.
std::optional<std::string> AskTerminal(const std::string& question);
// Whether a question could be asked at all.
bool CanAsk();

} // namespace tool
