// talvern: the command-line tool over the talvern library.
#include "commands.h"
#include "help.h"
#include "terminal.h"

#include <talvern/version.h>

#include <cstdio>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <shellapi.h>
#include <talvern/platform.h>
#include <windows.h>
#endif

namespace {

// The arguments as UTF-8. On Windows argv holds them in the ANSI code page,
// which cannot spell every file name: they are taken from the wide command
// line instead, and the console is switched to UTF-8 for what is printed.
std::vector<std::string> Arguments(int argc, char** argv) {
#if defined(_WIN32)
  SetConsoleOutputCP(CP_UTF8);
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide != nullptr) {
    std::vector<std::string> args;
    for (int i = 1; i < count; ++i) args.push_back(talvern::ToUtf8(wide[i]));
    LocalFree(wide);
    return args;
  }
#endif
  return std::vector<std::string>(argv + 1, argv + argc);
}

} // namespace

int main(int argc, char** argv) {
  using namespace tool;
  std::vector<std::string> args = Arguments(argc, argv);
  if (args.empty()) {
    std::fputs(GeneralHelp().c_str(), stderr);
    return kExitUsage;
  }
  // "talvern help [COMMAND]" is "talvern [COMMAND] --help".
  if (args[0] == "help") {
    args.erase(args.begin());
    args.push_back("--help");
  }

  std::string error;
  const auto options = ParseCommandLine(args, error);
  if (!options) {
    std::fprintf(stderr, "talvern: %s\nRun 'talvern --help' for help.\n", error.c_str());
    return kExitUsage;
  }
  if (options->help) {
    std::fputs(
        (options->command == Command::None ? GeneralHelp() : CommandHelp(options->command)).c_str(),
        stdout);
    return kExitOk;
  }
  if (options->version) {
    std::printf("talvern %s\n", TALVERN_VERSION_STRING);
    return kExitOk;
  }

  InstallInterruptHandler();
  Session session(*options);
  int code = kExitOk;
  switch (options->command) {
  case Command::Create:
    code = RunCreate(session);
    break;
  case Command::Add:
    code = RunAdd(session);
    break;
  case Command::Extract:
    code = RunExtract(session);
    break;
  case Command::List:
    code = RunList(session);
    break;
  case Command::Test:
    code = RunTest(session);
    break;
  case Command::Info:
    code = RunInfo(session);
    break;
  case Command::None:
    code = kExitUsage;
    break;
  }
  if (Interrupted() && code != kExitOk) code = kExitCancelled;
  std::fflush(stdout);
  return code;
}
