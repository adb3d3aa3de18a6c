// The NMEA generator against sentences real u-blox receivers wrote.
#include "sim/nmea_generator.h"

#include <gtest/gtest.h>

#include "tests/sim/sim_test_support.h"

namespace gps::sim {
namespace {

using testing::Field;
using testing::Output;
using testing::Parse;

TEST(SimNmea, ChecksumMatchesRealSentences) {
  struct Case {
    const char* sentence;
  } cases[] = {
      {"$GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44"},
      {"$GNRMC,171926.00,A,4404.14063,N,12118.85478,W,0.117,,180315,,,A*76"},
      {"$GNVTG,,T,,M,0.117,N,0.216,K,A*3F"},
      {"$GLGSV,3,3,10,83,27,309,29,84,01,353,*63"},
  };
  for (const Case& c : cases) {
    const std::string s = c.sentence;
    const std::string body = s.substr(1, s.size() - 4);
    EXPECT_EQ(NmeaGenerator::Sentence(body), s + "\r\n") << s;
  }
}

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
  EXPECT_EQ(NmeaGenerator::Txt("GP", 2, "Resetting GPS"), "$GPTXT,01,01,02,Resetting GPS*68\r\n");
}

TEST(SimNmea, FixFieldsAndCoordinateRounding) {
  struct Case {
    const char* legend;
    double lat, lon;
    const char* latText;
    const char* lonText;
  } cases[] = {
      {"north east", 48.8566, 2.3522, "4851.39600,N", "00221.13200,E"},
      {"south west", -33.8688, -121.3142463333, "3352.12800,S", "12118.85478,W"},
      {"minutes round up to a whole degree", 10.9999999999, -0.0000001, "1100.00000,N", "00000.00001,W"},
  };
  const NmeaGenerator gn("GN");
  for (const Case& c : cases) {
    NmeaFixState fix;
    fix.fixValid = fix.timeValid = true;
    fix.utcMs = testing::kStartUtcMs + 5250;  // 12:00:05.25
    fix.latitudeDeg = c.lat;
    fix.longitudeDeg = c.lon;
    fix.altitudeMslM = 35.04;
    fix.geoidSeparationM = 47;
    fix.speedMps = 10;
    fix.courseDeg = 293.4;
    fix.hdop = 0.91;
    fix.satellitesUsed = 14;
    const std::string gga = gn.Gga(fix), rmc = gn.Rmc(fix), gll = gn.Gll(fix);
    EXPECT_EQ(Field(gga, 1), "120005.25") << c.legend;
    EXPECT_EQ(Field(gga, 2) + "," + Field(gga, 3), c.latText) << c.legend;
    EXPECT_EQ(Field(gga, 4) + "," + Field(gga, 5), c.lonText) << c.legend;
    EXPECT_EQ(Field(gga, 6), "1");
    EXPECT_EQ(Field(gga, 7), "12") << "GGA counts at most 12 satellites";
    EXPECT_EQ(Field(gga, 9), "35.0");
    EXPECT_EQ(Field(gga, 11), "47.0");
    EXPECT_EQ(Field(rmc, 2), "A");
    EXPECT_EQ(Field(rmc, 3) + "," + Field(rmc, 4), c.latText) << c.legend;
    EXPECT_EQ(Field(rmc, 7), "19.438") << "knots";
    EXPECT_EQ(Field(rmc, 8), "293.40");
    EXPECT_EQ(Field(rmc, 9), "180324");
    EXPECT_EQ(Field(gll, 1) + "," + Field(gll, 2), c.latText) << c.legend;
    EXPECT_EQ(Field(gn.Vtg(fix), 7), "36.000") << "km/h";
    EXPECT_TRUE(Parse(gga + rmc + gll).allChecksumsOk);
  }
}

TEST(SimNmea, GsvGroupsFourSatellitesPerSentence) {
  for (size_t count : {1u, 4u, 5u, 11u}) {
    std::vector<SatelliteInView> sats;
    for (size_t i = 0; i < count; ++i) sats.push_back({static_cast<int>(i + 1), 45, 180, i == 0 ? -1 : 30, true});
    const std::vector<std::string> group = NmeaGenerator::Gsv("GP", sats);
    ASSERT_EQ(group.size(), (count + 3) / 4) << count;
    const Output out = Parse([&] {
      std::string all;
      for (const std::string& s : group) all += s;
      return all;
    }());
    EXPECT_TRUE(out.allChecksumsOk);
    EXPECT_EQ(Field(out.nmea.front(), 7), "") << "an untracked satellite has no SNR";
    for (size_t m = 0; m < group.size(); ++m) {
      EXPECT_EQ(Field(out.nmea[m], 1), std::to_string(group.size()));
      EXPECT_EQ(Field(out.nmea[m], 2), std::to_string(m + 1));
      EXPECT_EQ(std::stoul(Field(out.nmea[m], 3)), count);
    }
  }
}

TEST(SimNmea, UtcCalendar) {
  struct Case {
    int64_t unixMs;
    UtcTime expected;
  } cases[] = {
      {0, {1970, 1, 1, 0, 0, 0, 0}},
      {testing::kStartUtcMs, {2024, 3, 18, 12, 0, 0, 0}},
      {951868800000 - 1, {2000, 2, 29, 23, 59, 59, 999}},
      {1709164800000 + 3723004, {2024, 2, 29, 1, 2, 3, 4}},
  };
  for (const Case& c : cases) {
    const UtcTime t = UtcFromUnixMs(c.unixMs);
    EXPECT_EQ(std::vector<int>({t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond}),
              std::vector<int>({c.expected.year, c.expected.month, c.expected.day, c.expected.hour,
                                c.expected.minute, c.expected.second, c.expected.millisecond}))
        << c.unixMs;
    EXPECT_EQ(DaysFromCivil(t.year, t.month, t.day), c.unixMs / 86400000);
  }
}

}  // namespace
}  // namespace gps::sim
