// gps-servicectl run as a real process against the scripted service: exit codes,
// what it prints, and what it sends.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "client/stored_parameters.h"
#include "tests/client/scripted_service.h"

namespace gps::client::test {
namespace {

size_t Occurrences(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// A service whose entry says its receiver is simulated: every view says so.
TEST(ServicectlTest, StateAsJsonAndWatchViews) {
  ScriptedService running(service::DirectoryAttributes{{"receiver", "simulated"}});
  running.gps.script(ResponseWithFix());

  ToolRun run = RunServicectl(running.root, {"state"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find("Fix        yes\nReceiver   simulated\n"), std::string::npos) << run.out;
  run = RunServicectl(running.root, {"state", "--json"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["receiver"], "simulated");
  EXPECT_EQ(json["state"]["strlatitude"], "4807.038N");
  EXPECT_EQ(json["state"]["longitude"], -742567890);
  EXPECT_EQ(json["state"]["date"]["year"], 2024);
  EXPECT_EQ(json["parameters"]["poweron"], true);
  EXPECT_EQ(json["parameters"]["keepon"], false) << "a parameter set to false is not absent";

  run = RunServicectl(running.root, {"watch", "--count", "2", "--interval", "20"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(Occurrences(run.out, "Latitude   48.117300\n"), 2u) << run.out;
  EXPECT_EQ(Occurrences(run.out, "Fix        yes\n"), 2u) << run.out;
  EXPECT_EQ(Occurrences(run.out, "Receiver   simulated\n"), 2u) << run.out;
  EXPECT_EQ(run.out.find('\x1b'), std::string::npos) << "terminal codes written to a file";
  EXPECT_EQ(running.gps.requests().size(), 4u);
  for (const auto& request : running.gps.requests()) EXPECT_FALSE(request.has_parameters());

  // The receiver should be on but is not: the view says so, the exit status too.
  running.gps.stateResult = kServiceNotPowered;
  run = RunServicectl(running.root, {"watch", "--once"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.out.find("receiver not powered (-3000005)"), std::string::npos) << run.out;
}

TEST(ServicectlTest, CommandsErrorsAndBadInput) {
  ScriptedService running;
  running.gps.stateResult = kServicePermission;
  ToolRun run = RunServicectl(running.root, {"power", "on"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.err, "gps-servicectl: permission refused (-1000101)\n");
  ASSERT_EQ(running.gps.requests().size(), 1u);
  EXPECT_TRUE(running.gps.requests()[0].parameters().poweron());
  EXPECT_FALSE(running.gps.requests()[0].parameters().has_keepon());

  running.gps.stateResult = os::ERROR_NONE;
  SetGetStateResponse kept;
  kept.mutable_parameters()->set_keepon(true);
  running.gps.script(kept);
  run = RunServicectl(running.root, {"keepon", "on", "--timeout", "3000"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, "poweron=false (not set)\nkeepon=true\n");
  EXPECT_FALSE(running.gps.requests().back().parameters().has_poweron());

  for (const std::vector<std::string>& usage :
       {std::vector<std::string>{"power", "maybe"}, {"power"}, {"frobnicate"}, {}, {"watch", "--once", "--count", "2"}}) {
    run = RunServicectl(running.root, usage);
    EXPECT_EQ(run.exitCode, 2) << testing::PrintToString(usage) << run.err;
  }
  EXPECT_EQ(running.gps.requests().size(), 2u) << "bad input reached the service";

  EXPECT_EQ(RunServicectl(running.root, {"standby"}).exitCode, 0);
  running.gps.notifyResult = kServiceFailed;
  run = RunServicectl(running.root, {"standby"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.err, "gps-servicectl: service operation failed (-1000100)\n");
  EXPECT_EQ(running.gps.notifies, 2);
  EXPECT_EQ(RunServicectl(running.root, {"wakeup"}).exitCode, 0);
  EXPECT_TRUE(WaitFor([&] { return running.gps.wakeups == 1; }));
}

TEST(ServicectlTest, ServiceNotRunning) {
  gps::test::TempRoot root;
  const ToolRun run = RunServicectl(root, {"--timeout", "50", "state"});
  EXPECT_EQ(run.exitCode, 3);
  EXPECT_EQ(run.err.rfind("gps-servicectl: service not running (-4000001)", 0), 0u) << run.err;
  EXPECT_EQ(run.out, "");
}

TEST(ServicectlTest, StoredConfiguration) {
  gps::test::TempRoot root;
  ToolRun run = RunServicectl(root, {"config", "set", "poweron=on", "keepon=off"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, "poweron=true\nkeepon=false\n");
  run = RunServicectl(root, {"config", "get", "--json"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out), nlohmann::json::parse(R"({"poweron": true, "keepon": false})"));

  const std::string before = ReadFile(StoredParametersPath());
  run = RunServicectl(root, {"config", "set", "keepon=on", "volume=3"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("unknown key 'volume'"), std::string::npos) << run.err;
  EXPECT_EQ(ReadFile(StoredParametersPath()), before) << "a rejected set changed the file";
}

}  // namespace
}  // namespace gps::client::test
