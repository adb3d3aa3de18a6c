#include "tests/integration/engine_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/root.h"
#include "tests/support/child_process.h"
#include "tests/support/pty_receiver.h"

namespace gps::test {

void InEngineProcess(const std::function<void()>& body, std::chrono::seconds limit) {
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t parent = getpid();
  const pid_t child = fork();
  ASSERT_GE(child, 0) << "fork failed";
  if (child == 0) {
    BindChildToParent(parent);
    alarm(static_cast<unsigned>(limit.count()));  // a hung engine fails the test instead of the run
    body();
    std::fflush(stdout);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status))
    ADD_FAILURE() << "the engine process died of signal " << WTERMSIG(status)
                  << (WTERMSIG(status) == SIGALRM ? " (time limit)" : "");
  else
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the engine process reported failures (above)";
}

std::chrono::nanoseconds EngineThreadCpuTime() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (name != "gps-engine") continue;
    const auto tid = static_cast<unsigned>(std::stoul(task.path().filename().string()));
    // The kernel's encoding of a thread's CPU clock (scheduler time).
    const auto clock = static_cast<clockid_t>((~tid << 3) | 6);
    timespec t{};
    if (clock_gettime(clock, &t) != 0) break;
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
  }
  ADD_FAILURE() << "no engine thread in this process";
  return {};
}

void WriteOptionalParameters(const TempRoot& root, const std::string& ini) {
  std::filesystem::create_directories(root / "home/LEGACY_FS/HOST");
  std::ofstream(root / "home/LEGACY_FS/HOST/GPS_optional_parameters.ini") << ini;
}

SimulatedReceiver::SimulatedReceiver(const TempRoot& root, sim::EmbeddedOptions options,
                                     const std::string& optionalIni) {
  const RawPty pty = OpenRawPty();
  // The simulator's port, as a real receiver's would be set; a UART talks at 9600.
  if (options.port != 3 && options.lineBaud == 0) options.lineBaud = 9600;
  std::ofstream(root / "platform.ini") << "[platform]\nmodule_type = 2\n[gps]\ndevice = " << pty.slave
                                       << "\nbaud = " << (options.port == 3 ? 9600 : options.lineBaud)
                                       << "\nport = " << (options.port == 3 ? "usb" : "uart1") << "\n";
  if (!optionalIni.empty()) WriteOptionalParameters(root, optionalIni);
  platform::ReloadRoot();
  options.startPowered = true;
  std::string error;
  receiver = sim::EmbeddedReceiver::Start(pty.master, options, &error);
  if (!receiver) ADD_FAILURE() << "simulator: " << error;
}

std::vector<std::vector<uint8_t>> SimulatedReceiver::Frames(uint8_t cls, uint8_t id) const {
  std::vector<std::vector<uint8_t>> out;
  for (auto& f : Frames())
    if (f[2] == cls && f[3] == id) out.push_back(f);
  return out;
}

}  // namespace gps::test
