// Fix queries: copy a field of the engine record under the lock and apply the
// caller's stale-fix policy, falling back to the stored last fix.
#include <cstring>

#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "nmea/gps_conversions.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "platform/os.h"

namespace {

constexpr uint32_t kFieldBytes = 16;

enum class Source { Fix, CourseAndSpeed };

struct QueryKind {
  const char* name;      // short name used in the log lines
  Source source;
  bool bothEvaluations;  // with both policy bits, the old-fix evaluation decides
};

constexpr QueryKind kPosition{"GPS_GetPosition", Source::Fix, false};
constexpr QueryKind kDateAndTime{"GPS_GetDateAndTime", Source::Fix, false};
constexpr QueryKind kDate{"GPS_GetDate", Source::Fix, false};
constexpr QueryKind kTime{"GPS_GetTime", Source::Fix, false};
constexpr QueryKind kAltitude{"GPS_GetAltitude", Source::Fix, true};
constexpr QueryKind kHdop{"GPS_GetHDOP", Source::Fix, true};
constexpr QueryKind kSpeedKmh{"GPS_GetSpeedKMH", Source::CourseAndSpeed, true};
constexpr QueryKind kSpeedKnot{"GPS_GetSpeedKnot", Source::CourseAndSpeed, true};
constexpr QueryKind kHeading{"GPS_GetHeading", Source::CourseAndSpeed, true};

void CopyField(char* out, const char* field) {
  if (out) std::memcpy(out, field, kFieldBytes);
}

// Seconds from the stored fix's UTC date and time to the system clock, or
// GPS_AGE_UNKNOWN when the clock reads before the day this program was built
// (it was never set) or the stored date and time are missing, damaged or later
// than the clock.
uint32_t StoredFixAge() {
  const int64_t stored = lib_GPS_util_RecordUtcSeconds(gps_parameters.date, gps_parameters.time);
  const int64_t now = gps::platform::WallClockNow();
  if (stored < 0 || now < gps::platform::BuildTime() || stored > now) return GPS_AGE_UNKNOWN;
  return now - stored < GPS_AGE_UNKNOWN ? static_cast<uint32_t>(now - stored) : GPS_AGE_UNKNOWN;
}

// copyCurrent copies the record's fields to the outputs; fallback asks the
// parameters file for the stored ones. Both run with the lock held.
template <typename CopyCurrent, typename Fallback>
int32_t Query(const QueryKind& kind, uint32_t* ageSeconds, uint32_t flags, CopyCurrent copyCurrent,
              Fallback fallback) {
  int32_t result = GEOLOCATING_GPS_ERROR_NO_FIX_YET;
  Sys_log(7, "%s.", kind.name);
  const gps_private_info_t& infos = gps_private_info;
  lib_GPS_Lock();
  const bool isFix = kind.source == Source::Fix;
  const uint32_t ageTicks = OS_rtc_GetTickCounter() - (isFix ? infos.fix_tick : infos.course_speed_tick);
  const bool seen = isFix ? infos.fix_seen : infos.course_speed_seen;
  if (ageSeconds) *ageSeconds = seen ? ageTicks / 100 : StoredFixAge();
  const bool exists = isFix ? infos.fix_quality != 0 : infos.vtg_mode != 'N';
  const bool current = exists && ageTicks <= GPS_FIX_VALIDITY_TICKS;

  if (flags & GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX) {
    Sys_log(7, "%s: accept only current fix.", kind.name);
    if (!exists) {
      if (!isFix) Sys_log(7, "%s: GEOLOCATING_GPS_ERROR_NO_FIX_YET.", kind.name);
      result = GEOLOCATING_GPS_ERROR_NO_FIX_YET;
    } else if (current) {
      copyCurrent();
      result = GEOLOCATING_GPS_ERROR_SUCCESS;
      Sys_log(7, "%s: GEOLOCATING_GPS_ERROR_SUCCESS.", kind.name);
    } else {
      result = GEOLOCATING_GPS_ERROR_OLD_COORDINATES;
      Sys_log(7, "%s: GEOLOCATING_GPS_ERROR_OLD_COORDINATES.", kind.name);
    }
  }
  const bool runOldFix = (flags & GEOLOCATING_GPS_ACCEPT_OLD_FIX) &&
                         (kind.bothEvaluations || !(flags & GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX));
  if (runOldFix) {
    Sys_log(7, "%s: accept old fix.", kind.name);
    if (current) {
      copyCurrent();
      Sys_log(7, "%s: GEOLOCATING_GPS_ERROR_SUCCESS.", kind.name);
      lib_GPS_Unlock();
      return GEOLOCATING_GPS_ERROR_SUCCESS;
    }
    fallback();
    result = GEOLOCATING_GPS_ERROR_OLD_COORDINATES;
    Sys_log(7, "%s: GEOLOCATING_GPS_ERROR_OLD_COORDINATES.", kind.name);
  }
  lib_GPS_Unlock();
  return result;
}

}  // namespace

int32_t lib_GPS_Geolocating_GPS_GetPosition(char* longitude, char* latitude, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kPosition, ageSeconds, flags,
      [&] {
        CopyField(longitude, gps_private_info.longitude);
        CopyField(latitude, gps_private_info.latitude);
      },
      [&] { lib_GPS_param_RetrieveLastFixData(nullptr, nullptr, latitude, longitude, nullptr, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetDateAndTime(char* date, char* time, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kDateAndTime, ageSeconds, flags,
      [&] {
        CopyField(date, gps_private_info.date);
        CopyField(time, gps_private_info.time);
      },
      [&] { lib_GPS_param_RetrieveLastFixData(date, time, nullptr, nullptr, nullptr, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetDate(char* date, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kDate, ageSeconds, flags, [&] { CopyField(date, gps_private_info.date); },
      [&] { lib_GPS_param_RetrieveLastFixData(date, nullptr, nullptr, nullptr, nullptr, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetTime(char* time, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kTime, ageSeconds, flags, [&] { CopyField(time, gps_private_info.time); },
      [&] { lib_GPS_param_RetrieveLastFixData(nullptr, time, nullptr, nullptr, nullptr, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetAltitude(char* altitude, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kAltitude, ageSeconds, flags, [&] { CopyField(altitude, gps_private_info.altitude); },
      [&] { lib_GPS_param_RetrieveLastFixData(nullptr, nullptr, nullptr, nullptr, nullptr, altitude); });
}

int32_t lib_GPS_Geolocating_GPS_GetHDOP(char* hdop, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kHdop, ageSeconds, flags, [&] { CopyField(hdop, gps_private_info.hdop); },
      [&] { lib_GPS_param_RetrieveLastFixData(nullptr, nullptr, nullptr, nullptr, hdop, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetSpeedKMH(char* speed, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kSpeedKmh, ageSeconds, flags, [&] { CopyField(speed, gps_private_info.speed_kmh); },
      [&] { lib_GPS_param_RetrieveLastCourseAndSpeedData(nullptr, nullptr, nullptr, speed); });
}

int32_t lib_GPS_Geolocating_GPS_GetSpeedKnot(char* speed, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kSpeedKnot, ageSeconds, flags, [&] { CopyField(speed, gps_private_info.speed_knots); },
      [&] { lib_GPS_param_RetrieveLastCourseAndSpeedData(nullptr, nullptr, speed, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetHeading(char* heading, uint32_t* ageSeconds, uint32_t flags) {
  return Query(
      kHeading, ageSeconds, flags, [&] { CopyField(heading, gps_private_info.course_true); },
      [&] { lib_GPS_param_RetrieveLastCourseAndSpeedData(heading, nullptr, nullptr, nullptr); });
}

int32_t lib_GPS_Geolocating_GPS_GetTTFF(uint8_t* status, uint32_t* tick) {
  lib_GPS_Lock();
  if (status) std::memcpy(status, gps_private_info.nav_status, sizeof gps_private_info.nav_status);
  if (tick) *tick = gps_private_info.nav_status_tick;
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}
