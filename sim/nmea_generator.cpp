#include "sim/nmea_generator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace gps::sim {

namespace {

constexpr double kKnotsPerMps = 3600.0 / 1852.0;
constexpr double kKmhPerMps = 3.6;
// Below this ground speed the receiver leaves the course empty, as a u-blox
// 8 does when its heading is not valid.
constexpr double kCourseValidMps = 0.5;

template <typename... Args>
std::string Format(const char* format, Args... args) {
  char buffer[128];
  const int n = std::snprintf(buffer, sizeof buffer, format, args...);
  return std::string(buffer, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof buffer - 1));
}

// "hhmmss.ss"
std::string TimeField(const NmeaFixState& fix) {
  if (!fix.timeValid) return "";
  const UtcTime t = UtcFromUnixMs(fix.utcMs);
  return Format("%02d%02d%02d.%02d", t.hour, t.minute, t.second, t.millisecond / 10);
}

// "ddmmyy"
std::string DateField(const NmeaFixState& fix) {
  if (!fix.timeValid) return "";
  const UtcTime t = UtcFromUnixMs(fix.utcMs);
  return Format("%02d%02d%02d", t.day, t.month, t.year % 100);
}

// Degrees and minutes with five decimals, rounded once in integer units so
// that 59.999996 minutes become the next whole degree, never "60.00000".
std::string Coordinate(double degrees, int degreeDigits, char positive, char negative) {
  const char hemisphere = degrees < 0 ? negative : positive;
  const long long units = std::llround(std::fabs(degrees) * 60.0 * 100000.0);  // 1e-5 minute
  const long long wholeDegrees = units / 6000000;
  const long long minuteUnits = units % 6000000;
  return Format("%0*lld%02lld.%05lld,%c", degreeDigits, wholeDegrees, minuteUnits / 100000, minuteUnits % 100000,
                hemisphere);
}

std::string Latitude(const NmeaFixState& fix) { return Coordinate(fix.latitudeDeg, 2, 'N', 'S'); }
std::string Longitude(const NmeaFixState& fix) { return Coordinate(fix.longitudeDeg, 3, 'E', 'W'); }

std::string Course(const NmeaFixState& fix) {
  if (fix.speedMps < kCourseValidMps) return "";
  return Format("%.2f", fix.courseDeg);
}

}  // namespace

int64_t DaysFromCivil(int year, int month, int day) {
  const int y = year - (month <= 2 ? 1 : 0);
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int yoe = y - era * 400;
  const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return static_cast<int64_t>(era) * 146097 + doe - 719468;
}

UtcTime UtcFromUnixMs(int64_t unixMs) {
  int64_t days = unixMs / 86400000;
  int64_t msOfDay = unixMs % 86400000;
  if (msOfDay < 0) {
    msOfDay += 86400000;
    --days;
  }
  // Civil date from a day count (proleptic Gregorian calendar).
  const int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  UtcTime t;
  t.day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  t.month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  t.year = static_cast<int>(yoe + era * 400 + (t.month <= 2 ? 1 : 0));
  t.hour = static_cast<int>(msOfDay / 3600000);
  t.minute = static_cast<int>(msOfDay / 60000 % 60);
  t.second = static_cast<int>(msOfDay / 1000 % 60);
  t.millisecond = static_cast<int>(msOfDay % 1000);
  return t;
}

uint8_t NmeaGenerator::Checksum(std::string_view body) {
  uint8_t sum = 0;
  for (char c : body) sum ^= static_cast<uint8_t>(c);
  return sum;
}

std::string NmeaGenerator::Sentence(std::string_view body) {
  std::string out;
  out.reserve(body.size() + 6);
  out += '$';
  out += body;
  out += Format("*%02X\r\n", Checksum(body));
  return out;
}

// $GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44
std::string NmeaGenerator::Gga(const NmeaFixState& fix) const {
  std::string body = talker_ + "GGA," + TimeField(fix) + ",";
  if (!fix.fixValid) return Sentence(body + ",,,,0,00,99.99,,,,,,");
  body += Latitude(fix) + "," + Longitude(fix) + ",1," + Format("%02d", std::min(fix.satellitesUsed, 12)) + "," +
          Format("%.2f", fix.hdop) + "," + Format("%.1f", fix.altitudeMslM) + ",M," +
          Format("%.1f", fix.geoidSeparationM) + ",M,,";
  return Sentence(body);
}

// $GNRMC,171926.00,A,4404.14063,N,12118.85478,W,0.117,,180315,,,A*76
std::string NmeaGenerator::Rmc(const NmeaFixState& fix) const {
  std::string body = talker_ + "RMC," + TimeField(fix) + ",";
  if (!fix.fixValid) return Sentence(body + "V,,,,,,," + DateField(fix) + ",,,N");
  body += "A," + Latitude(fix) + "," + Longitude(fix) + "," + Format("%.3f", fix.speedMps * kKnotsPerMps) + "," +
          Course(fix) + "," + DateField(fix) + ",,,A";
  return Sentence(body);
}

// $GNVTG,,T,,M,0.117,N,0.216,K,A*3F
std::string NmeaGenerator::Vtg(const NmeaFixState& fix) const {
  if (!fix.fixValid) return Sentence(talker_ + "VTG,,,,,,,,,N");
  return Sentence(talker_ + "VTG," + Course(fix) + ",T,,M," + Format("%.3f", fix.speedMps * kKnotsPerMps) + ",N," +
                  Format("%.3f", fix.speedMps * kKmhPerMps) + ",K,A");
}

// $GNGLL,4404.14066,N,12118.85481,W,171925.00,A,A*66
std::string NmeaGenerator::Gll(const NmeaFixState& fix) const {
  if (!fix.fixValid) return Sentence(talker_ + "GLL,,,,," + TimeField(fix) + ",V,N");
  return Sentence(talker_ + "GLL," + Latitude(fix) + "," + Longitude(fix) + "," + TimeField(fix) + ",A,A");
}

// $GNGSA,A,3,01,11,31,14,22,32,04,25,03,,,,1.56,0.91,1.27*15
std::string NmeaGenerator::Gsa(const NmeaFixState& fix, std::span<const SatelliteInView> constellation) const {
  std::string body = talker_ + "GSA,A," + (fix.fixValid ? "3" : "1");
  int slots = 0;
  if (fix.fixValid) {
    for (const SatelliteInView& sat : constellation) {
      if (!sat.usedInFix || slots == 12) continue;
      body += Format(",%02d", sat.prn);
      ++slots;
    }
  }
  for (; slots < 12; ++slots) body += ',';
  if (fix.fixValid)
    body += Format(",%.2f,%.2f,%.2f", fix.pdop, fix.hdop, fix.vdop);
  else
    body += ",99.99,99.99,99.99";
  return Sentence(body);
}

// $GPGSV,4,1,13,01,53,280,36,03,29,301,24,04,55,223,37,08,38,166,16*7C
std::vector<std::string> NmeaGenerator::Gsv(std::string_view talker, std::span<const SatelliteInView> satellites) {
  const int inView = static_cast<int>(satellites.size());
  const int total = std::max(1, (inView + 3) / 4);
  std::vector<std::string> group;
  for (int message = 1; message <= total; ++message) {
    std::string body = std::string(talker) + Format("GSV,%d,%d,%02d", total, message, inView);
    for (int i = (message - 1) * 4; i < std::min(inView, message * 4); ++i) {
      const SatelliteInView& sat = satellites[static_cast<size_t>(i)];
      body += Format(",%02d,%02d,%03d,", sat.prn, sat.elevationDeg, sat.azimuthDeg);
      if (sat.snrDbHz >= 0) body += Format("%02d", sat.snrDbHz);
    }
    group.push_back(Sentence(body));
  }
  return group;
}

std::string NmeaGenerator::Txt(std::string_view talker, int messageType, std::string_view text) {
  return Sentence(std::string(talker) + Format("TXT,01,01,%02d,", messageType) + std::string(text));
}

namespace {

struct SatelliteOrbit {
  int prn;
  double elevationDeg;  // at the reference time
  double azimuthDeg;
};

// Sorted by elevation, highest first: the strongest are acquired first.
constexpr SatelliteOrbit kGpsSky[] = {
    {11, 72, 245}, {1, 58, 280}, {4, 55, 223}, {32, 49, 331}, {31, 44, 133}, {14, 38, 55},
    {8, 33, 166},  {3, 29, 301}, {22, 24, 112}, {25, 15, 69},  {17, 8, 324},
};
constexpr SatelliteOrbit kGlonassSky[] = {
    {67, 62, 349}, {76, 43, 57}, {77, 40, 139}, {66, 37, 78}, {83, 27, 309}, {82, 25, 245}, {68, 20, 296},
};
constexpr double kElevationMaskDeg = 10;
constexpr double kTrackingMinimumDeg = 5;

template <size_t N>
std::vector<SatelliteInView> Constellation(const SatelliteOrbit (&orbits)[N], double seconds, double acquired,
                                           bool fixed) {
  std::vector<SatelliteInView> view;
  for (size_t i = 0; i < N; ++i) {
    const SatelliteOrbit& orbit = orbits[i];
    // Satellites cross the sky in hours: a few degrees of azimuth and a
    // little elevation change per quarter hour is enough for a lively view.
    const double phase = seconds / 1800.0 + orbit.prn;
    const double elevation = std::clamp(orbit.elevationDeg + 4.0 * std::sin(phase), 1.0, 89.0);
    double azimuth = std::fmod(orbit.azimuthDeg + seconds * 0.004, 360.0);
    if (azimuth < 0) azimuth += 360.0;
    // Before its first fix the receiver knows only the satellites it has
    // found so far; with a fix it lists the whole sky, the ones too low to be
    // heard without a signal strength.
    const bool tracked = fixed ? elevation >= kTrackingMinimumDeg
                               : acquired * static_cast<double>(N + 1) >= static_cast<double>(i + 1);
    if (!fixed && !tracked) continue;
    SatelliteInView sat;
    sat.prn = orbit.prn;
    sat.elevationDeg = static_cast<int>(std::lround(elevation));
    sat.azimuthDeg = static_cast<int>(std::lround(azimuth)) % 360;
    if (tracked) {
      const double flicker = 1.5 * std::sin(seconds / 7.0 + orbit.prn);
      sat.snrDbHz = static_cast<int>(std::lround(std::clamp(18.0 + elevation * 0.3 + flicker, 10.0, 50.0)));
      sat.usedInFix = fixed && elevation >= kElevationMaskDeg;
    }
    view.push_back(sat);
  }
  return view;
}

}  // namespace

SkyModel::Sky SkyModel::At(int64_t utcMs, double acquiredFraction, bool fixed) {
  // Seconds within the day keep the phases small and the sky repeatable.
  const double seconds = static_cast<double>(utcMs % 86400000) / 1000.0;
  const double acquired = fixed ? 1.0 : std::clamp(acquiredFraction, 0.0, 1.0);
  return Sky{Constellation(kGpsSky, seconds, acquired, fixed), Constellation(kGlonassSky, seconds, acquired, fixed)};
}

}  // namespace gps::sim
