// Runs the built talvern tool for the end-to-end tests: with pipes (no
// terminal at all), or on a pseudo-terminal with answers typed at its
// questions.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tooltest {

struct RunResult {
  int exitCode = -1;
  std::string out; // standard output (on a terminal: everything shown)
  std::string err; // standard error (empty on a terminal)
};

// The tool's path in the build tree.
std::string ToolPath();

// Runs the tool in cwd with standard input from /dev/null, without a
// controlling terminal, with the environment variables NAME=VALUE of env
// added.
// With a signal, it is sent once, as soon as `when` returns true.
RunResult Run(const std::vector<std::string>& args, const std::string& cwd,
              const std::vector<std::string>& env = {}, int signal = 0,
              const std::function<bool()>& when = {});

// Runs the tool on a pseudo-terminal (all it shows lands in out), typing the
// next answer and Enter at each question ("stop: ", "[c]ancel: "), then "q".
RunResult RunOnTerminal(const std::vector<std::string>& args, const std::string& cwd,
                        const std::vector<std::string>& answers);

} // namespace tooltest
