// talvern: the command-line tool over the talvern library.
#include "commands.h"
#include "help.h"
#include "terminal.h"

#include <talvern/version.h>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  using namespace tool;
  std::vector<std::string> args(argv + 1, argv + argc);
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
