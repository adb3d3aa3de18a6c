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

  char date[16] = "230915";
  lib_GPS_util_FormatNmeaDate(date);
  EXPECT_STREQ(date, "23/09/2015");
  char y2k[16] = "010100";
  lib_GPS_util_FormatNmeaDate(y2k);
  EXPECT_STREQ(y2k, "01/01/2000");
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
