// Runs the real operator tool binary as a child process and collects its exit
// code and its output: the helpers of the CLI tests.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace CliTest {

struct Result {
  int code = -1;
  std::string out;
  std::string err;
};

inline std::string slurp(std::string const& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// Starts the tool with `args`, its stdout and stderr into the files `out`
// and `err`; `inChild`, if given, runs in the child just before the tool
// starts (limits, setenv). Returns its pid.
inline pid_t startTool(std::vector<std::string> args, std::string const& out,
                       std::string const& err, std::function<void()> const& inChild = nullptr) {
  pid_t const pid = ::fork();
  if (pid == 0) {
    // A tool that hangs dies of SIGALRM: a failure, not a stuck suite.
    ::alarm(60);
    int const o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int const e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0 || ::dup2(o, 1) < 0 || ::dup2(e, 2) < 0) ::_exit(127);
    if (inChild) inChild();
    std::vector<char*> argv{const_cast<char*>(FLOWTABLE_BINARY)};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(FLOWTABLE_BINARY, argv.data());
    ::_exit(127);
  }
  return pid;
}

// Runs the tool with `args`; its stdout and stderr go through the files
// `outBase`.out and `outBase`.err, which are removed afterwards.
inline Result runTool(std::vector<std::string> args, std::string const& outBase,
                      std::function<void()> const& inChild = nullptr) {
  std::string const out = outBase + ".out", err = outBase + ".err";
  pid_t const pid = startTool(std::move(args), out, err, inChild);
  Result r;
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return r;
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = slurp(out);
  r.err = slurp(err);
  ::unlink(out.c_str());
  ::unlink(err.c_str());
  return r;
}

}  // namespace CliTest
