// Field conversions, with the values the analysers depend on.
#include <gtest/gtest.h>

#include <cstring>

#include "nmea/gps_conversions.h"
#include "tests/support/test_env.h"

namespace {

TEST(Conversions, ParseDecimalDigitsTakesOnlyLeadingDigits) {
  const struct {
    const char* text;
    int32_t value;
  } cases[] = {{"", 0}, {"007", 7}, {"-1", 0}, {"45*6A", 45}, {"12.9", 12}, {" 5", 0}, {"4294967297", 1}};
  EXPECT_EQ(lib_GPS_util_ParseDecimalDigits(nullptr), 0);
  for (const auto& c : cases) EXPECT_EQ(lib_GPS_util_ParseDecimalDigits(c.text), c.value) << '"' << c.text << '"';
}

TEST(Conversions, NmeaTimeAndDateAreRewrittenInPlace) {
  char time[16] = "123519.00";
  lib_GPS_util_FormatNmeaTime(time);
  EXPECT_STREQ(time, "12h35m19s");
  char noDecimals[16] = "083559";
  lib_GPS_util_FormatNmeaTime(noDecimals);
  EXPECT_STREQ(noDecimals, "08h35m59s");
}

// Receiver dates: two-digit years from 1980 to 2079, calendar days only; the
// record's date and time back to seconds since 1970.
TEST(Conversions, DatesAreDaysOfTheCalendarFrom1980) {
  const struct {
    const char* nmea;
    const char* formatted;  // "" when the date is refused
  } cases[] = {
      {"230915", "23/09/2015"}, {"010100", "01/01/2000"}, {"010180", "01/01/1980"}, {"311279", "31/12/2079"},
      {"290224", "29/02/2024"}, {"290223", ""},           {"310415", ""},           {"001015", ""},
      {"231315", ""},           {"2309", ""},             {"23091a", ""},
  };
  for (const auto& c : cases) {
    char text[16] = {};
    const int64_t days = lib_GPS_util_NmeaDateDays(c.nmea);
    if (days >= 0) {
      lib_GPS_util_FormatDays(text, days);
      EXPECT_EQ(lib_GPS_util_RecordUtcSeconds(text, "00h00m00s"), days * 86400) << c.nmea;
    }
    EXPECT_STREQ(text, c.formatted) << c.nmea;
  }
  EXPECT_EQ(lib_GPS_util_RecordUtcSeconds("23/11/2026", "17h19m26s"), 1795454366);
  EXPECT_EQ(lib_GPS_util_RecordUtcSeconds("23/11/2026", "24h00m00s"), -1);
  EXPECT_EQ(lib_GPS_util_RecordUtcSeconds("23-11-2026", "17h19m26s"), -1);
  EXPECT_EQ(lib_GPS_util_RecordUtcSeconds("", "17h19m26s"), -1);
}

TEST(Conversions, ScaledDegreesToDegreesAndMinutes) {
  const struct {
    int32_t angle;
    int32_t degrees, minutes, fraction;
  } cases[] = {
      {473566667, 47, 21, 40000},
      {85000000, 8, 30, 0},
      {0, 0, 0, 0},
      {1800000000, 180, 0, 0},
      {1799999999, 179, 59, 99999},
      {440690105, 44, 4, 14063},
  };
  for (const auto& c : cases) {
    int32_t d = -1, m = -1, f = -1;
    lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes(&c.angle, &d, &m, &f);
    EXPECT_EQ(d, c.degrees) << c.angle;
    EXPECT_EQ(m, c.minutes) << c.angle;
    EXPECT_EQ(f, c.fraction) << c.angle;
  }
}

TEST(Conversions, NullOutputWritesNothingAndLogs) {
  gps::test::LogCapture log;
  const int32_t angle = 85000000;
  int32_t d = -1, m = -1;
  lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes(&angle, &d, &m, nullptr);
  EXPECT_EQ(d, -1);
  EXPECT_EQ(m, -1);
  EXPECT_TRUE(log.contains(
      "lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes: at least one parameter is null."));
}

}  // namespace
