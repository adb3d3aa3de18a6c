// What the receiver reports and where: the NMEA generator against sentences
// real receivers wrote, and the scenario's file format and route following.
#include "sim/nmea_generator.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "sim/scenario.h"

namespace gps::sim {
namespace {

// A receiver without a fix and without time writes these exact lines.
TEST(SimNmea, NoFixSentencesAreTheReceiversOwn) {
  const NmeaGenerator gp("GP");
  const NmeaFixState none;
  EXPECT_EQ(gp.Gga(none), "$GPGGA,,,,,,0,00,99.99,,,,,,*48\r\n");
  EXPECT_EQ(gp.Rmc(none), "$GPRMC,,V,,,,,,,,,,N*53\r\n");
  EXPECT_EQ(gp.Vtg(none), "$GPVTG,,,,,,,,,N*30\r\n");
  EXPECT_EQ(gp.Gsa(none, {}), "$GPGSA,A,1,,,,,,,,,,,,,99.99,99.99,99.99*30\r\n");
  EXPECT_EQ(gp.Gll(none), "$GPGLL,,,,,,V,N*64\r\n");
  EXPECT_EQ(NmeaGenerator::Gsv("GP", {}), std::vector<std::string>{"$GPGSV,1,1,00*79\r\n"});
}

// Position sentences with a fix, as a receiver writes them (checksum aside).
TEST(SimNmea, FixSentencesAndCoordinateRounding) {
  struct Case {
    const char* legend;
    double lat, lon;
    int64_t utcMs;
    std::string time, latLon, date;
  } cases[] = {
      {"north east", 48.8566, 2.3522, 1710763205250, "120005.25", "4851.39600,N,00221.13200,E", "180324"},
      {"south west, last millisecond of the leap day 2000", -33.8688, -121.3142463333, 951868800000 - 1, "235959.99",
       "3352.12800,S,12118.85478,W", "290200"},
      {"minutes round up to a whole degree", 10.9999999999, -0.0000001, 1709164800000 + 3723004, "010203.00",
       "1100.00000,N,00000.00001,W", "290224"},
  };
  const NmeaGenerator gn("GN");
  const auto body = [](const std::string& sentence) { return sentence.substr(1, sentence.find('*') - 1); };
  for (const Case& c : cases) {
    NmeaFixState fix;
    fix.fixValid = fix.timeValid = true;
    fix.utcMs = c.utcMs, fix.latitudeDeg = c.lat, fix.longitudeDeg = c.lon;
    fix.altitudeMslM = 35.04, fix.geoidSeparationM = 47, fix.speedMps = 10, fix.courseDeg = 293.4;
    fix.hdop = 0.91, fix.satellitesUsed = 14;  // GGA counts at most 12
    EXPECT_EQ(body(gn.Gga(fix)), "GNGGA," + c.time + "," + c.latLon + ",1,12,0.91,35.0,M,47.0,M,,") << c.legend;
    EXPECT_EQ(body(gn.Rmc(fix)), "GNRMC," + c.time + ",A," + c.latLon + ",19.438,293.40," + c.date + ",,,A")
        << c.legend;
    EXPECT_EQ(body(gn.Gll(fix)), "GNGLL," + c.latLon + "," + c.time + ",A,A") << c.legend;
    EXPECT_EQ(body(gn.Vtg(fix)), "GNVTG,293.40,T,,M,19.438,N,36.000,K,A") << c.legend;
  }
}

TEST(SimScenario, ParsesDirectivesAndRejectsMistakes) {
  std::string error;
  const auto s = Scenario::Parse(
      "# walk\nspeed 1.5\nloop no\ngeoid -21.3\nstart 2024-03-18T12:00:00Z\n"
      "point 48.8566 2.3522 35   # start\npoint 48.8576 2.3522\n",
      &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->waypoints().size(), 2u);
  EXPECT_EQ(std::make_tuple(s->speedMps(), s->loop(), s->geoidSeparationM()), std::make_tuple(1.5, false, -21.3));
  EXPECT_EQ(s->startUtcMs(), 1710763200000);

  const std::pair<const char*, const char*> bad[] = {  // text, message
      {"", "no point"},
      {"point 48.8 2.3\nhover 3\n", "line 2: unknown directive 'hover'"},
      {"point 48.8x 2.3\n", "line 1: point: not a number"},
      {"point 91 2.3\n", "line 1: point: out of range"},
      {"point 48 2\nstart 2024-03-18 12:00:00\n", "line 2: start needs YYYY-MM-DDTHH:MM:SSZ"},
  };
  for (const auto& [text, message] : bad) {
    error.clear();
    EXPECT_FALSE(Scenario::Parse(text, &error)) << text;
    EXPECT_EQ(error, message);
  }
}

TEST(SimScenario, FollowsTheWayPoints) {
  // A square of about 1.1 km sides at 10 m/s: north, east, south, west.
  const std::string square = "point 48.85 2.35 30\npoint 48.86 2.35 40\npoint 48.86 2.365 40\npoint 48.85 2.365 30\n";
  std::string error;
  const auto loop = Scenario::Parse(square, &error);
  ASSERT_TRUE(loop) << error;
  const double north = 1111.95, lap = loop->routeLengthM();  // 0.01 degree of latitude, one lap
  EXPECT_NEAR(lap, 2 * north + 2 * 1098.4, 2);

  struct Case {
    const char* legend;
    double seconds;
    double lat, lon, alt, course;
  } cases[] = {
      {"start", 0, 48.85, 2.35, 30, 0},
      {"half way north, altitude interpolated", north / 20, 48.855, 2.35, 35, 0},
      {"just round the first corner", north / 10 + 1, 48.86, 2.35013, 40, 90},
      {"on the closing leg", (lap - 10) / 10, 48.85, 2.35014, 30, 270},
      {"second lap", lap / 10 + north / 20, 48.855, 2.35, 35, 0},
  };
  for (const Case& c : cases) {
    const ScenarioPosition p = loop->At(c.seconds);
    EXPECT_NEAR(p.latitudeDeg, c.lat, 2e-5) << c.legend;
    EXPECT_NEAR(p.longitudeDeg, c.lon, 2e-5) << c.legend;
    EXPECT_NEAR(p.altitudeM, c.alt, 0.1) << c.legend;
    EXPECT_NEAR(p.courseDeg, c.course, 0.1) << c.legend;
    EXPECT_DOUBLE_EQ(p.speedMps, 10) << c.legend;
  }

  const ScenarioPosition end = Scenario::Parse(square + "loop no\n", &error)->At(1e6);
  EXPECT_EQ(std::make_tuple(end.latitudeDeg, end.longitudeDeg, end.speedMps), std::make_tuple(48.85, 2.365, 0.0))
      << "stops at the last point";
}

}  // namespace
}  // namespace gps::sim
