#include "nmea/nmea_parser.h"

#include <cstring>

#include "nmea/gps_conversions.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "platform/os.h"
#include "transport/gps_trace.h"

namespace {

// Wrap-safe "at least `period` ticks since `since`".
inline bool TicksElapsed(uint32_t now, uint32_t since, uint32_t period) { return now - since >= period; }

// latitude/longitude: the coordinate text followed by its hemisphere letter,
// cut so that the letter always fits the 16-byte field.
void ComposeCoordinate(char (&field)[16], const char* value, const char* hemisphere) {
  uint32_t n = 0;
  while (n < sizeof field - 2 && value[n] != '\0') {
    field[n] = value[n];
    ++n;
  }
  field[n++] = hemisphere[0];
  std::memset(field + n, 0, sizeof field - n);
}

// The TXT text is the last field: compare only what stands before the
// checksum suffix and the line end.
bool TextFieldEquals(const char* field, const char* expected) {
  const size_t n = std::strlen(expected);
  if (std::strncmp(field, expected, n) != 0) return false;
  const char next = field[n];
  return next == '\0' || next == '*' || next == '\r' || next == '\n';
}

void PutLittleEndian32(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
  at[2] = static_cast<uint8_t>(value >> 16);
  at[3] = static_cast<uint8_t>(value >> 24);
}

constexpr uint32_t kNavStatusTtffOffset = 8;

constexpr int64_t kRolloverDays = 1024 * 7;
constexpr int64_t kSecondsPerDay = 86400;
constexpr int64_t kBuildDayRelative = INT64_MIN;
int64_t g_earliestReceiverDay = kBuildDayRelative;

int64_t EarliestReceiverDay() {
  const int64_t earliest = __atomic_load_n(&g_earliestReceiverDay, __ATOMIC_RELAXED);
  if (earliest != kBuildDayRelative) return earliest;
  return gps::platform::BuildTime() / kSecondsPerDay - kRolloverDays;
}

// A receiver whose week number rolled over reports a date a multiple of 1024
// weeks too early; the first such date of a run is logged.
int64_t CorrectRollover(gps_private_info_t* infos, int64_t days) {
  const int64_t earliest = EarliestReceiverDay();
  if (days >= earliest) return days;
  const int64_t corrected = days + (earliest - days + kRolloverDays - 1) / kRolloverDays * kRolloverDays;
  if (!infos->rollover_logged) {
    infos->rollover_logged = 1;
    char from[11];
    char to[11];
    lib_GPS_util_FormatDays(from, days);
    lib_GPS_util_FormatDays(to, corrected);
    Sys_log(4,
            "GPS: the receiver's date %s is over 1024 weeks before this software was built: a GPS week rollover, "
            "read as %s",
            from, to);
  }
  return corrected;
}

// A fix whose date and time are more than a day away from where the previous
// fix of this run and the ticks since then put it is served (the receiver is
// the only source of time) but said once: the receiver's clock jumped.
void CheckDateJump(gps_private_info_t* infos, uint32_t tick) {
  const int64_t utc = lib_GPS_util_RecordUtcSeconds(infos->date, infos->time);
  if (utc < 0) return;
  const int64_t previous = infos->last_fix_utc;
  const uint32_t elapsedTicks = tick - infos->last_fix_utc_tick;
  infos->last_fix_utc = utc;
  infos->last_fix_utc_tick = tick;
  if (previous == 0 || infos->date_jump_logged) return;
  const int64_t jump = utc - (previous + elapsedTicks / 100);
  if (jump <= kSecondsPerDay && jump >= -kSecondsPerDay) return;
  infos->date_jump_logged = 1;
  Sys_log(4, "GPS: the receiver's date and time jumped by %lld s (%.*s %.*s); a receiver clock fault is likely",
          static_cast<long long>(jump), 10, infos->date, 9, infos->time);
}

}  // namespace

void lib_GPS_SetEarliestReceiverDay(int64_t days) { __atomic_store_n(&g_earliestReceiverDay, days, __ATOMIC_RELAXED); }

int tokenize(char* text, char** tokens, char separator, int maxTokens) {
  int count = 0;
  for (char* p = text; *p != '\0' && count < maxTokens; ++p) {
    if (*p == separator) {
      *p = '\0';
      tokens[count++] = p + 1;
    }
  }
  return count;
}

void analyze_gps_nmea_message(gps_private_info_t* infos, gps_message_t* message) {
  // A sentence that filled the whole buffer has no terminator after it; the
  // last stored byte becomes one so that nothing reads past the buffer.
  if (message->length >= GPS_FRAME_BUFFER_BYTES) message->buffer[GPS_FRAME_BUFFER_BYTES - 1] = 0;
  if (message->length < 4) return;  // "$" and a talker, no sentence type
  char* type = reinterpret_cast<char*>(message->buffer) + 3;
  char* tokens[GPS_NMEA_MAX_TOKENS];
  lib_GPS_Trace(7, "tokenize");
  const int count = tokenize(type, tokens, ',', GPS_NMEA_MAX_TOKENS);
  lib_GPS_Trace(7, "analyze_gps_nmea_message");
  if (std::strncmp(type, "VTG", 3) == 0) analyze_gps_message_gxvtg(infos, tokens, count);
  if (std::strncmp(type, "GGA", 3) == 0) analyze_gps_message_gxgga(infos, tokens, count);
  if (std::strncmp(type, "GSA", 3) == 0) analyze_gps_message_gxgsa(infos, tokens, count);
  if (std::strncmp(type, "GSV", 3) == 0) analyze_gps_message_gxgsv(infos, tokens, count);
  if (std::strncmp(type, "TXT", 3) == 0) analyze_gps_message_gxtxt(infos, tokens, count);
  if (std::strncmp(type, "RMC", 3) == 0) analyze_gps_message_gxrmc(infos, tokens, count);
  if (std::strncmp(type, "TTFF", 4) == 0) analyze_gps_message_gxttff(infos, tokens, count);
}

// $GPVTG,77.52,T,,M,0.004,N,0.008,K,A*06
// A VTG of NMEA 2.x ends after the km/h unit, without the mode field
// ($GPVTG,77.52,T,,M,0.004,N,0.008,K*4B): it is read as mode 'A' when both
// speeds are present, and as 'N' (course and speed not taken) otherwise.
void analyze_gps_message_gxvtg(gps_private_info_t* infos, char** tokens, int count) {
  const uint32_t tick = OS_rtc_GetTickCounter();
  lib_GPS_Trace(7, "analyze_gps_message_gxvtg");
  lib_GPS_Lock();
  infos->vtg_tick = tick;
  if (count >= 8) {
    if (count > 8) {
      infos->vtg_mode = tokens[8][0];
    } else {
      infos->vtg_mode = tokens[4][0] != '\0' && tokens[6][0] != '\0' ? 'A' : 'N';
    }
    if (infos->vtg_mode != 'N') {
      infos->course_speed_tick = tick;
      infos->course_speed_seen = 1;
      lib_GPS_CopyField(infos->course_true, sizeof infos->course_true, tokens[0]);
      lib_GPS_CopyField(infos->course_magnetic, sizeof infos->course_magnetic, tokens[2]);
      lib_GPS_CopyField(infos->speed_knots, sizeof infos->speed_knots, tokens[4]);
      lib_GPS_CopyField(infos->speed_kmh, sizeof infos->speed_kmh, tokens[6]);
      lib_GPS_param_RecordLastCourseAndSpeedData(infos->course_true, infos->course_magnetic, infos->speed_knots,
                                                 infos->speed_kmh);
      if (TicksElapsed(tick, infos->last_course_store_tick, GPS_LAST_DATA_STORE_PERIOD_TICKS)) {
        infos->last_course_store_tick = tick;
        lib_GPS_param_StoreLastCourseAndSpeedData();
      }
    }
  }
  lib_GPS_Unlock();
}

// $GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44
// The time keeps whole seconds only: "083559.000" (more than two decimals)
// gives "08h35m59s" like "083559.00".
void analyze_gps_message_gxgga(gps_private_info_t* infos, char** tokens, int count) {
  Sys_log(7, "analyze_gps_message_gxgga.");
  const uint32_t tick = OS_rtc_GetTickCounter();
  lib_GPS_Lock();
  infos->gga_tick = tick;
  if (count > 13) {
    // A quality field that is not a digit counts as no fix.
    const char q = tokens[5][0];
    infos->fix_quality = (q >= '0' && q <= '9') ? static_cast<uint8_t>(q - '0') : 0;
    if (infos->fix_quality != 0) {
      Sys_log(7, "analyze_gps_message_gxgga: valid fix.");
      infos->fix_tick = tick;
      infos->fix_seen = 1;
      lib_GPS_CopyField(infos->time, sizeof infos->time, tokens[0]);
      lib_GPS_util_FormatNmeaTime(infos->time);
      constexpr size_t kFormattedTimeChars = 9;  // HHhMMmSSs
      std::memset(infos->time + kFormattedTimeChars, 0, sizeof infos->time - kFormattedTimeChars);
      CheckDateJump(infos, tick);
      ComposeCoordinate(infos->latitude, tokens[1], tokens[2]);
      lib_GPS_Trace(7, "infos->latitude: %s", infos->latitude);
      ComposeCoordinate(infos->longitude, tokens[3], tokens[4]);
      lib_GPS_Trace(7, "infos->longitude: %s", infos->longitude);
      lib_GPS_CopyField(infos->hdop, sizeof infos->hdop, tokens[7]);
      lib_GPS_CopyField(infos->altitude, sizeof infos->altitude, tokens[8]);
      lib_GPS_CopyField(infos->geoid_separation, sizeof infos->geoid_separation, tokens[10]);
      if (infos->fix_quality == 2) {
        lib_GPS_CopyField(infos->dgps_age, sizeof infos->dgps_age, tokens[12]);
        lib_GPS_CopyField(infos->dgps_station_id, sizeof infos->dgps_station_id, tokens[13]);
      }
      lib_GPS_param_RecordLastFixData(infos->date, infos->time, infos->latitude, infos->longitude, infos->hdop,
                                      infos->altitude);
      if (TicksElapsed(tick, infos->last_fix_store_tick, GPS_LAST_DATA_STORE_PERIOD_TICKS)) {
        infos->last_fix_store_tick = tick;
        lib_GPS_param_StoreLastFixData();
      }
    }
  }
  lib_GPS_Unlock();
}

// $GNGSA,A,3,01,11,31,14,22,32,04,25,03,,,,1.56,0.91,1.27*15
// A receiver tracking several constellations sends one GSA per constellation
// in the same burst: sentences within kGsaGroupTicks of the group's first add
// their satellites to it.
void analyze_gps_message_gxgsa(gps_private_info_t* infos, char** tokens, int count) {
  constexpr uint32_t kGsaGroupTicks = 20;
  lib_GPS_Trace(7, "analyze_gps_message_gxgsa");
  if (count < 17) return;
  const uint32_t tick = OS_rtc_GetTickCounter();
  const char mode = tokens[1][0];
  lib_GPS_Lock();
  if (infos->gsa_tick == 0 || TicksElapsed(tick, infos->gsa_tick, kGsaGroupTicks + 1)) {
    infos->gsa_tick = tick == 0 ? 1 : tick;
    infos->gsa_used_count = 0;
  }
  infos->gsa_fix_type = (mode >= '1' && mode <= '3') ? static_cast<uint8_t>(mode - '0') : 1;
  for (int i = 2; i < 14; ++i) {
    const int32_t prn = lib_GPS_util_ParseDecimalDigits(tokens[i]);
    if (prn <= 0 || infos->gsa_used_count >= GPS_GSA_USED_CAPACITY) continue;
    infos->gsa_used_prn[infos->gsa_used_count++] = static_cast<uint32_t>(prn);
  }
  lib_GPS_CopyField(infos->pdop, sizeof infos->pdop, tokens[14]);
  // The last field carries the checksum suffix.
  char vdop[sizeof infos->vdop] = {};
  for (uint32_t n = 0; n + 1 < sizeof vdop && tokens[16][n] != '\0' && tokens[16][n] != '*' && tokens[16][n] != '\r'; ++n)
    vdop[n] = tokens[16][n];
  lib_GPS_CopyField(infos->vdop, sizeof infos->vdop, vdop);
  lib_GPS_Unlock();
}

// $GPGSV,4,1,13,01,53,280,36,03,29,301,24,04,55,223,37,08,38,166,16*7C
// Only message number 1 starts a group; messages 10 to 19 continue one. PRNs
// outside 1 to 64 are counted but stored in no table.
void analyze_gps_message_gxgsv(gps_private_info_t* infos, char** tokens, int count) {
  lib_GPS_Trace(7, "analyze_gps_message_gxgsv");
  if (count < 3) return;
  // Message 1 (not 10 to 16, which also begin with '1') starts a group.
  if (lib_GPS_util_ParseDecimalDigits(tokens[1]) == 1) {
    infos->gsv_sats_in_view = static_cast<uint32_t>(lib_GPS_util_ParseDecimalDigits(tokens[2]));
    infos->gsv_sats_collected = 0;
    infos->gsv_group_tick = OS_rtc_GetTickCounter();
  }
  for (int i = 3; i + 3 < count && infos->gsv_sats_collected < GPS_GSV_STAGING_CAPACITY; i += 4) {
    lib_GPS_Trace(7, "While 1 gpgsv");
    gps_satellite_t& staged = infos->gsv_staging[infos->gsv_sats_collected];
    staged.prn = static_cast<uint32_t>(lib_GPS_util_ParseDecimalDigits(tokens[i]));
    staged.elevation = static_cast<uint32_t>(lib_GPS_util_ParseDecimalDigits(tokens[i + 1]));
    staged.azimuth = static_cast<uint32_t>(lib_GPS_util_ParseDecimalDigits(tokens[i + 2]));
    staged.snr = static_cast<uint32_t>(lib_GPS_util_ParseDecimalDigits(tokens[i + 3]));
    ++infos->gsv_sats_collected;
  }
  if (infos->gsv_sats_collected != infos->gsv_sats_in_view) return;
  lib_GPS_Trace(7, "Wait for lock");
  lib_GPS_Lock();
  lib_GPS_Trace(7, "Locked");
  infos->sat_view_count = infos->gsv_sats_collected;
  infos->sat_view_tick = infos->gsv_group_tick;
  for (uint32_t i = 0; i < infos->gsv_sats_collected; ++i) {
    lib_GPS_Trace(7, "While 2 gpgsv");
    const gps_satellite_t& staged = infos->gsv_staging[i];
    gps_satellite_t* target = nullptr;
    if (staged.prn >= 1 && staged.prn <= 32) target = &infos->sat_prn_1_32[staged.prn - 1];
    else if (staged.prn >= 33 && staged.prn <= 64) target = &infos->sat_prn_33_64[staged.prn - 33];
    if (!target) continue;
    target->prn = staged.prn;
    target->elevation = staged.elevation;
    target->azimuth = staged.azimuth;
    target->snr = staged.snr;
    target->tick = infos->gsv_group_tick;
  }
  lib_GPS_Unlock();
}

// $GPTXT,01,01,02,Resetting GPS*68
void analyze_gps_message_gxtxt(gps_private_info_t* infos, char** tokens, int count) {
  lib_GPS_Trace(7, "analyze_gps_message_gxtxt");
  if (count > 3 && TextFieldEquals(tokens[3], "Resetting GPS")) {
    lib_GPS_NotifyListeners(infos, GPS_EVENT_MODULE_RESET);
    lib_GPS_Trace(7, "ublox module reset detected !");
  }
}

// $GNRMC,171926.00,A,4404.14063,N,12118.85478,W,0.117,,180315,,,A*76
// A receiver without time yet sends the date empty: only a date of six digits
// (ddmmyy) that is a day of the calendar replaces the known one.
void analyze_gps_message_gxrmc(gps_private_info_t* infos, char** tokens, int count) {
  lib_GPS_Trace(7, "analyze_gps_message_gxrmc");
  if (count <= 8) return;
  const int64_t days = lib_GPS_util_NmeaDateDays(tokens[8]);
  if (days < 0) return;
  lib_GPS_Lock();
  std::memset(infos->date, 0, sizeof infos->date);
  lib_GPS_util_FormatDays(infos->date, CorrectRollover(infos, days));
  lib_GPS_Unlock();
}

// $GPTTFF,28500,31250*5C  (2D and 3D time to first fix)
void analyze_gps_message_gxttff(gps_private_info_t* infos, char** tokens, int count) {
  lib_GPS_Trace(7, "analyze_gps_message_gxttff");
  if (count <= 1) return;
  lib_GPS_Lock();
  const int32_t ttff2d = lib_GPS_util_ParseDecimalDigits(tokens[0]);
  const int32_t ttff3d = lib_GPS_util_ParseDecimalDigits(tokens[1]);
  lib_GPS_Trace(7, "ttff2d: %d", ttff2d);
  lib_GPS_Trace(7, "ttff3d: %d", ttff3d);
  const int32_t ttff = (ttff2d >= 0 && ttff3d < 0) ? ttff2d : ttff3d;
  PutLittleEndian32(infos->nav_status + kNavStatusTtffOffset, static_cast<uint32_t>(ttff));
  lib_GPS_Unlock();
}
