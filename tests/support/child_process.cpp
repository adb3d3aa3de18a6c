#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace gps::test {

void BindChildToParent(pid_t parent) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);  // the parent ended before the binding took
}

ChildProcess::ChildProcess(std::vector<std::string> argv, const std::string& stderrPath) {
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  const int errorOutput =
      stderrPath.empty() ? -1 : ::open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    BindChildToParent(parent);
    if (errorOutput >= 0) ::dup2(errorOutput, STDERR_FILENO);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  if (errorOutput >= 0) ::close(errorOutput);
  if (pid_ < 0) return;
  // Also from this side, so that the group exists before the constructor returns.
  ::setpgid(pid_, pid_);
  group_ = pid_;
}

ChildProcess::~ChildProcess() {
  if (group_ > 0) ::kill(-group_, SIGKILL);
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
}

bool ChildProcess::Signal(int signal) const { return pid_ > 0 && ::kill(pid_, signal) == 0; }

int ChildProcess::ExitStatus() {
  using namespace std::chrono_literals;
  int status = 0;
  for (const auto end = std::chrono::steady_clock::now() + 3s; pid_ > 0 && std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(20ms))
    if (::waitpid(pid_, &status, WNOHANG) == pid_) return pid_ = -1, WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return -1;
}

}  // namespace gps::test
