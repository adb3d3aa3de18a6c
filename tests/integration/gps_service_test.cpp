// gps-service as a process under a fresh platform root with its embedded
// simulated receiver, spoken to over its socket as an application would.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <google/protobuf/text_format.h>
#include <poll.h>
#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>

#include "client/gps_client.h"
#include "halvorda/device/gps/gps.pb.h"
#include "platform/root.h"
#include "platform/service/directory.h"
#include "tests/integration/engine_process.h"
#include "tests/sim/sim_test_support.h"

namespace {

using namespace std::chrono_literals;
using gps::sim::testing::ChildProcess;
using gps::test::WaitFor;
namespace msg = halvorda::device::gps;

constexpr int32_t kPermissionRefused = -1000101;
constexpr int32_t kNotPowered = -3000005;

class GpsService : public testing::Test {
 protected:
  void SetUp() override {
    std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 300\n[log]\ntarget = stderr\n";
    gps::platform::ReloadRoot();
  }
  void Start() {
    service_ = std::make_unique<ChildProcess>(std::vector<std::string>{GPS_SERVICE_BINARY}, root_ / "service.log");
    auto client = gps::client::GpsClient::Connect(10s);
    ASSERT_TRUE(client.ok()) << "the service registers and answers: " << client.error().message();
    client_.emplace(std::move(client.value()));
    client_->setTimeout(5s);
  }
  void Kill() {
    client_.reset();
    service_.reset();  // SIGKILL
  }
  int32_t Ask(msg::SetGetStateResponse& response, std::optional<bool> poweron = {}, std::optional<bool> keepon = {}) {
    auto reply = poweron || keepon ? client_->SetParameters(poweron, keepon) : client_->GetState();
    response.Clear();
    if (!reply) return reply.error().code();
    response = reply->response();
    return 0;
  }
  // gps-servicectl as a process; its exit status.
  int Servicectl(std::vector<std::string> args) {
    args.insert(args.begin(), SERVICECTL_BINARY);
    ChildProcess tool(args, root_ / "gps-servicectl.err");
    return tool.ExitStatus();
  }
  bool CurrentFix() {
    msg::SetGetStateResponse response;
    return Ask(response) == 0 && response.has_state() && response.state().has_strlatitude() && !response.state().old();
  }
  std::string StoredConfig() const { return Text(root_ / "config/local.device.gps.conf"); }
  std::string Log() const { return Text(root_ / "service.log"); }
  static std::string Text(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  gps::test::TempRoot root_;
  std::unique_ptr<ChildProcess> service_;
  std::optional<gps::client::GpsClient> client_;
};

// Power on, a fix in the state, the standby and wake-up cycle, keep-on, and a
// stored poweron that switches the receiver on before the first request after
// a restart.
TEST_F(GpsService, PowerFixStandbyWakeupAndRestart) {
  Start();
  msg::SetGetStateResponse response;
  ASSERT_EQ(Ask(response), 0);
  EXPECT_FALSE(response.has_state()) << "receiver off: parameters only";
  EXPECT_FALSE(response.parameters().poweron());

  ASSERT_EQ(Ask(response, true), 0);
  EXPECT_TRUE(response.parameters().poweron());
  EXPECT_FALSE(response.has_state()) << "a request that changed something carries no state";
  EXPECT_NE(StoredConfig().find("poweron: true"), std::string::npos) << StoredConfig();

  ASSERT_TRUE(WaitFor([&] { return CurrentFix(); }));
  ASSERT_EQ(Ask(response), 0);
  const msg::State& state = response.state();
  EXPECT_GT(state.latitude(), 0);
  EXPECT_EQ(state.latitude() / 100000 / 60, 48) << state.strlatitude();
  EXPECT_GE(state.date().year(), 2024u);
  EXPECT_EQ(state.age(), 0u);
  EXPECT_TRUE(state.has_hdop() && state.has_altitude());

  EXPECT_TRUE(client_->Standby().ok());
  EXPECT_EQ(Ask(response), kNotPowered) << "standby switched the receiver off";
  EXPECT_TRUE(client_->Wakeup().ok());
  EXPECT_TRUE(WaitFor([&] { return CurrentFix(); })) << "wake-up switched it on again";

  ASSERT_EQ(Ask(response, {}, true), 0);
  EXPECT_TRUE(client_->Standby().ok());
  EXPECT_EQ(Ask(response), 0) << "keep-on: standby leaves the receiver on";

  Kill();
  // A slower first fix this time, so that the first answers come before it.
  std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 1500\n[log]\ntarget = stderr\n";
  Start();
  EXPECT_EQ(Ask(response), 0) << "on before the first request";
  EXPECT_TRUE(response.parameters().poweron() && response.parameters().keepon());
  // Until the receiver has a fix, the state is the stored fix, marked old.
  ASSERT_TRUE(response.has_state());
  EXPECT_TRUE(response.state().old());
  EXPECT_LT(response.state().age(), 60u) << "counted from the stored fix's UTC time, not from boot";
  EXPECT_EQ(response.state().latitude() / 100000 / 60, 48) << response.state().strlatitude();
  EXPECT_FALSE(response.state().has_speedkmh()) << "speed only from a current fix";
  EXPECT_TRUE(WaitFor([&] { return CurrentFix(); }));
}

// Each binding of the service admits the roles it names: any local user reads
// the state, platform and payment callers change the parameters, and only the
// platform sends standby notices. The roles are given to uid nobody through
// permissions.ini (none: the vertical role every local user holds).
TEST_F(GpsService, BindingsAdmitTheirRolesOnly) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || !nobody) GTEST_SKIP() << "needs root to run a client under another user";
  chmod(root_.path().c_str(), 0755);
  Start();
  chmod((root_ / "run").c_str(), 0755);
  constexpr int32_t kRefusedByBinding = -2000001;
  const struct {
    const char* roles;  // nullptr: no permissions.ini
    int32_t setParameters;
    int32_t standby;
  } cases[] = {
      {nullptr, kPermissionRefused, kRefusedByBinding},
      {"payment", 0, kRefusedByBinding},
      {"web-p2pe", 0, kRefusedByBinding},
      {"quilla-platform", 0, 0},
  };
  for (const auto& c : cases) {
    if (c.roles) {
      std::filesystem::create_directories(root_ / "etc");
      std::ofstream(root_ / "etc/permissions.ini") << "[users]\nnobody = " << c.roles << "\n";
    }
    const pid_t child = fork();
    if (child == 0) {
      if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(10);
      auto client = gps::client::GpsClient::Connect(5s);
      if (!client) _exit(11);
      if (!client->GetState()) _exit(12);
      const auto set = client->SetParameters({}, false);
      if ((set ? 0 : set.error().code()) != c.setParameters) _exit(13);
      _exit(client->Standby().code() == c.standby ? 0 : 14);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << (c.roles ? c.roles : "no roles file") << ": child status " << WEXITSTATUS(status);
  }
}

// A change of the stored configuration by someone else (gps-servicectl config set)
// reaches the engine: the receiver is switched off. A change of keepon alone
// switches nothing. The engine's own trace counts the power requests it got.
TEST_F(GpsService, AnOutsideConfigurationChangeSwitchesTheReceiver) {
  std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 300\n[log]\ntarget = stderr\nthreshold = 7\n";
  Start();
  const auto powerRequests = [&] {
    std::ifstream in(root_ / "service.log");
    const std::string log{std::istreambuf_iterator<char>(in), {}};
    size_t count = 0;
    for (size_t at = log.find("received CHANGE_POWER_STATE_eventfd"); at != std::string::npos;
         at = log.find("received CHANGE_POWER_STATE_eventfd", at + 1))
      ++count;
    return count;
  };
  msg::SetGetStateResponse response;
  ASSERT_EQ(Servicectl({"power", "on"}), 0);
  ASSERT_TRUE(WaitFor([&] { return CurrentFix(); }));
  ASSERT_EQ(powerRequests(), 1u);
  EXPECT_EQ(Servicectl({"config", "set", "keepon=true"}), 0);
  EXPECT_TRUE(WaitFor([&] { return Ask(response) == 0 && response.parameters().keepon(); }));
  EXPECT_TRUE(CurrentFix()) << "keepon alone leaves the receiver on";
  EXPECT_EQ(Servicectl({"config", "set", "poweron=false"}), 0);
  EXPECT_TRUE(WaitFor([&] { return Ask(response) == 0 && !response.parameters().poweron(); }));
  EXPECT_TRUE(WaitFor([&] { return powerRequests() == 2u; })) << "the engine was asked to switch off";
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(powerRequests(), 2u) << "keepon made no power request";
}

// Killed while it saves, the service leaves whole files behind: the stored
// configuration parses and the parameters file keeps its size.
TEST_F(GpsService, AKillAtAnyMomentLeavesItsFilesWhole) {
  std::mt19937 random(7);
  for (int round = 0; round < 8; ++round) {
    Start();
    msg::SetGetStateResponse response;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 150);
    for (bool on = true; std::chrono::steady_clock::now() < until; on = !on) Ask(response, on, !on);
    Kill();
    msg::Parameters stored;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(StoredConfig(), &stored)) << StoredConfig();
    EXPECT_EQ(std::filesystem::file_size(root_ / "fs/GPS/gps_param.cfg"), 1216u);
  }
}

// Environment variables set while the service is started, removed after.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(std::vector<std::pair<std::string, std::string>> variables)
      : variables_(std::move(variables)) {
    for (const auto& [name, value] : variables_) setenv(name.c_str(), value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : variables_) unsetenv(name.c_str());
  }

 private:
  std::vector<std::pair<std::string, std::string>> variables_;
};

// A datagram socket in the place of systemd's notification socket.
class NotifyListener {
 public:
  explicit NotifyListener(const std::string& path) : path_(path), fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  ~NotifyListener() { close(fd_); }
  const std::string& path() const { return path_; }
  // The states received within the time, in order.
  std::vector<std::string> Receive(std::chrono::milliseconds limit) {
    std::vector<std::string> states;
    for (const auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
      pollfd slot{fd_, POLLIN, 0};
      if (poll(&slot, 1, 20) <= 0) continue;
      char datagram[256];
      const ssize_t n = recv(fd_, datagram, sizeof datagram, 0);
      if (n > 0) states.emplace_back(datagram, static_cast<size_t>(n));
    }
    return states;
  }

 private:
  std::string path_;
  int fd_;
};

// Under systemd: ready, then fed the watchdog while the engine runs. A second
// instance leaves the first alone. SIGTERM: one line, entry and socket gone,
// status 0 within a second.
TEST_F(GpsService, StopsCleanlyOnSigtermAndASecondInstanceLeavesTheFirstAlone) {
  NotifyListener notify(root_ / "notify.sock");
  {
    ScopedEnvironment systemd({{"NOTIFY_SOCKET", notify.path()}, {"WATCHDOG_USEC", "400000"}});
    Start();
  }
  const std::string entryPath = root_ / "run/directory/local.device.gps";
  const std::string socketPath = root_ / "run/local.device.gps.sock";
  const auto entry = halvorda::service::Directory::Lookup("local.device.gps");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->pid, service_->pid());
  EXPECT_EQ(entry->attribute("receiver"), "simulated") << "gps-servicectl tells simulated fixes by it";
  const std::vector<std::string> states = notify.Receive(1000ms);
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(states.front(), "READY=1");
  EXPECT_GE(std::count(states.begin(), states.end(), "WATCHDOG=1"), 3) << "every 200 ms";

  struct stat socketBefore{};
  ASSERT_EQ(stat(socketPath.c_str(), &socketBefore), 0);
  const std::string entryBefore = Text(entryPath);
  ChildProcess second({GPS_SERVICE_BINARY}, root_ / "second.log");
  EXPECT_EQ(second.ExitStatus(), 73);
  EXPECT_NE(Text(root_ / "second.log").find("another instance (pid " + std::to_string(service_->pid()) + ")"),
            std::string::npos)
      << Text(root_ / "second.log");
  struct stat socketAfter{};
  ASSERT_EQ(stat(socketPath.c_str(), &socketAfter), 0);
  EXPECT_EQ(socketAfter.st_ino, socketBefore.st_ino);
  EXPECT_EQ(Text(entryPath), entryBefore);
  msg::SetGetStateResponse response;
  EXPECT_EQ(Ask(response, true), 0) << "the first one still serves";

  const auto signalled = std::chrono::steady_clock::now();
  ASSERT_TRUE(service_->Signal(SIGTERM));
  EXPECT_EQ(service_->ExitStatus(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, 1s);
  EXPECT_FALSE(std::filesystem::exists(socketPath));
  EXPECT_FALSE(std::filesystem::exists(entryPath));
  const std::string log = Log();
  EXPECT_EQ(log.find("local.device.gps stopping on SIGTERM"), log.rfind("local.device.gps stopping on SIGTERM"));
  EXPECT_NE(log.find("local.device.gps stopping on SIGTERM"), std::string::npos) << log;
  const std::vector<std::string> last = notify.Receive(100ms);
  EXPECT_NE(std::find(last.begin(), last.end(), "STOPPING=1"), last.end());
  EXPECT_NE(StoredConfig().find("poweron: true"), std::string::npos) << StoredConfig();
}

// Under journald: "<N>" prefixes, no time stamp, repeated lines folded. An unknown key is warned
// about and the service runs; SIGHUP puts a new log threshold and device in effect;
// SIGUSR1, SIGUSR2, SIGALRM and SIGPIPE change nothing.
TEST_F(GpsService, SighupAppliesTheLogThresholdAndOrdinarySignalsAreIgnored) {
  const auto writeIni = [&](int threshold, const std::string& device) {
    std::ofstream(root_ / "platform.ini") << "[gps]\ndevise = /dev/ttyACM0\n" << device << "[sim]\nttff_ms = 300\n[log]\n"
                                             "target = stderr\nthreshold = "
                                          << threshold << "\n";
  };
  writeIni(4, "");
  std::ofstream(root_ / "service.log").close();
  struct stat log{};
  ASSERT_EQ(stat((root_ / "service.log").c_str(), &log), 0);
  {
    ScopedEnvironment journal({{"JOURNAL_STREAM", std::to_string(log.st_dev) + ":" + std::to_string(log.st_ino)}});
    Start();
  }
  EXPECT_NE(Log().find("<4>gps-service: " + (root_ / "platform.ini:2: unknown key \"devise\" in [gps]")),
            std::string::npos)
      << Log();
  for (const int signal : {SIGUSR1, SIGUSR2, SIGALRM, SIGPIPE}) ASSERT_TRUE(service_->Signal(signal));
  msg::SetGetStateResponse response;
  // A client asking as fast as it can: the repeats of its line (receiver off)
  // or of its two-line cycle (receiver on) are written once a second, the
  // count of the others before the next line written.
  const auto flood = [&] {
    size_t asked = 0;
    for (const auto until = std::chrono::steady_clock::now() + 1200ms; std::chrono::steady_clock::now() < until; ++asked)
      Ask(response);
    return asked;
  };
  const auto folded = [&](const std::string& cycle, const std::string& notice, size_t from) {
    const std::string text = Log().substr(from);
    size_t written = 0;
    size_t counted = 0;
    for (size_t at = text.find(cycle); at != std::string::npos; at = text.find(cycle, at + 1)) {
      ++written;
      if (text.compare(at + cycle.size(), notice.size(), notice) == 0)
        counted += std::stoul(text.substr(at + cycle.size() + notice.size()));
    }
    return std::pair{written, counted};
  };
  const size_t askedOff = flood();
  ASSERT_EQ(Ask(response, true), 0);
  const auto [written, counted] = folded("\n<3>GPSCore: setState BEGIN\n", "<3>last message repeated ", 0);
  EXPECT_EQ(written, 2u) << Log();
  EXPECT_EQ(written + counted, askedOff + 1) << Log();
  EXPECT_NE(Log().find(" times\n<3>GPSCore: updateParameters\n"), std::string::npos) << Log();
  const size_t onFrom = Log().size();
  const size_t askedOn = flood();
  ASSERT_EQ(Ask(response, {}, true), 0);
  const auto [cycles, cyclesCounted] =
      folded("\n<3>GPSCore: setState BEGIN\n<3>GPSCore: m_iParams->poweron\n", "<3>last 2 messages repeated ", onFrom - 1);
  EXPECT_LE(cycles, 3u) << Log().substr(onFrom);
  EXPECT_GT(cyclesCounted, askedOn / 2) << Log().substr(onFrom);
  EXPECT_EQ(Log().find("setPower(1) OK"), std::string::npos) << "level 7 is above threshold 4";

  // The device changed: the receiver is reopened on it (here one that is absent).
  writeIni(7, "device = /dev/ttyACM-absent\n");
  ASSERT_TRUE(service_->Signal(SIGHUP));
  EXPECT_TRUE(WaitFor([&] { return Log().find("/dev/ttyACM-absent is not there") != std::string::npos; })) << Log();
  EXPECT_TRUE(WaitFor([&] { return Log().find("<5>platform.ini re-read: log threshold 7") != std::string::npos; }))
      << Log();
  ASSERT_EQ(Ask(response, false), 0);
  EXPECT_NE(Log().find("\n<7>GPS: setPower(0) OK\n"), std::string::npos) << Log();
  EXPECT_EQ(waitpid(service_->pid(), nullptr, WNOHANG), 0) << "still running";
}

// A start that cannot work stops at once with its sysexits status and one
// line naming the file, leaving everything it found as it was.
TEST_F(GpsService, StartFailuresExitWithTheirStatusAndNameTheCause) {
  const std::string config = root_ / "config/local.device.gps.conf";
  struct Case {
    const char* legend;
    std::function<void()> prepare;
    std::vector<std::string> command;
    int status;
    std::string line;
  };
  const std::vector<Case> cases = {
      {"a line of platform.ini that does not parse",
       [&] { std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = sim\n[log\n"; },
       {GPS_SERVICE_BINARY}, 78, root_ / "platform.ini:3: cannot parse \"[log\""},
      {"a manifest without a class",
       [&] {
         std::filesystem::create_directories(root_ / "param/DATAAEC8999.TAR/manifest");
         std::ofstream(root_ / "param/DATAAEC8999.TAR/manifest/local.device.gps.MNF") << "[service]\naddress = x\n";
       },
       {GPS_SERVICE_BINARY}, 78, "the manifest file://param/DATAAEC8999.TAR/manifest/local.device.gps.MNF cannot be used"},
      {"a platform root where nothing can be created", [&] { std::ofstream(root_ / "run") << "a file"; },
       {GPS_SERVICE_BINARY}, 73, "cannot create " + (root_ / "run")},
      {"too few descriptors", [] {}, {"/bin/sh", "-c", "ulimit -n 16; exec " GPS_SERVICE_BINARY}, 71,
       "the descriptor limit is 16"},
      {"a stored configuration that cannot be read",
       [&] {
         std::filesystem::create_directories(root_ / "config");
         std::filesystem::create_symlink("local.device.gps.conf", config);
       },
       {GPS_SERVICE_BINARY}, 78, "the stored configuration " + config + " cannot be read"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.legend);
    std::filesystem::remove_all(root_.path());
    std::filesystem::create_directories(root_.path());
    c.prepare();
    ChildProcess service(c.command, root_ / "service.log");
    EXPECT_EQ(service.ExitStatus(), c.status);
    EXPECT_NE(Log().find(c.line), std::string::npos) << Log();
    EXPECT_FALSE(std::filesystem::exists(root_ / "run/local.device.gps.sock"));
    EXPECT_FALSE(std::filesystem::exists(root_ / "fs")) << "the engine did not start";
  }
  EXPECT_TRUE(std::filesystem::is_symlink(config)) << "left as it was";
}

// A FIFO (an ordinary open waits for a writer) or /dev/zero (a read never
// ends) in place of each file the service reads. Read at start-up, it stops
// the start at once with a line naming it; read while the service runs, it is
// refused and the service keeps answering at once.
TEST_F(GpsService, SpecialFilesInPlaceOfItsFilesNeitherBlockNorSpin) {
  enum class When { AtStart, BeforeStart, WhileRunning };
  struct Case {
    std::string file;
    When when;
    std::string prepare;  // lines of the optional parameters, when any
    bool refusalLogged;
  };
  const std::string ini = "platform.ini";
  const std::string config = "config/local.device.gps.conf";
  const std::vector<Case> cases = {
      {ini, When::AtStart, "", true},
      {"etc/permissions.ini", When::AtStart, "", true},
      {config, When::AtStart, "", true},
      {"param/DATAAEC8999.TAR/manifest/local.device.gps.MNF", When::AtStart, "", true},
      {"fs/GPS/gps_param.cfg", When::AtStart, "", true},
      {"home/LEGACY_FS/HOST/GPS_optional_parameters.ini", When::AtStart, "", true},
      {ini, When::WhileRunning, "", true},     // read again on SIGHUP
      {config, When::WhileRunning, "", true},  // read again when it changes
      {"fs/HOST/current_14d.alp", When::BeforeStart, "[Assistance]\nassistnow = ANOF\n", true},
      {"run/directory/local.device.gps", When::BeforeStart, "", false},
  };
  const std::pair<const char*, const char*> kinds[] = {{"fifo", "is a FIFO, not a regular file"},
                                                       {"/dev/zero", "is a character device, not a regular file"}};
  for (const auto& [kind, refusal] : kinds) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.file + " as " + kind);
      Kill();
      std::filesystem::remove_all(root_.path());
      std::filesystem::create_directories(root_ / "config");
      std::ofstream(root_ / ini) << "[gps]\ndevice = sim\n[sim]\nttff_ms = 300\n[log]\ntarget = stderr\n";
      std::ofstream(root_ / config) << "poweron: true\n";
      if (!c.prepare.empty()) gps::test::WriteOptionalParameters(root_, c.prepare);
      // Made beside the file and renamed over it: the change is one event.
      const std::string path = root_ / c.file;
      const auto replace = [&] {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        const std::string made = root_ / "special";
        ASSERT_EQ(std::string(kind) == "fifo" ? mkfifo(made.c_str(), 0644) : symlink(kind, made.c_str()), 0);
        ASSERT_EQ(rename(made.c_str(), path.c_str()), 0);
      };
      const auto refused = [&] { return Log().find(path + " " + refusal) != std::string::npos; };
      if (c.when == When::AtStart) {
        replace();
        const auto started = std::chrono::steady_clock::now();
        service_ = std::make_unique<ChildProcess>(std::vector<std::string>{GPS_SERVICE_BINARY}, root_ / "service.log");
        EXPECT_EQ(service_->ExitStatus(), 78);
        EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
        EXPECT_TRUE(refused()) << Log();
        continue;
      }
      if (c.when == When::BeforeStart) replace();
      Start();
      if (!client_) continue;  // failed above; the other cases still run
      if (c.when == When::WhileRunning) {
        replace();
        if (c.file == ini) service_->Signal(SIGHUP);
      }
      if (c.refusalLogged) {
        EXPECT_TRUE(WaitFor(refused, 5s)) << Log();
      }
      msg::SetGetStateResponse response;
      for (int request = 0; request < 5; ++request) {
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(Ask(response), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - asked, 100ms);
      }
      EXPECT_TRUE(response.parameters().poweron()) << "the values in use are kept";
    }
  }
}

// What a start leaves: temporary files of writes cut short by a kill are
// removed (only those of writers that are gone), and a start that fails after
// registering takes its directory entry with it.
TEST_F(GpsService, AStartRemovesStaleTemporariesAndAFailedStartItsEntry) {
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  const std::string stale = ".tmp-" + std::to_string(gone) + "-3";
  const std::vector<std::string> removed = {"config/local.device.gps.conf" + stale, "run/directory/local.device.gps" + stale,
                                            "run/gps-service.lock" + stale, "fs/GPS/gps_param.cfg" + stale};
  const std::vector<std::string> kept = {"config/local.device.gps.conf.tmp-" + std::to_string(getpid()) + "-0",
                                         "config/notes.tmp-old", "config/a.tmp-" + std::to_string(gone) + "-1-2",
                                         "config/" + stale};
  for (const std::string& file : removed) {
    std::filesystem::create_directories(std::filesystem::path(root_ / file).parent_path());
    std::ofstream(root_ / file) << "cut short";
  }
  for (const std::string& file : kept) std::ofstream(root_ / file) << "not ours to remove";
  // No systemd to hear READY=1: the start fails once the entry is written.
  ScopedEnvironment systemd({{"NOTIFY_SOCKET", root_ / "no-systemd.sock"}});
  ChildProcess service({GPS_SERVICE_BINARY}, root_ / "service.log");
  EXPECT_EQ(service.ExitStatus(), 73);
  EXPECT_NE(Log().find("cannot announce local.device.gps as ready"), std::string::npos) << Log();
  EXPECT_FALSE(std::filesystem::exists(root_ / "run/directory/local.device.gps"));
  for (const std::string& file : removed) EXPECT_FALSE(std::filesystem::exists(root_ / file)) << file;
  for (const std::string& file : kept) EXPECT_TRUE(std::filesystem::exists(root_ / file)) << file;
}

// The stored configuration unreadable to the daemon (root's file of mode
// 0600 with the daemon under another user, as after an upgrade that moves it
// off root) or no descriptor left to read it with: the file stays byte for
// byte, nothing is set aside as corrupt, and the log names the file.
TEST_F(GpsService, AStoredConfigurationItCannotReadIsLeftAsItIs) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || !nobody) GTEST_SKIP() << "needs root to run the service under another user";
  const std::string stored = "poweron: true\nkeepon: true\n";
  const std::string config = root_ / "config/local.device.gps.conf";
  struct Case {
    const char* legend;
    std::vector<std::string> launcher;
    bool asNobody;
    int status;
    std::string line;
  };
  const Case cases[] = {
      {"root's file of mode 0600, the service as nobody",
       {"/usr/bin/setpriv", "--reuid=" + std::to_string(nobody->pw_uid), "--regid=" + std::to_string(nobody->pw_gid),
        "--clear-groups"},
       true, 78, "the stored configuration " + config + " cannot be read: Permission denied"},
      {"ulimit -n 16", {"/usr/bin/prlimit", "--nofile=16"}, false, 71, "the descriptor limit is 16"},
  };
  for (const Case& c : cases) {
    std::filesystem::remove_all(root_ / "config");
    ASSERT_TRUE(gps::platform::MakeDirectories(root_ / "config"));
    if (c.asNobody) {
      ASSERT_EQ(lchown(root_.path().c_str(), nobody->pw_uid, nobody->pw_gid), 0);
      for (const auto& entry : std::filesystem::recursive_directory_iterator(root_.path()))
        ASSERT_EQ(lchown(entry.path().c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    }
    std::ofstream(config) << stored;
    ASSERT_EQ(chown(config.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(config.c_str(), 0600), 0);
    std::vector<std::string> argv = c.launcher;
    argv.push_back(GPS_SERVICE_BINARY);
    ChildProcess service(argv, root_ / "service.log");
    const auto log = [&] {
      std::ifstream in(root_ / "service.log");
      return std::string(std::istreambuf_iterator<char>(in), {});
    };
    EXPECT_EQ(service.ExitStatus(), c.status) << c.legend;
    EXPECT_NE(log().find(c.line), std::string::npos) << c.legend << ":\n" << log();
    EXPECT_EQ(StoredConfig(), stored) << c.legend;
    EXPECT_FALSE(std::filesystem::exists(config + ".corrupt")) << c.legend;
  }
}

// A parameters file of random bytes (bit rot, a foreign file): the stored
// fix is discarded with a line naming the file, and the state, read before
// the receiver has a fix of its own, parses and holds no position.
TEST_F(GpsService, AParametersFileOfRandomBytesGivesNoStoredPosition) {
  std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 5000\n[log]\ntarget = stderr\n";
  ASSERT_TRUE(gps::platform::MakeDirectories(root_ / "fs/GPS"));
  ASSERT_TRUE(gps::platform::MakeDirectories(root_ / "config"));
  std::mt19937 random(15);
  std::string bytes(1216, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  std::ofstream(root_ / "fs/GPS/gps_param.cfg", std::ios::binary) << bytes;
  std::ofstream(root_ / "config/local.device.gps.conf") << "poweron: true\n";
  Start();
  msg::SetGetStateResponse response;
  ASSERT_EQ(Ask(response), 0);
  ASSERT_TRUE(response.has_state());
  EXPECT_FALSE(response.state().has_strlatitude()) << response.state().strlatitude();
  EXPECT_FALSE(response.state().has_altitude());
  std::ifstream in(root_ / "service.log");
  const std::string log(std::istreambuf_iterator<char>(in), {});
  EXPECT_NE(log.find("fs/GPS/gps_param.cfg: the stored fix is damaged"), std::string::npos) << log;
}

// Out of descriptors, a listener stays readable: the service must not spin on
// it, and serves again once descriptors are free.
TEST_F(GpsService, OutOfDescriptorsTheServiceWaitsInsteadOfSpinning) {
  ChildProcess service({"/usr/bin/prlimit", "--nofile=64", GPS_SERVICE_BINARY}, root_ / "service.log");
  ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(root_ / "run/directory/local.device.gps"); }));
  const std::string socketPath = root_ / "run/local.device.gps.sock";
  std::vector<int> crowd;
  for (int i = 0; i < 80; ++i) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    crowd.push_back(fd);
  }
  // CPU time of the service thread (the process's first thread), in ticks.
  const auto busyTicks = [&] {
    const std::string stat = Text("/proc/" + std::to_string(service.pid()) + "/task/" +
                                  std::to_string(service.pid()) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int i = 3; fields >> field && i <= 15; ++i)
      if (i >= 14) ticks += std::stol(field);  // utime, stime
    return ticks;
  };
  std::this_thread::sleep_for(300ms);
  const long before = busyTicks();
  std::this_thread::sleep_for(4s);
  const long used = busyTicks() - before;
  EXPECT_LT(used, 4 * sysconf(_SC_CLK_TCK) / 10) << "service thread busy " << used << " ticks in 4 s";
  EXPECT_NE(Log().find("cannot accept connections"), std::string::npos) << Log();
  for (const int fd : crowd) close(fd);
  auto client = gps::client::GpsClient::Connect(5s);
  ASSERT_TRUE(client.ok()) << client.error().message();
  const auto state = client->GetState();
  EXPECT_TRUE(state.ok()) << "served once descriptors are free: " << (state ? "" : state.error().message()) << Log();
}

// A socket file or directory entry removed or rewritten at run time is back
// within a second: clients find the service again without a restart.
TEST_F(GpsService, ARemovedSocketAndDirectoryEntryComeBack) {
  Start();
  const std::filesystem::path entryPath = root_ / "run/directory/local.device.gps";
  ASSERT_TRUE(WaitFor([&] { return Text(entryPath).find("ready=1") != std::string::npos; }));
  const std::string entry = Text(entryPath);
  ASSERT_TRUE(std::filesystem::remove(root_ / "run/local.device.gps.sock"));
  ASSERT_TRUE(std::filesystem::remove(entryPath));
  const auto removed = std::chrono::steady_clock::now();
  ASSERT_TRUE(WaitFor([] {
    auto client = gps::client::GpsClient::Connect(1s);
    return client.ok() && client->GetState().ok();
  }));
  EXPECT_LT(std::chrono::steady_clock::now() - removed, 2s);
  EXPECT_EQ(Text(entryPath), entry);
  std::ofstream(entryPath) << "address=run/elsewhere.sock\n";
  EXPECT_TRUE(WaitFor([&] { return Text(entryPath) == entry; }, 2s)) << Text(entryPath);
  const std::string log = Log();
  EXPECT_NE(log.find("local.device.gps.sock was removed; listening on a new one"), std::string::npos) << log;
  EXPECT_NE(log.find("directory/local.device.gps was removed; written again"), std::string::npos) << log;
  EXPECT_NE(log.find("directory/local.device.gps was replaced; written again"), std::string::npos) << log;
}

TEST_F(GpsService, ReadyOnlyStartSignalsReadyAndServesNothing) {
  std::ofstream(root_ / "platform.ini") << "[platform]\nstartup_mode = 1\n";
  // systemd's side of the readiness notice: a datagram socket of our own.
  const std::string notifyPath = root_ / "notify.sock";
  const int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, notifyPath.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(notify, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1);
  ChildProcess service({GPS_SERVICE_BINARY});
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(service.ExitStatus(), 0);
  char message[64] = {};
  EXPECT_EQ(recv(notify, message, sizeof message - 1, MSG_DONTWAIT), 7);
  EXPECT_STREQ(message, "READY=1");
  close(notify);
  EXPECT_TRUE(std::filesystem::is_directory(root_ / "run/directory")) << "the directory was reached";
  EXPECT_FALSE(std::filesystem::exists(root_ / "run/directory/local.device.gps")) << "no class registered";
  EXPECT_FALSE(std::filesystem::exists(root_ / "run/local.device.gps.sock"));
  EXPECT_FALSE(std::filesystem::exists(root_ / "fs/GPS/gps_param.cfg")) << "the engine did not start";
}

}  // namespace
