// The receiver served for real: in-process on a socket pair, and the ubx-sim
// tool on a pseudo-terminal. These run on the real clock.
#include "sim/embedded_receiver.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

#include "sim/runner.h"
#include "tests/sim/sim_test_support.h"

extern char** environ;

namespace gps::sim {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Reads from `fd` until `done` holds for what came so far, or `timeout`.
std::string ReadFor(int fd, std::chrono::milliseconds timeout,
                    const std::function<bool(const std::string&)>& done = [](const std::string&) { return false; }) {
  std::string got;
  const auto end = Clock::now() + timeout;
  while (Clock::now() < end && !done(got)) {
    pollfd p{fd, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (poll(&p, 1, static_cast<int>(std::max<long>(left, 0))) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    got.append(buffer, static_cast<size_t>(n));
  }
  return got;
}

bool HasGga(const std::string& s) { return s.find("GGA,") != std::string::npos; }

TEST(SimEmbedded, ServesASocketPairUnderThePowerSwitch) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  EmbeddedOptions options;
  options.ttffMs = 1000;
  std::string error;
  auto receiver = EmbeddedReceiver::Start(fds[0], options, &error);
  ASSERT_TRUE(receiver) << error;
  const int host = fds[1];
  EXPECT_EQ(ReadFor(host, 1500ms), "") << "starts powered off";

  receiver->SetPowered(true);
  const std::string on = ReadFor(host, 2500ms, HasGga);
  const testing::Output out = testing::Parse(on);
  EXPECT_FALSE(out.Sentences("GGA").empty());
  EXPECT_TRUE(out.allChecksumsOk);

  const std::vector<uint8_t> poll = testing::Frame(0x0A, 0x04, {});
  ASSERT_EQ(write(host, poll.data(), poll.size()), static_cast<ssize_t>(poll.size()));
  const std::string answer = ReadFor(host, 2000ms, [](const std::string& s) {
    return !testing::Parse(s).Frames(0x0A, 0x04).empty();
  });
  EXPECT_EQ(testing::Parse(answer).Frames(0x0A, 0x04).size(), 1u);
  EXPECT_EQ(receiver->ReceivedFrames(), std::vector<std::vector<uint8_t>>{poll});

  receiver->SetPowered(false);
  ReadFor(host, 100ms);  // what was already on the line
  EXPECT_EQ(ReadFor(host, 1500ms), "");

  receiver.reset();  // stops the thread and closes its end
  char byte;
  EXPECT_EQ(read(host, &byte, 1), 0);
  close(host);

  options.scenarioFile = "/nonexistent/scenario";
  EXPECT_FALSE(EmbeddedReceiver::Start(socket(AF_UNIX, SOCK_STREAM, 0), options, &error));
  EXPECT_NE(error.find("/nonexistent/scenario"), std::string::npos) << error;
}

// A host that stops reading: the runner's queue stays bounded by dropping
// whole messages, so what finally arrives is still a clean stream.
TEST(SimRunner, SlowPeerLosesOnlyWholeMessages) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
  const int small = 4096;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  ReceiverConfig config;
  config.ttffMs = 0;
  Runner runner(fds[0], testing::MakeTestReceiver(config), RunnerOptions{"", 3000});
  std::string error;
  ASSERT_TRUE(runner.Start(&error)) << error;
  // 20 epochs a second, about 25 kB/s of output.
  const std::vector<uint8_t> rate = testing::Frame(0x06, 0x08, {50, 0, 1, 0, 1, 0});
  ASSERT_EQ(write(fds[1], rate.data(), rate.size()), static_cast<ssize_t>(rate.size()));
  std::this_thread::sleep_for(2s);
  const testing::Output out = testing::Parse(ReadFor(fds[1], 1000ms));
  EXPECT_TRUE(out.allChecksumsOk);
  // Epochs are 50 ms apart: a larger step between two GGA is where messages were dropped.
  std::vector<double> times;
  for (const std::string& gga : out.Sentences("GGA")) times.push_back(std::stod(testing::Field(gga, 1)));
  ASSERT_GT(times.size(), 10u);
  bool dropped = false;
  for (size_t i = 1; i < times.size(); ++i) dropped |= times[i] - times[i - 1] > 0.06;
  EXPECT_TRUE(dropped);
  runner.Stop();
  close(fds[1]);
}

class SimTool : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/ubx-sim-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    dir_ = dir;
    link_ = dir_ / "gps";
  }
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    std::filesystem::remove_all(dir_);
  }
  // Starts the tool; its standard output goes to a file in the temp dir.
  void Launch() {
    std::string out = (dir_ / "stdout").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::string link = link_.string();
    const char* argv[] = {UBX_SIM_BINARY, "--link", link.c_str(), "--ttff-ms", "500", nullptr};
    ASSERT_EQ(posix_spawn(&pid_, UBX_SIM_BINARY, &actions, nullptr, const_cast<char**>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
  }
  bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    for (const auto end = Clock::now() + timeout; Clock::now() < end; std::this_thread::sleep_for(20ms))
      if (condition()) return true;
    return condition();
  }

  std::filesystem::path dir_;
  std::filesystem::path link_;
  pid_t pid_ = -1;
};

TEST_F(SimTool, ServesNmeaOnItsLinkUntilTerminated) {
  Launch();
  ASSERT_TRUE(WaitFor([&] { return std::filesystem::is_symlink(link_); }, 2000ms));
  for (int client = 0; client < 2; ++client) {  // closing and reopening the line
    const int fd = open(link_.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    const std::string got = ReadFor(fd, 2000ms, HasGga);
    close(fd);
    EXPECT_TRUE(HasGga(got)) << "client " << client << " got: " << got;
    EXPECT_EQ(got.front(), '$') << "a fresh client starts on a sentence";
    EXPECT_TRUE(testing::Parse(got).allChecksumsOk);
  }
  std::ifstream stdoutFile(dir_ / "stdout");
  std::string line;
  std::getline(stdoutFile, line);
  EXPECT_NE(line.find(link_.string()), std::string::npos) << line;

  ASSERT_EQ(kill(pid_, SIGTERM), 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
  pid_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link_)));
}

TEST_F(SimTool, RefusesToReplaceARegularFile) {
  std::ofstream(link_) << "keep me";
  Launch();
  int status = 0;
  ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
  pid_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 0);
  std::ifstream in(link_);
  std::string kept;
  std::getline(in, kept);
  EXPECT_EQ(kept, "keep me");
}

}  // namespace
}  // namespace gps::sim
