#include "export/record_view.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/os.h"

namespace gps::exporter {

namespace {

// User equivalent range error of a civil single-frequency fix [m]: the
// position error estimate is the dilution times this when the receiver
// gives no estimate of its own.
constexpr double kUereM = 5.0;
constexpr uint32_t kNavPvtOffsetValid = 11;

std::string FieldText(const char* field, size_t capacity) { return std::string(field, strnlen(field, capacity)); }

template <size_t N>
std::optional<double> Number(const char (&field)[N]) {
  const std::string text = FieldText(field, N);
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0') return std::nullopt;
  return value;
}

uint32_t U32(const uint8_t* p, size_t at) {
  return static_cast<uint32_t>(p[at]) | static_cast<uint32_t>(p[at + 1]) << 8 | static_cast<uint32_t>(p[at + 2]) << 16 |
         static_cast<uint32_t>(p[at + 3]) << 24;
}
int32_t I32(const uint8_t* p, size_t at) { return static_cast<int32_t>(U32(p, at)); }
uint16_t U16(const uint8_t* p, size_t at) { return static_cast<uint16_t>(p[at] | p[at + 1] << 8); }

bool Digits(const std::string& text, size_t at, size_t count, int& value) {
  value = 0;
  if (at + count > text.size()) return false;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + (text[i] - '0');
  }
  return true;
}

std::optional<int64_t> UtcMs(int year, int month, int day, int hour, int minute, int second) {
  if (year < 1980 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
    return std::nullopt;
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return static_cast<int64_t>(timegm(&t)) * 1000;
}

// The record keeps the date as "dd/mm/yyyy" and the time as "HHhMMmSSs".
std::optional<int64_t> NmeaUtcMs(const gps_private_info_t& r) {
  const std::string date = FieldText(r.date, sizeof r.date);
  const std::string time = FieldText(r.time, sizeof r.time);
  int day, month, year, hour, minute, second;
  if (date.size() != 10 || time.size() != 9 || !Digits(date, 0, 2, day) || !Digits(date, 3, 2, month) ||
      !Digits(date, 6, 4, year) || !Digits(time, 0, 2, hour) || !Digits(time, 3, 2, minute) ||
      !Digits(time, 6, 2, second))
    return std::nullopt;
  return UtcMs(year, month, day, hour, minute, second);
}

std::optional<PvtTime> ReadPvtTime(const uint8_t* p) {
  const auto whole = UtcMs(U16(p, 4), p[6], p[7], p[8], p[9], p[10]);
  if (!whole) return std::nullopt;
  PvtTime t;
  // nano is signed: the epoch may lie just before the second in the fields.
  const int64_t nano = I32(p, 16);
  const int64_t totalNs = *whole * 1000000 + nano;
  t.utcMs = totalNs >= 0 ? totalNs / 1000000 : -((-totalNs + 999999) / 1000000);
  t.nanoRemainder = static_cast<int32_t>(totalNs - t.utcMs * 1000000);
  t.valid = (p[kNavPvtOffsetValid] & 0x07) == 0x07;  // validDate, validTime, fullyResolved
  const uint8_t flags2 = p[22];
  t.confirmed = !(flags2 & 0x20) || (flags2 & 0xC0) == 0xC0;  // confirmedAvai: confirmedDate and confirmedTime
  return t;
}

// u-blox svid to the numbers NMEA and gpsd use; 0 for an empty channel.
int NmeaNumberOfUbxSvid(uint8_t svid) {
  if (svid >= 1 && svid <= 32) return svid;                     // GPS
  if (svid >= 120 && svid <= 151) return svid - 87;             // SBAS
  if (svid >= 65 && svid <= 96) return svid;                    // GLONASS
  if (svid >= 193 && svid <= 200) return svid;                  // QZSS
  if (svid >= 211 && svid <= 246) return svid - 211 + 301;      // Galileo
  if (svid >= 159 && svid <= 163) return svid - 159 + 201;      // BeiDou 1-5
  if (svid >= 33 && svid <= 64) return svid - 33 + 206;         // BeiDou 6-37
  return 0;
}

// NAV-TIMELS is current for ten minutes: a receiver sends it seldom.
constexpr uint32_t kTimelsCurrentTicks = 60000;

LeapView ReadLeap(const gps_private_info_t& r, uint32_t now, const std::optional<PvtTime>& pvt) {
  LeapView leap;
  if (r.nav_timels_tick != 0 && now - r.nav_timels_tick <= kTimelsCurrentTicks) {
    const uint8_t* p = r.nav_timels;
    const uint8_t valid = p[23];
    // Source 0 is the firmware's built-in count, which may be out of date.
    if ((valid & 0x01) && p[8] != 0 && p[8] != 255) leap.seconds = static_cast<int8_t>(p[9]);
    const int8_t change = static_cast<int8_t>(p[11]);
    const int32_t toEvent = I32(p, 12);
    // The change applies at the end of a UTC day; announced for this one when
    // it is at most a day away.
    if ((valid & 0x02) && change != 0 && toEvent > 0 && toEvent <= 86400) leap.change = change > 0 ? 1 : 2;
  }
  if (!leap.seconds && pvt && pvt->valid && pvt->confirmed) {
    // GPS time of week against the receiver's UTC time of week.
    const int64_t itowMs = U32(r.nav_pvt, 0);
    const int64_t utcMs = pvt->utcMs;
    const int64_t day = (utcMs >= 0 ? utcMs : utcMs - 86399999) / 86400000;
    const int64_t weekday = ((day + 4) % 7 + 7) % 7;  // 1970-01-01 was a Thursday; Sunday 0
    const int64_t utcWeekMs = weekday * 86400000 + (utcMs - day * 86400000);
    constexpr int64_t kWeekMs = 7LL * 86400000;
    const int64_t differenceMs = ((itowMs - utcWeekMs) % kWeekMs + kWeekMs) % kWeekMs;
    const int64_t seconds = (differenceMs + 500) / 1000;
    if (seconds < 128 && std::llabs(differenceMs - seconds * 1000) < 100) leap.seconds = static_cast<int>(seconds);
  }
  return leap;
}

}  // namespace

std::optional<double> NmeaAngleDegrees(const char* text) {
  const size_t n = strnlen(text, 16);
  if (n < 4) return std::nullopt;
  const char hemisphere = text[n - 1];
  if (hemisphere != 'N' && hemisphere != 'S' && hemisphere != 'E' && hemisphere != 'W') return std::nullopt;
  const std::string number(text, n - 1);
  const size_t point = number.find('.');
  const size_t wholeDigits = point == std::string::npos ? number.size() : point;
  if (wholeDigits < 3) return std::nullopt;
  for (size_t i = 0; i < number.size(); ++i)
    if ((number[i] < '0' || number[i] > '9') && i != point) return std::nullopt;
  const double degrees = std::atof(number.substr(0, wholeDigits - 2).c_str());
  const double minutes = std::atof(number.substr(wholeDigits - 2).c_str());
  if (minutes >= 60.0) return std::nullopt;
  const double value = degrees + minutes / 60.0;
  return hemisphere == 'S' || hemisphere == 'W' ? -value : value;
}

RecordView ConvertRecord(const gps_private_info_t& r, uint32_t now, uint32_t afterSequence, bool withMessages) {
  RecordView v;
  const bool pvtCurrent = r.nav_pvt_tick != 0 && now - r.nav_pvt_tick <= GPS_FIX_VALIDITY_TICKS;
  const bool gsaCurrent = r.gsa_tick != 0 && now - r.gsa_tick <= GPS_FIX_VALIDITY_TICKS;
  const int pvtFixType = pvtCurrent ? r.nav_pvt[20] : 0;
  if (pvtCurrent) v.pvtTime = ReadPvtTime(r.nav_pvt);

  FixView& f = v.fix;
  f.ggaTick = r.gga_tick;
  f.quality = r.fix_quality;
  f.current = r.fix_quality != 0 && now - r.fix_tick <= GPS_FIX_VALIDITY_TICKS;
  if (r.gga_tick != 0) f.mode = 1;
  if (f.current) {
    f.latitudeDeg = NmeaAngleDegrees(r.latitude);
    f.longitudeDeg = NmeaAngleDegrees(r.longitude);
    f.altitudeMslM = Number(r.altitude);
    f.geoidSeparationM = Number(r.geoid_separation);
    if (f.altitudeMslM && f.geoidSeparationM) f.altitudeHaeM = *f.altitudeMslM + *f.geoidSeparationM;
    if (gsaCurrent && (r.gsa_fix_type == 2 || r.gsa_fix_type == 3)) f.mode = r.gsa_fix_type;
    else f.mode = f.altitudeMslM ? 3 : 2;
    if (!f.latitudeDeg || !f.longitudeDeg) f.mode = 1;  // nothing to report as a position
    if (f.mode < 3) f.altitudeMslM = f.altitudeHaeM = std::nullopt;
    f.utcMs = NmeaUtcMs(r);
    // NAV-PVT of the same second adds the milliseconds NMEA text lost.
    if (f.utcMs && v.pvtTime && v.pvtTime->valid && v.pvtTime->utcMs / 1000 == *f.utcMs / 1000)
      f.utcMs = v.pvtTime->utcMs;
    const bool courseCurrent = r.vtg_mode != 'N' && now - r.course_speed_tick <= GPS_FIX_VALIDITY_TICKS;
    if (courseCurrent) {
      if (const auto kmh = Number(r.speed_kmh)) f.speedMps = *kmh / 3.6;
      f.trackDeg = Number(r.course_true);
    }
    if (pvtFixType >= 2 && pvtFixType <= 4) {
      f.climbMps = -I32(r.nav_pvt, 56) / 1000.0;  // velD [mm/s], down positive
      f.horizontalErrorM = U32(r.nav_pvt, 40) / 1000.0;
      if (f.mode == 3) f.verticalErrorM = U32(r.nav_pvt, 44) / 1000.0;
    } else {
      if (const auto hdop = Number(r.hdop)) f.horizontalErrorM = *hdop * kUereM;
      if (const auto vdop = Number(r.vdop); vdop && gsaCurrent && f.mode == 3) f.verticalErrorM = *vdop * kUereM;
    }
  }

  SkyView& s = v.sky;
  // A report is current for two fix periods (at least the fix validity): a
  // receiver in power save reports seldom.
  const uint32_t periodTicks = r.fix_update_period_ms / 10 > 100 ? r.fix_update_period_ms / 10 : 100;
  const uint32_t currentTicks = 2 * periodTicks > GPS_FIX_VALIDITY_TICKS ? 2 * periodTicks : GPS_FIX_VALIDITY_TICKS;
  const auto current = [&](uint32_t tick) { return tick != 0 && now - tick <= currentTicks; };
  const uint32_t usedCount = gsaCurrent ? (r.gsa_used_count < GPS_GSA_USED_CAPACITY ? r.gsa_used_count
                                                                                     : GPS_GSA_USED_CAPACITY)
                                        : 0;
  const auto usedInGsa = [&](int prn) {
    for (uint32_t u = 0; u < usedCount; ++u)
      if (static_cast<int>(r.gsa_used_prn[u]) == prn) return true;
    return false;
  };
  if (current(r.sat_view_tick)) {
    s.satViewTick = r.sat_view_tick;
    for (const auto* table : {r.sat_prn_1_32, r.sat_prn_33_64}) {
      for (int i = 0; i < 32; ++i) {
        const gps_satellite_t& sat = table[i];
        // Satellites of the latest groups; older ticks are ones that left the sky.
        if (sat.prn == 0 || r.sat_view_tick - sat.tick >= periodTicks) continue;
        const int prn = static_cast<int>(sat.prn);
        s.satellites.push_back({prn, static_cast<int>(sat.elevation), static_cast<int>(sat.azimuth),
                                static_cast<int>(sat.snr), usedInGsa(prn)});
      }
    }
  } else if (current(r.nav_svinfo_tick)) {
    s.satViewTick = r.nav_svinfo_tick;
    const uint32_t channels = r.nav_svinfo[4] < GPS_NAV_SVINFO_CHANNELS ? r.nav_svinfo[4] : GPS_NAV_SVINFO_CHANNELS;
    for (uint32_t c = 0; c < channels; ++c) {
      const uint8_t* ch = r.nav_svinfo + 8 + 12 * c;
      const int prn = NmeaNumberOfUbxSvid(ch[1]);
      if (prn == 0) continue;
      SatelliteView out{prn, std::nullopt, std::nullopt, std::nullopt, (ch[2] & 0x01) != 0};
      if (ch[2] & 0x04) {  // orbitAvail: elevation and azimuth are known
        out.elevationDeg = static_cast<int8_t>(ch[5]);
        out.azimuthDeg = static_cast<int16_t>(U16(ch, 6));
      }
      if (ch[4] != 0) out.signalDbHz = ch[4];
      s.satellites.push_back(out);
    }
  } else if (usedCount != 0) {
    // Only the used list is known: the satellites without position or signal.
    s.satViewTick = r.gsa_tick;
    for (uint32_t u = 0; u < usedCount; ++u)
      if (r.gsa_used_prn[u] != 0) s.satellites.push_back({static_cast<int>(r.gsa_used_prn[u]), {}, {}, {}, true});
  }
  for (const SatelliteView& sat : s.satellites) s.usedCount += sat.used ? 1 : 0;
  s.hdop = Number(r.hdop);
  if (gsaCurrent) {
    s.vdop = Number(r.vdop);
    s.pdop = Number(r.pdop);
  }

  v.leap = ReadLeap(r, now, v.pvtTime);
  f.leapSeconds = v.leap.seconds;

  DeviceView& d = v.device;
  d.ubx = (r.module_type == GPS_MODULE_TYPE_UBX_G7020 || r.module_type == GPS_MODULE_TYPE_UBX_M8030) &&
          (r.nav_pvt_tick != 0 || r.sw_version[0] != '\0');
  d.powered = r.power_state == 1;
  if (r.sw_version[0] != '\0') {
    d.subtype = "SW " + FieldText(r.sw_version, sizeof r.sw_version) + ",HW " +
                FieldText(r.hw_version, sizeof r.hw_version);
    for (const auto& ext : r.ext_version) {
      const std::string text = FieldText(ext, sizeof ext);
      if (text.empty()) continue;
      if (!d.subtype1.empty()) d.subtype1 += ',';
      d.subtype1 += text;
    }
  }

  v.messageSequence = r.message_sequence;
  const uint32_t pending = withMessages ? r.message_sequence - afterSequence : 0;
  const uint32_t count = pending > GPS_MESSAGE_LOG_CAPACITY ? GPS_MESSAGE_LOG_CAPACITY : pending;
  for (uint32_t sequence = r.message_sequence - count + 1; count != 0; ++sequence) {
    const gps_logged_message_t& e = r.message_log[sequence % GPS_MESSAGE_LOG_CAPACITY];
    if (e.sequence == sequence) {
      const uint32_t stored = e.stored < GPS_MESSAGE_LOG_BYTES ? e.stored : GPS_MESSAGE_LOG_BYTES;
      v.messages.push_back({e.sequence, e.type, e.length, e.received_ns, e.line_bytes,
                            std::string(reinterpret_cast<const char*>(e.bytes), stored)});
    }
    if (sequence == r.message_sequence) break;
  }
  return v;
}

RecordView ReadRecord(uint32_t afterSequence, bool withMessages) {
  // The record is large; one copy per thread, reused. Under the lock: the
  // fields before the message log, and only the log entries not seen yet.
  thread_local gps_private_info_t copy;
  constexpr size_t kHead = offsetof(gps_private_info_t, message_log);
  lib_GPS_Lock();
  std::memcpy(static_cast<void*>(&copy), &gps_private_info, kHead);
  if (withMessages) {
    const uint32_t pending = copy.message_sequence - afterSequence;
    const uint32_t count = pending > GPS_MESSAGE_LOG_CAPACITY ? GPS_MESSAGE_LOG_CAPACITY : pending;
    for (uint32_t n = 0; n < count; ++n) {
      const uint32_t slot = (copy.message_sequence - n) % GPS_MESSAGE_LOG_CAPACITY;
      std::memcpy(static_cast<void*>(&copy.message_log[slot]), &gps_private_info.message_log[slot],
                  sizeof copy.message_log[slot]);
    }
  }
  lib_GPS_Unlock();
  return ConvertRecord(copy, OS_rtc_GetTickCounter(), afterSequence, withMessages);
}

}  // namespace gps::exporter
