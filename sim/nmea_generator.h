// NMEA 0183 sentences as a u-blox 8 receiver writes them, built from a fix
// state. Independent of UBX and of any receiver logic, so that every
// simulated device (the u-blox receiver, the GPRS modem's GPS) can share it.
//
//   $GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44
//
// Every sentence comes back whole: '$', body, '*', two upper-case hex digits
// of the XOR of the body, CR LF.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace gps::sim {

struct UtcTime {
  int year = 1970;
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};
UtcTime UtcFromUnixMs(int64_t unixMs);
// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t DaysFromCivil(int year, int month, int day);

struct SatelliteInView {
  int prn = 0;           // NMEA numbering: GPS 1-32, SBAS 33-64, GLONASS 65-96
  int elevationDeg = 0;  // 0..90
  int azimuthDeg = 0;    // 0..359
  int snrDbHz = -1;      // C/N0; negative: not tracked, the field stays empty
  bool usedInFix = false;
};

struct NmeaFixState {
  bool fixValid = false;
  bool timeValid = false;  // time and date are written, even without a fix
  int64_t utcMs = 0;       // Unix time in ms
  double latitudeDeg = 0;  // north positive
  double longitudeDeg = 0; // east positive
  double altitudeMslM = 0;
  double geoidSeparationM = 0;
  double speedMps = 0;
  double courseDeg = 0;    // true course over ground
  double pdop = 99.99;
  double hdop = 99.99;
  double vdop = 99.99;
  int satellitesUsed = 0;
};

class NmeaGenerator {
 public:
  // Talker of the position sentences: "GN" for a multi-constellation
  // receiver, "GP" for a GPS-only one.
  explicit NmeaGenerator(std::string talker = "GN") : talker_(std::move(talker)) {}

  const std::string& talker() const { return talker_; }

  std::string Gga(const NmeaFixState& fix) const;
  std::string Rmc(const NmeaFixState& fix) const;
  std::string Vtg(const NmeaFixState& fix) const;
  std::string Gll(const NmeaFixState& fix) const;
  // One GSA line listing the satellites of `constellation` used in the fix.
  std::string Gsa(const NmeaFixState& fix, std::span<const SatelliteInView> constellation) const;

  // The GSV group of one constellation, four satellites a sentence;
  // "$xxGSV,1,1,00" when none is in view.
  static std::vector<std::string> Gsv(std::string_view talker, std::span<const SatelliteInView> satellites);
  // $GPTXT,01,01,02,Resetting GPS*xx  (messageType 2 = notice)
  static std::string Txt(std::string_view talker, int messageType, std::string_view text);

  // '$' + body + '*' + checksum + CR LF.
  static std::string Sentence(std::string_view body);
  // XOR of the body (the characters between '$' and '*').
  static uint8_t Checksum(std::string_view body);

 private:
  std::string talker_;
};

// The satellites a receiver sees: a fixed constellation whose elevations and
// azimuths drift slowly with time and whose signal strengths follow the
// elevation. Deterministic for a given time, so tests can rely on it.
class SkyModel {
 public:
  struct Sky {
    std::vector<SatelliteInView> gps;
    std::vector<SatelliteInView> glonass;
  };
  // `acquiredFraction` (0..1) is how far the search has come: only that
  // share of the satellites is tracked. With `fixed`, the tracked ones above
  // the elevation mask are used in the fix.
  static Sky At(int64_t utcMs, double acquiredFraction, bool fixed);
};

}  // namespace gps::sim
