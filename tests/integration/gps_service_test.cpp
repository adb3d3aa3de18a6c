// gps-service as a process under a fresh platform root with its embedded
// simulated receiver, spoken to over its socket as an application would.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <google/protobuf/text_format.h>
#include <random>

#include "client/gps_client.h"
#include "halvorda/device/gps/gps.pb.h"
#include "platform/root.h"
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
    std::ofstream(root_ / "platform.ini") << "[sim]\nttff_ms = 300\n[log]\ntarget = stderr\n";
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
  std::string StoredConfig() const {
    std::ifstream in(root_ / "config/local.device.gps.conf");
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
  std::ofstream(root_ / "platform.ini") << "[sim]\nttff_ms = 1500\n[log]\ntarget = stderr\n";
  Start();
  EXPECT_EQ(Ask(response), 0) << "on before the first request";
  EXPECT_TRUE(response.parameters().poweron() && response.parameters().keepon());
  // Until the receiver has a fix, the state is the stored fix, marked old.
  ASSERT_TRUE(response.has_state());
  EXPECT_TRUE(response.state().old());
  EXPECT_EQ(response.state().latitude() / 100000 / 60, 48) << response.state().strlatitude();
  EXPECT_FALSE(response.state().has_speedkmh()) << "speed only from a current fix";
  EXPECT_TRUE(WaitFor([&] { return CurrentFix(); }));
}

// Any local user reads the state; only platform and payment callers change
// the parameters.
TEST_F(GpsService, AnOrdinaryUserReadsButCannotChangeParameters) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || !nobody) GTEST_SKIP() << "needs root to run a client under another user";
  chmod(root_.path().c_str(), 0755);
  Start();
  chmod((root_ / "run").c_str(), 0755);
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(10);
    auto client = gps::client::GpsClient::Connect(5s);
    if (!client) _exit(11);
    if (!client->GetState()) _exit(12);
    const auto refused = client->SetParameters(true, {});
    _exit(!refused && refused.error().code() == kPermissionRefused ? 0 : 13);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << WEXITSTATUS(status);
  EXPECT_EQ(StoredConfig().find("poweron"), std::string::npos) << "nothing saved: " << StoredConfig();
}

// A change of the stored configuration by someone else (gps-servicectl config set)
// reaches the service.
TEST_F(GpsService, AnOutsideConfigurationChangeSwitchesTheReceiver) {
  Start();
  msg::SetGetStateResponse response;
  ASSERT_EQ(Servicectl({"power", "on"}), 0);
  ASSERT_TRUE(WaitFor([&] { return CurrentFix(); }));
  EXPECT_EQ(Servicectl({"state", "--json"}), 0);
  EXPECT_EQ(Servicectl({"config", "set", "poweron=false"}), 0);
  EXPECT_TRUE(WaitFor([&] { return Ask(response) == 0 && !response.parameters().poweron(); }));
  EXPECT_FALSE(response.has_state());
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
  };
  const Case cases[] = {
      {"root's file of mode 0600, the service as nobody",
       {"/usr/bin/setpriv", "--reuid=" + std::to_string(nobody->pw_uid), "--regid=" + std::to_string(nobody->pw_gid),
        "--clear-groups"},
       true},
      {"ulimit -n 16", {"/usr/bin/prlimit", "--nofile=16"}, false},
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
    EXPECT_TRUE(WaitFor([&] { return log().find("cannot read the stored configuration " + config) != std::string::npos; }))
        << c.legend << ":\n" << log();
    EXPECT_EQ(StoredConfig(), stored) << c.legend;
    EXPECT_FALSE(std::filesystem::exists(config + ".corrupt")) << c.legend;
  }
}

// A parameters file of random bytes (bit rot, a foreign file): the stored
// fix is discarded with a line naming the file, and the state, read before
// the receiver has a fix of its own, parses and holds no position.
TEST_F(GpsService, AParametersFileOfRandomBytesGivesNoStoredPosition) {
  std::ofstream(root_ / "platform.ini") << "[sim]\nttff_ms = 5000\n[log]\ntarget = stderr\n";
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

TEST_F(GpsService, ReadyOnlyStartSignalsReadyAndServesNothing) {
  std::ofstream(root_ / "platform.ini") << "[platform]\nstartup_mode = 1\n";
  ChildProcess service({GPS_SERVICE_BINARY});
  EXPECT_EQ(service.ExitStatus(), 0);
  EXPECT_FALSE(std::filesystem::exists(root_ / "run/local.device.gps.sock"));
  EXPECT_FALSE(std::filesystem::exists(root_ / "fs/GPS/gps_param.cfg")) << "the engine did not start";
}

}  // namespace
