// Fix queries: result codes, ages and the stale-fix policies.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "nmea/gps_conversions.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "tests/support/test_env.h"

namespace {

constexpr uint32_t kCurrent = GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX;
constexpr uint32_t kOld = GEOLOCATING_GPS_ACCEPT_OLD_FIX;
constexpr uint32_t kNoFix = 0xFFFFFFFF;  // age marker: no fix and no VTG at all
constexpr uint32_t kUnknown = GPS_AGE_UNKNOWN;

using Query = std::function<int32_t(char* out, uint32_t* age, uint32_t flags)>;
const Query kLatitude = [](char* out, uint32_t* age, uint32_t flags) {
  char longitude[16];
  return lib_GPS_Geolocating_GPS_GetPosition(longitude, out, age, flags);
};
const Query kAltitude = lib_GPS_Geolocating_GPS_GetAltitude;
const Query kSpeed = lib_GPS_Geolocating_GPS_GetSpeedKMH;

class QueryTest : public testing::Test {
 protected:
  void SetUp() override {
    lib_GPS_param_RestorePersistentStorage();
    Reset();
  }
  // A fresh record, and a last fix stored in the parameters.
  void Reset() {
    gps::test::ResetEngine(2);
    std::strcpy(gps_parameters.latitude, "1111.11111N");
    std::strcpy(gps_parameters.altitude, "33.3");
    std::strcpy(gps_parameters.speedKmh, "4.4");
  }
  // A GGA fix and a VTG written `ageTicks` before now.
  void FixAged(uint32_t ageTicks) {
    lib_GPS_Lock();
    gps_private_info.fix_quality = 1;
    gps_private_info.fix_seen = gps_private_info.course_speed_seen = 1;
    gps_private_info.fix_tick = ticks_.now() - ageTicks;
    std::strcpy(gps_private_info.latitude, "4404.14063N");
    std::strcpy(gps_private_info.altitude, "1147.2");
    gps_private_info.vtg_mode = 'A';
    gps_private_info.course_speed_tick = ticks_.now() - ageTicks;
    std::strcpy(gps_private_info.speed_kmh, "0.216");
    lib_GPS_Unlock();
  }
  gps::test::TempRoot root_;
  gps::test::ManualTicks ticks_{500000};
};

TEST_F(QueryTest, PoliciesDecideResultAndOutput) {
  const struct {
    const char* legend;
    const Query* query;
    uint32_t flags;
    uint32_t ageTicks;
    int32_t result;
    const char* output;  // "-" means left untouched
    uint32_t ageSeconds;
  } cases[] = {
      {"current fix at 200 ticks", &kLatitude, kCurrent, 200, 0, "4404.14063N", 2},
      {"stale at 201 ticks", &kLatitude, kCurrent, 201, -4, "-", 2},
      {"no policy bit: age only", &kAltitude, 0, 1234, -2, "-", 12},
      {"no fix yet, current policy", &kLatitude, kCurrent, kNoFix, -2, "-", kUnknown},
      {"no fix yet, old policy: stored fix", &kLatitude, kOld, kNoFix, -4, "1111.11111N", kUnknown},
      {"old policy with a current fix", &kAltitude, kOld, 10, 0, "1147.2", 0},
      {"both bits, stale: position runs the current evaluation only", &kLatitude, kCurrent | kOld, 500, -4, "-", 5},
      {"both bits, stale: altitude falls back to the file", &kAltitude, kCurrent | kOld, 500, -4, "33.3", 5},
      {"speed without a valid VTG", &kSpeed, kCurrent, kNoFix, -2, "-", kUnknown},
      {"speed without a valid VTG, old policy", &kSpeed, kOld, kNoFix, -4, "4.4", kUnknown},
      {"speed current", &kSpeed, kCurrent, 0, 0, "0.216", 0},
  };
  for (const auto& c : cases) {
    Reset();
    if (c.ageTicks != kNoFix) FixAged(c.ageTicks);
    else gps_private_info.fix_tick = gps_private_info.course_speed_tick = ticks_.now();
    char out[16] = "-";
    uint32_t age = 9999;
    EXPECT_EQ((*c.query)(out, &age, c.flags), c.result) << c.legend;
    EXPECT_STREQ(out, c.output) << c.legend;
    EXPECT_EQ(age, c.ageSeconds) << c.legend;
  }
}

// Before this run's first fix the stored fix is an earlier run's: its age is
// the system clock minus its UTC date and time, unknown when either cannot be
// trusted. Speeds take the stored fix's age.
TEST_F(QueryTest, StoredFixAgeComesFromItsDateAndTheClock) {
  static std::time_t clock;
  gps::platform::SetWallClock([] { return clock; });
  const std::time_t built = gps::platform::BuildTime();
  const int64_t day = 86400;
  const auto date = [](int64_t days) {
    char text[16] = {};
    lib_GPS_util_FormatDays(text, days);
    return std::string(text);
  };
  const int64_t today = built / day + 40;
  const struct {
    const char* legend;
    std::time_t clock;
    std::string date;
    const char* time;
    uint32_t age;
  } cases[] = {
      {"stored 30 days ago", today * day + 3600, date(today - 30), "01h00m00s", 30 * 86400},
      {"stored a second ago", today * day, date(today - 1), "23h59m59s", 1},
      {"clock before the build date", built - 1, date(built / day - 30), "01h00m00s", kUnknown},
      {"stored in the future", today * day, date(today), "00h00m01s", kUnknown},
      {"stored date is no day", today * day, "31/02/2026", "01h00m00s", kUnknown},
      {"no stored time", today * day, date(today - 1), "", kUnknown},
  };
  for (const auto& c : cases) {
    Reset();
    clock = c.clock;
    std::strcpy(gps_parameters.date, c.date.c_str());
    std::strcpy(gps_parameters.time, c.time);
    char out[16];
    uint32_t age = 0;
    EXPECT_EQ(kLatitude(out, &age, kOld), GEOLOCATING_GPS_ERROR_OLD_COORDINATES) << c.legend;
    EXPECT_EQ(age, c.age) << c.legend;
    EXPECT_EQ(kSpeed(out, &age, kOld), GEOLOCATING_GPS_ERROR_OLD_COORDINATES) << c.legend;
    EXPECT_EQ(age, c.age) << c.legend;
  }
  gps::platform::SetWallClock(nullptr);
}

TEST_F(QueryTest, LogLinesAndFallbackUse) {
  gps::test::LogCapture log;
  char out[16];
  uint32_t age = 0;
  lib_GPS_Geolocating_GPS_GetPosition(out, out, &age, kCurrent);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"GPS_GetPosition.", "GPS_GetPosition: accept only current fix."}))
      << "no result line for the position group without a fix";
  log.clear();
  lib_GPS_Geolocating_GPS_GetSpeedKMH(out, &age, kCurrent);
  EXPECT_TRUE(log.contains("GPS_GetSpeedKMH: GEOLOCATING_GPS_ERROR_NO_FIX_YET."));
  FixAged(500);
  log.clear();
  lib_GPS_Geolocating_GPS_GetAltitude(out, &age, kCurrent | kOld);
  EXPECT_EQ(log.count("GPS_GetAltitude: GEOLOCATING_GPS_ERROR_OLD_COORDINATES."), 2);
  log.clear();
  lib_GPS_Geolocating_GPS_GetPosition(out, out, &age, kCurrent | kOld);
  EXPECT_FALSE(log.contains("lib_GPS_param_RetrieveLastFixData.")) << "the file is not consulted";
}

TEST_F(QueryTest, AgesSurviveCounterWrapAndNullOutputsAreSkipped) {
  ticks_.set(50);
  lib_GPS_Lock();
  gps_private_info.fix_quality = gps_private_info.fix_seen = 1;
  gps_private_info.fix_tick = 0xFFFFFFFFu - 49;  // 100 ticks before the wrap-around
  lib_GPS_Unlock();
  uint32_t age = 0;
  char time[16];
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetTime(time, &age, kCurrent), 0);
  EXPECT_EQ(age, 1u);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(nullptr, nullptr, nullptr, kCurrent), 0);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetDateAndTime(nullptr, nullptr, nullptr, kOld), 0);
}

TEST_F(QueryTest, AResetAfterAFixKeepsTheTextsButQueriesSeeNoFix) {
  FixAged(0);
  lib_GPS_ResetInfosLocked(&gps_private_info);
  EXPECT_STREQ(gps_private_info.latitude, "4404.14063N");
  char lat[16];
  uint32_t age = 0;
  EXPECT_EQ(kLatitude(lat, &age, kCurrent), GEOLOCATING_GPS_ERROR_NO_FIX_YET);
  EXPECT_EQ(kLatitude(lat, &age, kOld), GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(lat, "1111.11111N");
}

}  // namespace
