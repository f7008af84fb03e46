#include "tool_runner.h"

#include "support/test_support.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tooltest {
namespace {

constexpr auto kDeadline = std::chrono::seconds(120);

std::vector<char*> Argv(const std::vector<std::string>& args, std::string& tool) {
  tool = ToolPath();
  std::vector<char*> argv;
  argv.push_back(tool.data());
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  return argv;
}

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

} // namespace

std::string ToolPath() { return TALVERN_TOOL_PATH; }

RunResult Run(const std::vector<std::string>& args, const std::string& cwd,
              const std::vector<std::string>& env, int signal, const std::function<bool()>& when) {
  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0) return {};
  std::string tool;
  std::vector<char*> argv = Argv(args, tool);
  const pid_t pid = fork();
  if (pid == 0) {
    setsid(); // no controlling terminal: the tool can ask nobody
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    close(out[0]);
    close(err[0]);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  RunResult result;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  int open = 2;
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (open > 0 && std::chrono::steady_clock::now() < deadline) {
    if (signal != 0 && when()) {
      kill(pid, signal);
      signal = 0;
    }
    if (poll(fds, 2, signal != 0 ? 5 : 200) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  if (open > 0) kill(pid, SIGKILL);
  for (const pollfd& f : fds)
    if (f.fd >= 0) close(f.fd);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = ExitCodeOf(status);
  return result;
}

RunResult RunOnTerminal(const std::vector<std::string>& args, const std::string& cwd,
                        const std::vector<std::string>& answers) {
  std::string tool;
  std::vector<char*> argv = Argv(args, tool);
  winsize size{30, 120, 0, 0};
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, &size);
  if (pid < 0) return {};
  if (pid == 0) {
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  RunResult result;
  std::size_t answered = 0, seen = 0;
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  bool gone = false;
  while (!gone && std::chrono::steady_clock::now() < deadline) {
    pollfd fd{master, POLLIN, 0};
    if (poll(&fd, 1, 200) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(master, buffer, sizeof buffer);
    if ((gone = n <= 0)) break; // EIO once the tool has gone
    result.out.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t at; (at = std::min(result.out.find("stop: ", seen),
                                        result.out.find("[c]ancel: ", seen))) != std::string::npos;
         seen = at + 1) {
      const std::string line = (answered < answers.size() ? answers[answered] : "q") + "\n";
      ++answered;
      if (write(master, line.data(), line.size()) < 0) break;
    }
  }
  close(master);
  if (!gone) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = ExitCodeOf(status);
  return result;
}

} // namespace tooltest
