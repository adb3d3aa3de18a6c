// What the outward interfaces know of the receiver: a copy of the engine
// record taken under its lock, turned into numbers with units.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/gps_private_info.h"

namespace gps::exporter {

// A satellite as the receiver reported it: what it did not report stays
// absent (a satellite known only from GSA's used list has no position).
struct SatelliteView {
  int prn = 0;  // NMEA numbering: 1-32 GPS, 33-64 SBAS, 65-96 GLONASS, gpsd's above
  std::optional<int> elevationDeg, azimuthDeg, signalDbHz;
  bool used = false;
};

struct FixView {
  uint32_t ggaTick = 0;   // 0: no GGA yet
  int mode = 0;           // 0 unknown, 1 no fix, 2 2D, 3 3D
  int quality = 0;        // GGA quality: 2 differential
  bool current = false;   // within the engine's fix validity
  std::optional<int64_t> utcMs;  // time of the fix [ms since 1970]
  std::optional<double> latitudeDeg, longitudeDeg;
  std::optional<double> altitudeMslM, altitudeHaeM, geoidSeparationM;
  std::optional<double> speedMps, trackDeg, climbMps;
  std::optional<double> horizontalErrorM, verticalErrorM;
  std::optional<int> leapSeconds;  // GPS time minus UTC [s], when the receiver tells
};

struct SkyView {
  // Tick of the report the satellites come from (a complete GSV group, else
  // NAV-SVINFO, else GSA); 0: none current.
  uint32_t satViewTick = 0;
  std::vector<SatelliteView> satellites;
  std::optional<double> hdop, vdop, pdop;
  int usedCount = 0;
};

struct DeviceView {
  bool ubx = false;        // the receiver has spoken UBX
  bool powered = false;
  std::string subtype;     // software and hardware version
  std::string subtype1;    // extension texts
};

// UBX NAV-PVT time, when the receiver sent one recently.
struct PvtTime {
  int64_t utcMs = 0;
  int32_t nanoRemainder = 0;  // below the millisecond [ns]
  bool valid = false;         // date and time valid and fully resolved
  bool confirmed = true;      // confirmed, or the receiver cannot confirm
};

struct LoggedMessage {
  uint32_t sequence = 0;
  uint32_t type = 0;  // 1 NMEA, 2 UBX
  uint32_t length = 0;
  int64_t receivedNs = 0;
  uint32_t lineBytes = 0;
  std::string bytes;  // at most GPS_MESSAGE_LOG_BYTES
};

// Leap seconds as the receiver knows them.
struct LeapView {
  std::optional<int> seconds;  // GPS time minus UTC [s]
  int change = 0;              // before the end of this UTC day: 0 none, 1 one inserted, 2 one deleted
};

struct RecordView {
  FixView fix;
  LeapView leap;
  SkyView sky;
  DeviceView device;
  std::optional<PvtTime> pvtTime;
  uint32_t messageSequence = 0;
  std::vector<LoggedMessage> messages;  // those after the caller's sequence, oldest first
};

// Copies what the interfaces need from gps_private_info under its lock and
// converts it. Messages logged after afterSequence are returned too (at most
// the log's capacity: older ones are gone).
RecordView ReadRecord(uint32_t afterSequence, bool withMessages = true);

// The conversions, on a copy of the record (exposed for tests).
RecordView ConvertRecord(const gps_private_info_t& copy, uint32_t now, uint32_t afterSequence,
                         bool withMessages = true);

// "4807.038N" -> 48.1173, "01131.000E" -> 11.516667; nothing for a malformed text.
std::optional<double> NmeaAngleDegrees(const char* text);

}  // namespace gps::exporter
