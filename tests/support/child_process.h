// Programs a test starts (the daemon, the simulator tools, peers such as
// chronyd), ended however the test ends.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace gps::test {

// Puts the calling child (just forked from `parent`) in a process group of
// its own and has the kernel kill it when the parent ends, even by SIGKILL or
// a crash. Only async-signal-safe calls: the parent may have other threads.
void BindChildToParent(pid_t parent);

// A program started as a child process, in a process group of its own. The
// destructor kills the whole group (the program and anything it started) and
// reaps the program, so a failed assertion, an exception or an early return
// leaves no process behind; if the test process itself dies, the kernel
// kills the program.
class ChildProcess {
 public:
  // The program's error output goes to `stderrPath` when one is given.
  explicit ChildProcess(std::vector<std::string> argv, const std::string& stderrPath = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool Signal(int signal) const;
  // The exit code; -1 when the program has not exited normally within 3 s.
  int ExitStatus();

 private:
  pid_t pid_ = -1;
  pid_t group_ = -1;  // kept once the program is reaped: what it started may still run
};

}  // namespace gps::test
