// Any bytes as an archive given to the tool's list, test and info commands:
// each ends with one of the exit codes it documents for an archive that
// exists.
#include "fuzz_common.h"

#include "commands.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = (std::filesystem::temp_directory_path() /
                                   ("talvern-fuzz-" + std::to_string(getpid()) + ".arc"))
                                      .string();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  for (const char* command : {"list", "test", "info"}) {
    std::vector<std::string> args = {command, "-q", path};
    std::string error;
    const auto options = tool::ParseCommandLine(args, error);
    FUZZ_CHECK(options.has_value());
    tool::Session session(*options);
    const std::string name = command;
    const int code = name == "list"   ? tool::RunList(session)
                     : name == "test" ? tool::RunTest(session)
                                      : tool::RunInfo(session);
    FUZZ_CHECK(code == tool::kExitOk || code == tool::kExitSomeFailed ||
               code == tool::kExitDamaged);
  }
  std::filesystem::remove(path);
  return 0;
}
