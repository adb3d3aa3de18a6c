// The gpsd-compatible endpoint and the chrony source of gps-service on its
// simulated receiver, read by the programs Linux users run: gpspipe, the
// python3-gps module, cgps under tmux, chronyd and chronyc.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "client/gps_client.h"
#include "platform/root.h"
#include "tests/export/gpsd_schema.h"
#include "tests/integration/engine_process.h"
#include "tests/sim/sim_test_support.h"

namespace {

using namespace std::chrono_literals;
using gps::sim::testing::ChildProcess;
using gps::test::WaitFor;

// Output of a shell command line, which runs at most `seconds`.
std::string Shell(const std::string& command, int seconds) {
  const std::string line = "timeout -s KILL " + std::to_string(seconds) + " " + command + " 2>&1";
  std::string out;
  if (FILE* pipe = ::popen(line.c_str(), "r")) {
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    ::pclose(pipe);
  }
  return out;
}

// The tests use the real programs; one that is missing fails the test with
// what to install (scripts/install-deps installs them all).
void RequireProgram(const char* path, const char* package) {
  ASSERT_EQ(::access(path, X_OK), 0) << path << " is missing: install the Debian package " << package
                                     << " (scripts/install-deps does)";
}

int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

int ConnectTcp(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

int ConnectUnix(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), std::min(path.size(), sizeof address.sun_path - 1));
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Reads lines from a connection until one satisfies `want` or 5 s pass.
template <typename Want>
std::string ReadUntil(int fd, Want want) {
  std::string pending;
  const auto end = std::chrono::steady_clock::now() + 5s;
  while (std::chrono::steady_clock::now() < end) {
    size_t newline;
    while ((newline = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, newline + 1);
      pending.erase(0, newline + 1);
      if (want(line)) return line;
    }
    timeval timeout{0, 200000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    char buffer[4096];
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0) return "<closed>";
    if (n > 0) pending.append(buffer, static_cast<size_t>(n));
  }
  return "<nothing within 5 s>";
}

bool IsClass(const std::string& line, const std::string& cls) {
  return line.find("\"class\":\"" + cls + "\"") != std::string::npos;
}

// "4807.038","N" -> 48.1173
double NmeaDegrees(const std::string& value, const std::string& hemisphere) {
  const size_t point = value.find('.');
  const double degrees = std::stod(value.substr(0, point - 2));
  const double minutes = std::stod(value.substr(point - 2));
  const double d = degrees + minutes / 60.0;
  return hemisphere == "S" || hemisphere == "W" ? -d : d;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  std::string part;
  while (std::getline(in, part, separator)) parts.push_back(part);
  return parts;
}

class GpsdEndpoint : public testing::Test {
 protected:
  void SetUp() override {
    port_ = FreePort();
    std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 300\n[log]\ntarget = stderr\n"
                                          << "[gpsd]\nlisten = 127.0.0.1:" << port_ << "\nsocket = run/gpsd.sock\n"
                                          << "[chrony]\nsocket = " << (root_ / "chrony.gps.sock") << "\n";
    gps::platform::ReloadRoot();
    service_ = std::make_unique<ChildProcess>(std::vector<std::string>{GPS_SERVICE_BINARY}, root_ / "service.log");
    auto client = gps::client::GpsClient::Connect(10s);
    ASSERT_TRUE(client.ok()) << client.error().message();
    client->setTimeout(5s);
    ASSERT_TRUE(client->SetParameters(true, {}).ok()) << "receiver on";
    client_.emplace(std::move(client.value()));
  }
  std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string ServiceLog() const {
    std::ifstream in(root_ / "service.log");
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  gps::test::TempRoot root_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> service_;
  std::optional<gps::client::GpsClient> client_;
};

// gpspipe -w shows TPV with a 3D fix at the position of the simulator's own
// GGA of the same second, and SKY with satellites; every object follows the
// protocol.
TEST_F(GpsdEndpoint, GpspipeShowsTheSimulatorsFixAndSky) {
  RequireProgram("/usr/bin/gpspipe", "gpsd-clients");
  std::string raw;
  std::thread rawReader([&] { raw = Shell("gpspipe -r -n 60 " + Address(), 10); });
  const std::string json = Shell("gpspipe -w -n 12 " + Address(), 10);
  rawReader.join();

  std::map<std::string, std::pair<double, double>> ggaByTime;  // "hhmmss" -> lat, lon
  for (const std::string& line : Split(raw, '\n')) {
    const auto f = Split(line, ',');
    if (f.size() > 6 && f[0].size() == 6 && f[0].substr(3) == "GGA" && f[6] != "0")
      ggaByTime[f[1].substr(0, 6)] = {NmeaDegrees(f[2], f[3]), NmeaDegrees(f[4], f[5])};
  }
  int fixes = 0, skies = 0, objects = 0;
  for (const std::string& line : Split(json, '\n')) {
    const auto object = nlohmann::json::parse(line, nullptr, false);
    ASSERT_FALSE(object.is_discarded()) << "not JSON: " << line << "\n" << json;
    ++objects;
    EXPECT_EQ(gps::test::SchemaProblems(object), "") << line;
    if (object["class"] == "TPV" && object["mode"] == 3) {
      ++fixes;
      EXPECT_EQ(object["device"], "sim") << "a simulated fix says so";
      const std::string time = object["time"];  // 2026-11-23T12:34:56.000Z
      const std::string hhmmss = time.substr(11, 2) + time.substr(14, 2) + time.substr(17, 2);
      const auto gga = ggaByTime.find(hhmmss);
      ASSERT_NE(gga, ggaByTime.end()) << "no GGA of " << time << " in\n" << raw;
      EXPECT_NEAR(object["lat"].get<double>(), gga->second.first, 1e-6) << line;
      EXPECT_NEAR(object["lon"].get<double>(), gga->second.second, 1e-6) << line;
    }
    if (object["class"] == "SKY" && object["satellites"].size() > 0) ++skies;
  }
  EXPECT_EQ(objects, 12) << json;
  EXPECT_GE(fixes, 1) << json;
  EXPECT_GE(skies, 1) << "the configured receiver sends no GSV; its satellites come from GSA\n" << json;
}

TEST_F(GpsdEndpoint, Python3GpsModuleReadsAFix) {
  RequireProgram("/usr/bin/python3", "python3");
  ASSERT_EQ(Shell("/usr/bin/python3 -c 'import gps'", 10), "") << "install the Debian package python3-gps";
  const std::string script = root_ / "read_fix.py";
  std::ofstream(script) << "import sys, gps\n"
                           "session = gps.gps(host='127.0.0.1', port=" << port_ << ", mode=gps.WATCH_ENABLE)\n"
                           "for _ in range(60):\n"
                           "    report = session.next()\n"
                           "    if report['class'] == 'TPV' and getattr(report, 'mode', 0) == 3:\n"
                           "        print('FIX', report.device, round(report.lat, 6), round(report.lon, 6))\n"
                           "        sys.exit(0)\n"
                           "sys.exit(1)\n";
  const std::string out = Shell("/usr/bin/python3 " + script, 10);
  EXPECT_EQ(out.rfind("FIX sim 48.", 0), 0u) << out;
}

TEST_F(GpsdEndpoint, CgpsUnderTmuxShows3DFix) {
  RequireProgram("/usr/bin/cgps", "gpsd-clients");
  RequireProgram("/usr/bin/tmux", "tmux");
  const std::string tmux = "tmux -L gpsd-endpoint-" + std::to_string(::getpid()) + " ";
  Shell(tmux + "new-session -d -x 100 -y 40 'TERM=xterm cgps -s " + Address() + "'", 5);
  std::string screen;
  const bool shown = WaitFor(
      [&] {
        screen = Shell(tmux + "capture-pane -p", 5);
        return screen.find("3D FIX") != std::string::npos;
      },
      8s);
  Shell(tmux + "kill-server", 5);
  EXPECT_TRUE(shown) << screen;
}

// The simulator's own time against the system clock [s]: an RMC's time and
// date against the system clock when the sentence arrives through the
// endpoint. The simulator does not start its epochs on whole seconds.
double SimulatorOffsetS(int port) {
  const int fd = ConnectTcp(port);
  const std::string watch = "?WATCH={\"enable\":true,\"nmea\":true,\"json\":false};";
  ::send(fd, watch.data(), watch.size(), MSG_NOSIGNAL);
  double offset = 1e9;
  for (int epochs = 0; epochs < 3;) {
    const std::string line = ReadUntil(fd, [](const std::string& l) { return l.find("RMC,") == 3; });
    const auto now = std::chrono::system_clock::now();
    const auto f = Split(line, ',');
    if (f.size() < 10 || f[1].size() < 6 || f[9].size() != 6) break;
    std::tm t{};
    t.tm_hour = std::stoi(f[1].substr(0, 2));
    t.tm_min = std::stoi(f[1].substr(2, 2));
    t.tm_mday = std::stoi(f[9].substr(0, 2));
    t.tm_mon = std::stoi(f[9].substr(2, 2)) - 1;
    t.tm_year = 100 + std::stoi(f[9].substr(4, 2));
    const double simS = static_cast<double>(timegm(&t)) + std::stod(f[1].substr(4));
    offset = simS - std::chrono::duration<double>(now.time_since_epoch()).count();
    ++epochs;
  }
  ::close(fd);
  return offset;
}

// chronyd, not allowed to touch the clock, takes the daemon's samples as a
// reachable source whose offset is within 0.2 s of the simulator's own
// offset from the system clock (the simulator does not start on a whole second).
TEST_F(GpsdEndpoint, ChronydReachesTheTimeSource) {
  RequireProgram("/usr/sbin/chronyd", "chrony");
  RequireProgram("/usr/bin/chronyc", "chrony");
  const std::string conf = root_ / "chrony.conf";
  const std::string command = root_ / "chronyd.sock";
  // noselect: chronyd measures the source but steers no clock with it, not
  // even the virtual one -x keeps, so its offsets stay the samples' own.
  std::ofstream(conf) << "refclock SOCK " << (root_ / "chrony.gps.sock") << " refid GPS poll 0 noselect\n"
                      << "driftfile " << (root_ / "chrony.drift") << "\n"
                      << "pidfile " << (root_ / "chronyd.pid") << "\n"
                      << "bindcmdaddress " << command << "\ncmdport 0\n";
  ChildProcess chronyd({"/usr/sbin/chronyd", "-u", "root", "-x", "-d", "-f", conf}, root_ / "chronyd.log");
  const double simulatorOffset = SimulatorOffsetS(port_);
  ASSERT_LT(std::fabs(simulatorOffset), 1.5) << "the simulator's time comes from the system clock";
  std::string sources;
  double chronyOffset = 1e9;
  const bool reached = WaitFor(
      [&] {
        sources = Shell("/usr/bin/chronyc -h " + command + " -n -c sources", 5);
        for (const std::string& line : Split(sources, '\n')) {
          const auto f = Split(line, ',');
          if (f.size() < 8 || f[2] != "GPS" || f[5] == "0") continue;
          // chronyc shows the local clock against the source (positive: the
          // system clock is ahead), the opposite sign of the simulator's offset.
          chronyOffset = std::stod(f[7]);
          return std::fabs(chronyOffset + simulatorOffset) < 0.2;
        }
        return false;
      },
      15s);
  std::ifstream log(root_ / "chronyd.log");
  EXPECT_TRUE(reached) << "chrony's offset " << chronyOffset << " s, the simulator's " << simulatorOffset << " s\n"
                       << sources << Shell("/usr/bin/chronyc -h " + command + " -n sources", 5)
                       << std::string(std::istreambuf_iterator<char>(log), {});
}

// Malformed commands get an ERROR and the connection stays; 200 idle
// connections cost the watchers nothing; the Unix socket serves the same.
TEST_F(GpsdEndpoint, MalformedCommandsAndIdleCrowdLeaveTheServiceServing) {
  std::vector<int> idle;
  for (int i = 0; i < 200; ++i) {
    const int fd = ConnectTcp(port_);
    ASSERT_GE(fd, 0) << "connection " << i;
    idle.push_back(fd);
  }
  const int fd = ConnectTcp(port_);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(IsClass(ReadUntil(fd, [](const std::string&) { return true; }), "VERSION"));
  const std::string binary("\x00\x01\xfe\xff\x80\n", 6);
  for (const std::string& bad :
       {std::string("?WATCH={\n"), std::string(100 * 1024, 'A') + "\n", binary, std::string("?FOO;")}) {
    ASSERT_EQ(::send(fd, bad.data(), bad.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bad.size()));
    const std::string reply = ReadUntil(fd, [](const std::string&) { return true; });
    EXPECT_TRUE(IsClass(reply, "ERROR")) << reply;
  }
  const std::string watch = "?WATCH={\"enable\":true,\"json\":true};";
  ::send(fd, watch.data(), watch.size(), MSG_NOSIGNAL);
  const std::string tpv = ReadUntil(fd, [](const std::string& l) { return IsClass(l, "TPV") && l.find("\"mode\":3") != std::string::npos; });
  EXPECT_TRUE(IsClass(tpv, "TPV")) << tpv;
  const std::string change = "?DEVICE={\"path\":\"sim\",\"bps\":4800};";
  ::send(fd, change.data(), change.size(), MSG_NOSIGNAL);
  EXPECT_TRUE(IsClass(ReadUntil(fd, [](const std::string& l) { return !IsClass(l, "TPV") && !IsClass(l, "SKY"); }),
                      "ERROR"));
  ::close(fd);
  for (const int i : idle) ::close(i);

  const int unixFd = ConnectUnix(root_ / "run/gpsd.sock");
  ASSERT_GE(unixFd, 0);
  const std::string poll = "?POLL;\n";
  EXPECT_TRUE(IsClass(ReadUntil(unixFd, [](const std::string&) { return true; }), "VERSION"));
  ::send(unixFd, poll.data(), poll.size(), MSG_NOSIGNAL);
  const std::string reply = ReadUntil(unixFd, [](const std::string&) { return true; });
  EXPECT_TRUE(IsClass(reply, "POLL")) << reply;
  EXPECT_EQ(gps::test::SchemaProblems(nlohmann::json::parse(reply)), "") << reply;
  ::close(unixFd);
  EXPECT_NE(ServiceLog().find("gpsd endpoint: listening on"), std::string::npos) << ServiceLog();
}

// An ordinary user holds at most its share of the endpoint, counted by uid
// over loopback TCP and the Unix socket together; root still gets in.
TEST_F(GpsdEndpoint, OneUsersCrowdLeavesOthersServed) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || !nobody) GTEST_SKIP() << "needs root to run a client under another user";
  ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((root_ / "run").c_str(), 0755), 0);
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(10);
    int admitted = 0;
    for (int i = 0; i < 80; ++i) {
      const int fd = i % 2 ? ConnectTcp(port_) : ConnectUnix(root_ / "run/gpsd.sock");
      // An admitted connection is greeted; a refused one is closed at once.
      if (fd >= 0 && IsClass(ReadUntil(fd, [](const std::string&) { return true; }), "VERSION")) ++admitted;
    }
    [[maybe_unused]] ssize_t written = write(report[1], &admitted, sizeof admitted);
    pause();  // holds its connections until killed
    _exit(0);
  }
  int admitted = -1;
  EXPECT_EQ(read(report[0], &admitted, sizeof admitted), static_cast<ssize_t>(sizeof admitted));
  EXPECT_EQ(admitted, 64);
  for (const int fd : {ConnectTcp(port_), ConnectUnix(root_ / "run/gpsd.sock")}) {
    EXPECT_TRUE(IsClass(ReadUntil(fd, [](const std::string&) { return true; }), "VERSION"));
    ::close(fd);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ::close(report[0]);
  ::close(report[1]);
  const std::string log = ServiceLog();
  EXPECT_NE(log.find("uid " + std::to_string(nobody->pw_uid) + " holds 64 connections"), std::string::npos) << log;
}

}  // namespace

namespace {

// gps-servicectl's sky and time views, read from the endpoint. The configured
// receiver sends no GSV: the satellites are those GSA lists as used.
TEST_F(GpsdEndpoint, ServicectlSkyAndTime) {
  ASSERT_TRUE(WaitFor([&] { return Shell(std::string(SERVICECTL_BINARY) + " sky", 5).find(" yes\n") != std::string::npos; }));
  const std::string sky = Shell(std::string(SERVICECTL_BINARY) + " sky", 5);
  int inView = 0, used = 0;
  ASSERT_EQ(std::sscanf(sky.c_str(), "Satellites in view: %d, used: %d", &inView, &used), 2) << sky;
  EXPECT_GT(used, 0) << sky;
  EXPECT_LE(used, inView) << sky;

  const double simulatorOffset = SimulatorOffsetS(port_);
  const std::string time = Shell(std::string(SERVICECTL_BINARY) + " time", 10);
  const size_t at = time.find("Difference:");
  ASSERT_NE(at, std::string::npos) << time;
  EXPECT_LT(std::fabs(std::atof(time.c_str() + at + 11) - simulatorOffset), 0.2)
      << "the simulator's own offset is " << simulatorOffset << " s\n" << time;
  EXPECT_NE(time.find("(fix from sim)"), std::string::npos) << time;
  EXPECT_NE(time.find("Chrony source: " + (root_ / "chrony.gps.sock") + ", no chronyd listening"), std::string::npos)
      << time;
}

}  // namespace
