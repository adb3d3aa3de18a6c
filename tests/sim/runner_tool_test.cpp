// The receiver served for real, on the real clock: the runner on a socket
// pair whose peer does not read, and the ubx-sim tool on a pseudo-terminal.
#include "sim/runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

#include "tests/sim/sim_test_support.h"

namespace gps::sim {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool HasGga(const std::string& s) { return s.find("GGA,") != std::string::npos; }

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
  const testing::Bytes rate = testing::Frame(0x06, 0x08, {50, 0, 1, 0, 1, 0});
  ASSERT_EQ(write(fds[1], rate.data(), rate.size()), static_cast<ssize_t>(rate.size()));
  std::this_thread::sleep_for(2s);
  const testing::Output out = testing::Parse(testing::ReadFor(fds[1], 1000ms));
  EXPECT_TRUE(out.wellFormed);
  // Epochs are 50 ms apart: a larger step between two GGA is where messages were dropped.
  const std::vector<std::string> ggas = out.Sentences("GGA");
  ASSERT_GT(ggas.size(), 10u);
  bool dropped = false;
  for (size_t i = 1; i < ggas.size(); ++i)
    dropped |= std::stod(testing::Field(ggas[i], 1)) - std::stod(testing::Field(ggas[i - 1], 1)) > 0.06;
  EXPECT_TRUE(dropped);
  close(fds[1]);
}

// The tool serves a pseudo-terminal through a link; a client that closes
// the line and comes back starts on a fresh sentence, SIGTERM removes the
// link, and a regular file in the link's place is left alone.
TEST(SimTool, ServesNmeaOnItsLinkUntilTerminated) {
  char dir[] = "/tmp/ubx-sim-test-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  struct RemoveDir {
    std::filesystem::path path;
    ~RemoveDir() { std::filesystem::remove_all(path); }
  } removeDir{dir};
  const std::filesystem::path link = std::filesystem::path(dir) / "gps";
  const std::vector<std::string> argv = {UBX_SIM_BINARY, "--link", link.string(), "--ttff-ms", "500"};
  using Tool = testing::ChildProcess;

  std::ofstream(link) << "keep me";
  EXPECT_GT(Tool(argv).ExitStatus(), 0);
  EXPECT_EQ(std::filesystem::file_size(link), 7u) << "the regular file is kept";
  std::filesystem::remove(link);

  Tool tool(argv);
  ASSERT_GT(tool.pid(), 0);
  for (const auto end = Clock::now() + 2s; !std::filesystem::is_symlink(link) && Clock::now() < end;)
    std::this_thread::sleep_for(20ms);
  ASSERT_TRUE(std::filesystem::is_symlink(link));
  for (int client = 0; client < 2; ++client) {
    const int fd = open(link.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    const std::string got = testing::ReadFor(fd, 2000ms, HasGga);
    close(fd);
    EXPECT_TRUE(HasGga(got)) << "client " << client << " got: " << got;
    EXPECT_EQ(got.substr(0, 1), "$") << "client " << client << " starts on a sentence";
    EXPECT_TRUE(testing::Parse(got).wellFormed);
  }
  ASSERT_TRUE(tool.Signal(SIGTERM));
  EXPECT_EQ(tool.ExitStatus(), 0);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
}

}  // namespace
}  // namespace gps::sim
