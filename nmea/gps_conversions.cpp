#include "nmea/gps_conversions.h"

#include <iterator>

#include "platform/clock.h"
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

namespace {

bool Digits(const char* text, int count) {
  for (int i = 0; i < count; ++i)
    if (text[i] < '0' || text[i] > '9') return false;
  return true;
}

unsigned TwoDigits(const char* text) { return static_cast<unsigned>((text[0] - '0') * 10 + (text[1] - '0')); }

// Days since 1970 of a calendar day, or -1 when there is no such day.
int64_t CalendarDays(int64_t year, unsigned month, unsigned day) {
  if (month < 1 || month > 12 || day < 1 || day > 31) return -1;
  const int64_t days = gps::platform::DaysFromCivil(year, month, day);
  const gps::platform::CivilDate back = gps::platform::CivilFromDays(days);
  return back.month == month && back.day == day ? days : -1;  // 31/04 is no day
}

}  // namespace

int64_t lib_GPS_util_NmeaDateDays(const char* text) {
  if (!text || !Digits(text, 6)) return -1;
  const unsigned yy = TwoDigits(text + 4);
  return CalendarDays(yy >= 80 ? 1900 + yy : 2000 + yy, TwoDigits(text + 2), TwoDigits(text));
}

void lib_GPS_util_FormatDays(char* text, int64_t days) {
  const gps::platform::CivilDate date = gps::platform::CivilFromDays(days);
  const unsigned year = date.year < 0 ? 0 : static_cast<unsigned>(date.year % 10000);
  const unsigned parts[] = {date.day / 10, date.day % 10, date.month / 10, date.month % 10,
                            year / 1000,   year / 100 % 10, year / 10 % 10, year % 10};
  char* out = text;
  for (size_t i = 0; i < std::size(parts); ++i) {
    if (i == 2 || i == 4) *out++ = '/';
    *out++ = static_cast<char>('0' + parts[i]);
  }
  *out = '\0';
}

int64_t lib_GPS_util_RecordUtcSeconds(const char* date, const char* time) {
  if (!date || !time) return -1;
  if (!Digits(date, 2) || date[2] != '/' || !Digits(date + 3, 2) || date[5] != '/' || !Digits(date + 6, 4)) return -1;
  if (!Digits(time, 2) || time[2] != 'h' || !Digits(time + 3, 2) || time[5] != 'm' || !Digits(time + 6, 2) ||
      time[8] != 's')
    return -1;
  const int64_t days = CalendarDays(TwoDigits(date + 6) * 100 + TwoDigits(date + 8), TwoDigits(date + 3), TwoDigits(date));
  const unsigned hours = TwoDigits(time);
  const unsigned minutes = TwoDigits(time + 3);
  const unsigned seconds = TwoDigits(time + 6);
  if (days < 0 || hours > 23 || minutes > 59 || seconds > 60) return -1;
  return days * 86400 + hours * 3600 + minutes * 60 + seconds;
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
