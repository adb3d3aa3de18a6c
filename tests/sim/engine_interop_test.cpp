// The simulator's stream read by the engine (through gps-replay): the fix
// from the NMEA sentences and the NAV-PVT solution of the same second must
// agree with each other and with the scenario.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/sim/sim_test_support.h"

namespace gps::sim {
namespace {

TEST(SimInterop, EngineReadsTheSameFixFromNmeaAndNavPvt) {
  const Scenario route = Scenario::DefaultRoute();
  Receiver r = testing::MakeTestReceiver({}, route);
  r.Receive(testing::Frame(0x06, 0x01, {0x01, 0x07, 1, 0, 0, 0, 0, 0}));
  std::string stream;
  for (uint64_t t = 0; t <= 20000; t += 250) {
    r.Advance(t);
    stream += r.TakeOutputBytes();
  }
  char dir[] = "/tmp/ubx-sim-interop-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  const std::filesystem::path root = dir;
  std::ofstream(root / "stream.bin", std::ios::binary) << stream;

  const std::string command = "GPS_PLATFORM_ROOT=" + (root / "platform").string() + " " GPS_REPLAY_BINARY " " +
                              (root / "stream.bin").string() + " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_TRUE(pipe);
  std::map<std::string, nlohmann::json> fixes, pvts;  // by time of day
  char line[4096];
  while (std::fgets(line, sizeof line, pipe)) {
    const nlohmann::json event = nlohmann::json::parse(line);
    if (event["event"] == "fix") {
      std::string t = event["time"];  // "12h00m03s"
      fixes[t.substr(0, 2) + ":" + t.substr(3, 2) + ":" + t.substr(6, 2)] = event;
    } else if (event["event"] == "nav_pvt" && event["fixType"] == 3) {
      pvts[event["time"]] = event;
    }
  }
  EXPECT_EQ(pclose(pipe), 0);
  std::filesystem::remove_all(root);

  ASSERT_EQ(fixes.size(), 18u) << "one fix a second from 3 s to 20 s";
  ASSERT_EQ(pvts.size(), fixes.size());
  for (const auto& [time, fix] : fixes) {
    ASSERT_TRUE(pvts.count(time)) << time;
    const nlohmann::json& pvt = pvts[time];
    const double seconds = std::stoi(time.substr(6, 2));
    const ScenarioPosition truth = route.At(seconds);
    // NMEA carries 1e-5 minute (under 2e-7 degree), NAV-PVT 1e-7 degree.
    EXPECT_NEAR(fix["lat"].get<double>(), truth.latitudeDeg, 2e-7) << time;
    EXPECT_NEAR(fix["lon"].get<double>(), truth.longitudeDeg, 2e-7) << time;
    EXPECT_NEAR(pvt["lat"].get<double>(), truth.latitudeDeg, 1e-7) << time;
    EXPECT_NEAR(pvt["lon"].get<double>(), truth.longitudeDeg, 1e-7) << time;
    EXPECT_NEAR(pvt["hMSL"].get<double>(), truth.altitudeM, 1e-3) << time;
    EXPECT_EQ(fix["date"], "18/03/2024");
  }
}

}  // namespace
}  // namespace gps::sim
