// The GPRS modem's GPS served for real on a pseudo-terminal: a host written
// here from the wire format, the engine's own command channel as a second
// host, and the gprs-modem-sim tool as a process.
#include "sim/modem_channel.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>

#include "engine/gps_device.h"
#include "engine/gps_private_info.h"
#include "tests/sim/sim_test_support.h"
#include "tests/support/pty_receiver.h"
#include "tests/support/test_env.h"
#include "transport/pty_channel.h"

namespace gps::sim {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string Le32(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}
std::string Command(uint32_t code, const std::string& data = "") {
  return Le32(code) + Le32(static_cast<uint32_t>(data.size())) + data;
}
std::string Response(uint32_t code, int32_t status, const std::string& bytes = "") {
  return Le32(code) + Le32(static_cast<uint32_t>(status)) + Le32(static_cast<uint32_t>(bytes.size())) + bytes;
}
const std::string kDefaultVersion = std::string("GPRS-MODEM-SIM GNSS 1.0") + '\0';

auto Contains(const std::string& what) {
  return [what](const std::string& got) { return got.find(what) != std::string::npos; };
}

// The line as the host sees it: whole sentences and whole responses in
// arrival order; not well formed when a sentence is torn or anything else
// lies between them.
struct Line {
  std::vector<std::string> items;
  bool wellFormed = true;

  std::vector<std::string> Sentences(const std::string& address) const {  // e.g. "GPGGA"
    std::vector<std::string> out;
    for (const std::string& s : items)
      if (s[0] == '$' && s.compare(1, address.size(), address) == 0) out.push_back(s);
    return out;
  }
  std::vector<std::string> Responses() const {
    std::vector<std::string> out;
    std::copy_if(items.begin(), items.end(), std::back_inserter(out), [](auto& s) { return s[0] != '$'; });
    return out;
  }
};

Line Split(const std::string& raw) {
  Line line;
  for (size_t i = 0; i < raw.size();) {
    size_t size = 0;
    if (raw[i] == '$') {
      const size_t end = raw.find("\r\n", i);
      size = end == std::string::npos ? raw.size() - i : end + 2 - i;
      line.wellFormed &= testing::Parse(raw.substr(i, size)).wellFormed;
    } else if (i + 12 <= raw.size()) {
      const testing::Bytes header(raw.begin() + static_cast<long>(i), raw.begin() + static_cast<long>(i + 12));
      size = 12 + testing::U32(header, 8);
      if (i + size > raw.size()) return line.wellFormed = false, line;
    } else {
      return line.wellFormed = false, line;
    }
    line.items.push_back(raw.substr(i, size));
    i += size;
  }
  return line;
}

// The host end of the line: the slave opened as a client would.
struct Host {
  explicit Host(const std::string& path) : fd(open(path.c_str(), O_RDWR | O_NOCTTY)) {}
  ~Host() { close(fd); }
  void Send(const std::string& bytes) const { ASSERT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size())); }
  const int fd;
};

// The modem standing at 48.8566 N 2.3522 E from 2024-03-18 12:00:00 UTC.
class ModemSim : public ::testing::Test {
 protected:
  void Start(uint32_t fixPeriodMs = 1000, uint32_t ttffMs = 0, std::string versionText = "GPRS-MODEM-SIM GNSS 1.0") {
    const test::RawPty pty = test::OpenRawPty();
    slave_ = pty.slave;
    const ModemConfig config{std::move(versionText), fixPeriodMs, ttffMs, testing::kStartUtcMs};
    channel_ =
        std::make_unique<ModemChannel>(pty.master, ModemGps(config, Scenario::FixedPoint({48.8566, 2.3522, 35})));
    std::string error;
    ASSERT_TRUE(channel_->Start(&error)) << error;
  }

  std::string slave_;
  std::unique_ptr<ModemChannel> channel_;
};

TEST_F(ModemSim, CommandsAreFramedAndAnswered) {
  Start();
  const struct {
    const char* legend;
    std::string sent, answered;
    bool byteByByte = false;
  } cases[] = {
      {"version", Command(0x812C), Response(0x812C, 0, kDefaultVersion)},
      {"unknown code", Command(0x4711), Response(0x4711, modem::kStatusUnknownCommand)},
      {"data is skipped, the next command follows at once", Command(0x812C, "xyz") + Command(0x4711),
       Response(0x812C, 0, kDefaultVersion) + Response(0x4711, modem::kStatusUnknownCommand)},
      {"a command in single bytes", Command(0x812C, "a"), Response(0x812C, 0, kDefaultVersion), true},
      {"a data length no command has", Le32(0x812C) + Le32(1 << 20), Response(0x812C, modem::kStatusTooMuchData)},
  };
  Host host(slave_);
  for (const auto& c : cases) {
    for (size_t at = 0; at < c.sent.size(); at += c.byteByByte ? 1 : c.sent.size(), std::this_thread::sleep_for(2ms))
      host.Send(c.sent.substr(at, c.byteByByte ? 1 : std::string::npos));
    EXPECT_EQ(testing::ReadFor(host.fd, 1s, [&](auto& got) { return got.size() >= c.answered.size(); }), c.answered)
        << c.legend;
  }
  EXPECT_EQ(channel_->commandCount(), 6u);
  EXPECT_FALSE(channel_->running()) << "none of them was a run";
}

TEST_F(ModemSim, RunStreamsFixesAfterTheTtffAndStopEndsTheStream) {
  Start(100, 500);
  Host host(slave_);
  host.Send(Command(0x812D));
  Line line = Split(testing::ReadFor(host.fd, 1300ms));
  ASSERT_TRUE(line.wellFormed);
  ASSERT_FALSE(line.items.empty());
  EXPECT_EQ(line.items.front(), Response(0x812D, 0)) << "the answer comes before any sentence";
  EXPECT_TRUE(channel_->running());

  const std::vector<std::string> gga = line.Sentences("GPGGA");
  ASSERT_GE(gga.size(), 10u);
  size_t withoutFix = 0;
  while (withoutFix < gga.size() && testing::Field(gga[withoutFix], 6) == "0") ++withoutFix;
  // Bursts fall on whole 100 ms: four or five of them come within 500 ms.
  EXPECT_GE(withoutFix, 4u);
  EXPECT_LE(withoutFix, 5u);
  for (size_t i = withoutFix; i < gga.size(); ++i)
    EXPECT_EQ(gga[i].substr(17, 35), "4851.39600,N,00221.13200,E,1,10,1.1") << "a fix is not lost again";
  // Every burst has them all; the read may have ended inside the last one.
  const std::vector<std::string> gsv = line.Sentences("GPGSV");
  const auto gsvGroups = std::count_if(gsv.begin(), gsv.end(), [](auto& s) { return testing::Field(s, 2) == "1"; });
  EXPECT_NEAR(static_cast<double>(gsvGroups), static_cast<double>(gga.size()), 1);
  for (const char* address : {"GPRMC", "GPVTG", "GPGSA"})
    EXPECT_NEAR(static_cast<double>(line.Sentences(address).size()), static_cast<double>(gga.size()), 1) << address;
  EXPECT_EQ(line.Sentences("GP").size() + 1, line.items.size()) << "a GPS-only modem talks as GP only";

  host.Send(Command(0x812E));
  line = Split(testing::ReadFor(host.fd, 600ms));
  ASSERT_TRUE(line.wellFormed);
  const auto stop = std::find(line.items.begin(), line.items.end(), Response(0x812E, 0));
  ASSERT_NE(stop, line.items.end());
  EXPECT_EQ(stop + 1, line.items.end()) << "nothing follows the stop";
  EXPECT_FALSE(channel_->running());
}

// A host that does not read fills the line; answers to the commands it
// sends meanwhile must still go between whole sentences.
TEST_F(ModemSim, ResponsesGoBetweenWholeSentences) {
  Start(2, 0);
  Host host(slave_);
  host.Send(Command(0x812D));
  std::string expected = Response(0x812D, 0);
  for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(10ms)) {
    host.Send(Command(0x812C));
    expected += Response(0x812C, 0, kDefaultVersion);
  }
  host.Send(Command(0x812E));
  expected += Response(0x812E, 0);
  std::string got = testing::ReadFor(host.fd, 5s, Contains(Response(0x812E, 0)));
  got += testing::ReadFor(host.fd, 200ms);
  const Line line = Split(got);
  EXPECT_TRUE(line.wellFormed);
  std::string responses;
  for (const std::string& r : line.Responses()) responses += r;
  EXPECT_EQ(responses, expected);
  EXPECT_GT(line.Sentences("GPGGA").size(), 20u) << "the line was busy";
}

TEST_F(ModemSim, AHostThatReopensIsServedAfresh) {
  const auto started = Clock::now();
  Start(100, 0);
  auto host = std::make_unique<Host>(slave_);
  host->Send(Command(0x812D));
  std::this_thread::sleep_for(350ms);        // bursts pile up unread
  host->Send(Command(0x812C).substr(0, 5));  // and it leaves in the middle of a command
  host.reset();
  const double closedS = std::chrono::duration<double>(Clock::now() - started).count();

  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  std::this_thread::sleep_for(500ms);
  getrusage(RUSAGE_SELF, &after);
  const auto cpuUs = [](const rusage& r) {
    return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000000L + r.ru_utime.tv_usec + r.ru_stime.tv_usec;
  };
  EXPECT_LT(cpuUs(after) - cpuUs(before), 100000) << "waiting for a host must not spin";
  EXPECT_TRUE(channel_->running()) << "the GPS runs on without a host";

  host = std::make_unique<Host>(slave_);
  host->Send(Command(0x812C));
  const Line line = Split(testing::ReadFor(host->fd, 600ms));
  EXPECT_TRUE(line.wellFormed);
  EXPECT_EQ(line.Responses(), std::vector<std::string>{Response(0x812C, 0, kDefaultVersion)})
      << "neither the old run answer nor the half command of the last host";
  const std::vector<std::string> gga = line.Sentences("GPGGA");
  ASSERT_FALSE(gga.empty());
  const double firstS = std::stod(testing::Field(gga.front(), 1)) - 120000;  // the modem's clock starts at 12:00:00
  EXPECT_GT(firstS, closedS + 0.3) << "no sentence left over from the last host: " << gga.front();
}

// The engine's command channel as the host, through the link where it
// looks for the modem; its receiver reads are plain reads of the same line.
class ModemSimWithEngine : public ModemSim {
 protected:
  int OpenEngineChannel() {
    std::filesystem::create_directories(root_ / "tmp");
    std::filesystem::create_symlink(slave_, root_ / "tmp/gps_dgprs");
    test::ResetEngine(0);
    EXPECT_EQ(lib_GPS_OpenDevice(&gps_private_info), 0);
    return static_cast<int>(gps_private_info.com_gps);
  }
  void TearDown() override { lib_GPS_CloseDevice(&gps_private_info); }

  test::TempRoot root_;
};

// An answer larger than the engine's buffer is refused but read to its end,
// and so are sentences left unread before a command: the next exchange is in
// step with the modem.
TEST_F(ModemSimWithEngine, OversizedAnswersAndUnreadSentencesDoNotShiftTheExchanges) {
  Start(100, 0, std::string(60, 'v'));
  OpenEngineChannel();
  test::LogCapture log;
  uint8_t version[50] = {};
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_GET_VERSION, version, sizeof version, 0), -1);
  EXPECT_TRUE(log.contains("[GPS] PTY_SendCommand: Not enough space to store response (50 < 61)!"));
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_RUN, nullptr, 0, 0), 0);
  std::this_thread::sleep_for(350ms);  // sentences pile up unread
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_STOP, nullptr, 0, 0), 0);
  EXPECT_FALSE(channel_->running());
  EXPECT_EQ(channel_->commandCount(), 3u);
}

TEST(ModemSimTool, ServesOnItsLinkUntilTerminated) {
  test::TempRoot root;  // also the tool's platform root
  const std::string link = root / "modem";
  const auto waitForLink = [](const std::string& path) {
    for (const auto end = Clock::now() + 2s; Clock::now() < end; std::this_thread::sleep_for(20ms))
      if (std::error_code ec; std::filesystem::read_symlink(path, ec).string().starts_with("/dev/")) return true;
    return false;
  };

  // (A regular file in the link's place is refused by the link code both
  // simulators share; ubx-sim's tool test covers it.)
  std::filesystem::create_symlink(root / "gone", link);  // left by a simulator that died

  testing::ChildProcess tool(
      {GPRS_MODEM_SIM_BINARY, "--link", link, "--version-text", "MODEM 9.9", "--rate-ms", "100", "--ttff-ms", "0"});
  ASSERT_TRUE(waitForLink(link)) << "the stale link is replaced";
  {
    Host host(link);
    host.Send(Command(0x812C) + Command(0x812D));
    const Line line = Split(testing::ReadFor(host.fd, 2s, Contains("E,1,")));
    EXPECT_TRUE(line.wellFormed);
    EXPECT_EQ(line.Responses(),
              (std::vector<std::string>{Response(0x812C, 0, std::string("MODEM 9.9") + '\0'), Response(0x812D, 0)}));
    EXPECT_FALSE(line.Sentences("GPGGA").empty());
  }
  ASSERT_TRUE(tool.Signal(SIGTERM));
  EXPECT_EQ(tool.ExitStatus(), 0);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));

  // Without --link: the channel's place below the platform root.
  testing::ChildProcess byDefault({GPRS_MODEM_SIM_BINARY});
  EXPECT_TRUE(waitForLink(root / "tmp/gps_dgprs"));
  ASSERT_TRUE(byDefault.Signal(SIGINT));
  EXPECT_EQ(byDefault.ExitStatus(), 0);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(root / "tmp/gps_dgprs")));
}

}  // namespace
}  // namespace gps::sim
