// Replaceable time sources. Production code always reads time through these;
// tests install their own source instead of sleeping.
#pragma once

#include <cstdint>
#include <ctime>

namespace gps::platform {

using TickSource = uint32_t (*)();
using WallClock = std::time_t (*)();

// nullptr restores the monotonic clock.
void SetTickSource(TickSource source);
// nullptr restores time(2).
void SetWallClock(WallClock clock);
std::time_t WallClockNow();

// The monotonic clock in 10 ms ticks, ignoring any installed source.
uint32_t MonotonicTicks();

// Days from 1970-01-01 to a day of the proleptic Gregorian calendar (month 1
// to 12, day 1 to 31; negative before 1970).
constexpr int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

struct CivilDate {
  int64_t year;
  unsigned month;
  unsigned day;
};

// The inverse of DaysFromCivil.
constexpr CivilDate CivilFromDays(int64_t days) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shifted = (5 * dayOfYear + 2) / 153;
  const unsigned month = shifted < 10 ? shifted + 3 : shifted - 9;
  return {static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2), month, dayOfYear - (153 * shifted + 2) / 5 + 1};
}

// Midnight UTC of the day this program was built. No receiver date and no
// system clock of a running installation can truly be earlier.
std::time_t BuildTime();

}  // namespace gps::platform
