#include "nmea/gps_conversions.h"

#include "platform/os.h"

int32_t lib_GPS_util_ParseDecimalDigits(const char* text) {
  if (!text) return 0;
  uint32_t value = 0;  // unsigned: overflow wraps instead of being undefined
  for (const char* p = text; *p >= '0' && *p <= '9'; ++p) value = value * 10u + static_cast<uint32_t>(*p - '0');
  return static_cast<int32_t>(value);
}

void lib_GPS_util_FormatNmeaTime(char* text) {
  // Backwards, so every source character is read before it is overwritten.
  text[8] = 's';
  text[7] = text[5];
  text[6] = text[4];
  text[5] = 'm';
  text[4] = text[3];
  text[3] = text[2];
  text[2] = 'h';
}

void lib_GPS_util_FormatNmeaDate(char* text) {
  text[10] = '\0';
  text[9] = text[5];
  text[8] = text[4];
  text[7] = '0';
  text[6] = '2';
  text[5] = '/';
  text[4] = text[3];
  text[3] = text[2];
  text[2] = '/';
}

void lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes(const int32_t* scaledDegrees,
                                                                         int32_t* degrees, int32_t* minutes,
                                                                         int32_t* fractionalMinutes) {
  if (!scaledDegrees || !degrees || !minutes || !fractionalMinutes) {
    Sys_log(3, "lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes: at least one parameter is null.");
    return;
  }
  const int32_t angle = *scaledDegrees;
  const int32_t whole = angle / 10000000;
  // The remainder is below 1e7 in magnitude, so 60 times it fits in 32 bits.
  const int32_t m = (60 * (angle - whole * 10000000)) / 100;
  *degrees = whole;
  *minutes = m / 100000;
  *fractionalMinutes = m - *minutes * 100000;
}
