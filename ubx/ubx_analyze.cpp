#include "ubx/ubx_analyze.h"

#include <cstdio>
#include <cstring>

#include "assist/assistnow.h"
#include "engine/gps_events.h"
#include "nmea/gps_conversions.h"
#include "param/gps_parameters.h"
#include "platform/os.h"
#include "transport/gps_trace.h"
#include "ubx/ubx_codec.h"
#include "ubx/ubx_config.h"

namespace {

// Payload readers at protocol offsets. The frame buffer is zero behind the
// frame, so a short payload reads as zeros; nothing is read past the buffer.
class Payload {
 public:
  explicit Payload(const gps_message_t* m) : bytes_(m->buffer + UBX_HEADER_BYTES), length_(m->ubx_length) {}
  uint32_t length() const { return length_; }
  uint8_t u8(uint32_t offset) const { return offset < kReadable ? bytes_[offset] : 0; }
  uint16_t u16(uint32_t offset) const { return static_cast<uint16_t>(u8(offset) | u8(offset + 1) << 8); }
  uint32_t u32(uint32_t offset) const {
    return static_cast<uint32_t>(u16(offset)) | static_cast<uint32_t>(u16(offset + 2)) << 16;
  }
  int32_t i32(uint32_t offset) const { return static_cast<int32_t>(u32(offset)); }
  // Copies `count` bytes from `offset` into `to`, zeros where the buffer ends.
  void copy(uint8_t* to, uint32_t offset, uint32_t count) const {
    for (uint32_t i = 0; i < count; ++i) to[i] = u8(offset + i);
  }

 private:
  static constexpr uint32_t kReadable = GPS_FRAME_BUFFER_BYTES - UBX_HEADER_BYTES;
  const uint8_t* bytes_;
  uint32_t length_;
};

void SignalIfOpen(int eventFd) {
  if (eventFd >= 0) SignalEvent(eventFd);
}

void MarkBlocks(uint8_t* bitmap, uint32_t firstByte, uint32_t endByte) {
  constexpr uint32_t kBlocks = GPS_ALP_BITMAP_BYTES * 8;
  for (uint32_t b = firstByte / UBX_ALP_BLOCK_BYTES; b <= endByte / UBX_ALP_BLOCK_BYTES && b < kBlocks; ++b)
    bitmap[b / 8] |= static_cast<uint8_t>(1u << (b % 8));
}

// B5 62 0A 09 3C 00 ... (60-byte MON-HW of a u-blox 8; 68 bytes on a u-blox 7)
void analyze_gps_ublox_message_hardware(gps_private_info_t* infos, const gps_message_t* m) {
  const uint32_t now = OS_rtc_GetTickCounter();
  const Payload p(m);
  uint32_t jamOffset = 0;
  if (p.length() == 60) jamOffset = 45;
  else if (p.length() == 68) jamOffset = 53;
  else return;
  lib_GPS_Lock();
  infos->mon_hw_tick = now;
  infos->noise_per_ms = p.u16(16);
  infos->agc_count = p.u16(18);
  infos->jamming_indicator = p.u8(jamOffset);
  lib_GPS_Unlock();
  lib_GPS_NotifyListeners(infos, GPS_EVENT_MON_HW);
}

// B5 62 0A 04 A0 00 "ROM CORE 3.01 (107888)" ... "00080000" ... "FWVER=SPG 3.01" ...
void analyze_gps_ublox_message_version(gps_private_info_t* infos, const gps_message_t* m) {
  lib_GPS_Trace(4, "analyze_gps_ublox_message_version: MON-VER.");
  if (infos->module_config_state == 2) return;
  lib_GPS_ubx_RequestAntOffPolarityValue(infos);
  const Payload p(m);
  lib_GPS_Lock();
  p.copy(reinterpret_cast<uint8_t*>(infos->sw_version), 0, 30);
  lib_GPS_Trace(7, "swVersion = [%.30s]", infos->sw_version);
  p.copy(reinterpret_cast<uint8_t*>(infos->hw_version), 30, 10);
  lib_GPS_Trace(7, "hwVersion = [%.10s]", infos->hw_version);
  for (uint32_t k = 1; k <= 4 && p.length() >= 40 + 30 * k; ++k) {
    p.copy(reinterpret_cast<uint8_t*>(infos->ext_version[k - 1]), 40 + 30 * (k - 1), 30);
    lib_GPS_Trace(7, "ext%u = [%.30s]", k, infos->ext_version[k - 1]);
  }
  infos->module_config_state = 2;
  lib_GPS_Unlock();
  lib_GPS_NotifyListeners(infos, GPS_EVENT_VERSION);
  lib_GPS_Trace(4, "analyze_gps_ublox_message_version: version received, configuring further. expertModeIsEnabled = %i.",
                infos->expertModeIsEnabled);
  if (infos->expertModeIsEnabled) lib_GPS_ubx_ConfigureExpert(infos);
  else lib_GPS_ubx_ConfigureStandard(infos);
  lib_GPS_ubx_SendFixUpdatePeriodConfiguration(infos);
  lib_GPS_ConfigureAssistance(infos);
}

// B5 62 0A 0D ... llCom, llcClk, ..., llcGen (bit 7: ANT_OFF polarity)
void analyze_gps_ublox_message_low_level_configuration(gps_private_info_t* infos, const gps_message_t* m) {
  lib_GPS_Trace(4, "analyze_gps_ublox_message_low_level_configuration: MON-LLC.");
  const Payload p(m);
  const uint32_t llCom = p.u32(0);
  const uint32_t llcClk = p.u32(4);
  const uint32_t llcGen = p.u32(16);
  const int32_t polarity = static_cast<int32_t>((llcGen >> 7) & 1);
  lib_GPS_Lock();  // read by callers waiting for the answer
  infos->antOffPolarity = polarity;
  lib_GPS_Unlock();
  lib_GPS_Trace(4, "MON-LLC={.llCom=0x%08X, .llcClk=0x%08X, .llcGen=0x%08X", llCom, llcClk, llcGen);
  if (polarity == 0)
    lib_GPS_Trace(4, "analyze_gps_ublox_message_low_level_configuration:: antOffPolarity is set.");
  else
    lib_GPS_Trace(3, "analyze_gps_ublox_message_low_level_configuration:: antOffPolarity is NOT set.");
  SignalIfOpen(antOffPolarityAnswer_eventfd);
}

// B5 62 06 01 08 00 01 07 01 00 00 00 00 00 ...
void analyze_gps_ublox_message_cfg_msg(const gps_message_t* m, const char* source) {
  const Payload p(m);
  switch (p.length()) {
    case 2:
      lib_GPS_Trace(7, "[%s]CFG-MSG : Poll message 0x%02X 0x%02X", source, p.u8(0), p.u8(1));
      break;
    case 3:
      lib_GPS_Trace(7, "[%s]CFG-MSG : Set message rate 0x%02X 0x%02X, rate %d", source, p.u8(0), p.u8(1), p.u8(2));
      break;
    case 8:
      lib_GPS_Trace(7,
                    "[%s]CFG-MSG : Set message rates 0x%02X 0x%02X, rates [I2C:%d, UART1:%d, UART2:%d, USB:%d, "
                    "SPI:%d, ???:%d]",
                    source, p.u8(0), p.u8(1), p.u8(2), p.u8(3), p.u8(4), p.u8(5), p.u8(6), p.u8(7));
      break;
    default:
      lib_GPS_Trace(7, "[%s]UNKNOWN CFG-MSG", source);
  }
}

// B5 62 06 3B 2C 00 01 00 00 00 00 10 03 00 E8 03 00 00 ... (updatePeriod at 8)
// A CFG-PM2 shorter than 12 payload bytes (the poll the engine sends, seen on
// its way out) carries no period: it changes nothing and answers no one.
void analyze_gps_ublox_message_extended_power_management_configuration(gps_private_info_t* infos,
                                                                        const gps_message_t* m) {
  lib_GPS_Trace(7, "analyze_gps_ublox_message_extended_power_management_configuration: CFG-PM2.");
  const Payload p(m);
  // A poll (no payload) on its way to the receiver carries no period.
  if (p.length() < 12) return;
  const uint32_t period = p.u32(8);
  lib_GPS_Lock();  // read by callers waiting for the answer
  infos->fix_update_period_ms = period;
  lib_GPS_Unlock();
  lib_GPS_Trace(7, "analyze_gps_ublox_message_extended_power_management_configuration: updatePeriod = %i ms.",
                static_cast<int>(period));
  SignalIfOpen(fixUpdatePeriodAnswer_eventfd);
}

// B5 62 0B 32 10 00 10 02 40 00 40 00 CA FE ... (a request: 16 payload bytes)
void analyze_gps_ublox_message_alpsrv(gps_private_info_t* infos, const gps_message_t* m, const char* source) {
  const Payload p(m);
  const uint8_t idSize = p.u8(0);
  const uint8_t type = p.u8(1);
  const uint16_t ofs = p.u16(2);
  const uint16_t size = p.u16(4);
  const uint16_t fileId = p.u16(6);
  if (p.length() == 16 && type != 0xFF) {
    lib_GPS_TraceHex(4, m->length, m->buffer, 1);
    lib_GPS_Trace(4, "[%s]AID-ALPSRV-REQ fileId=0x%04X, idSize=0x%02X, type=0x%02X, ofs=0x%04X*U2, size=0x%04X*U2",
                  source, fileId, idSize, type, ofs, size);
    lib_GPS_ServeAlpRequest(infos, type, ofs, size, p.u8(10), p.u8(11));
  } else if (type == 0xFF) {
    lib_GPS_Trace(7, "[%s]AID-ALPSRV-CLI fileId=0x%04X idSize=0x%02X, type=0x%02X, ofs=0x%04X*U2, size=0x%04X*U2",
                  source, fileId, idSize, type, ofs, size);
    lib_GPS_Lock();
    MarkBlocks(infos->alp_client_blocks, ofs * 2u, ofs * 2u + size * 2u);
    lib_GPS_Unlock();
  } else {
    lib_GPS_Trace(7, "[%s]AID-ALPSRV-SRV fileId=0x%04X idSize=0x%02X, type=0x%02X, ofs=0x%04X*U2, size=0x%04X*U2",
                  source, fileId, idSize, type, ofs, size);
  }
}

// Position as latitude/longitude texts of the NMEA form, from 1e-7 degrees.
void FormatCoordinate(char (&text)[16], int32_t scaled, char positive, char negative, bool longitude) {
  const char hemisphere = scaled < 0 ? negative : positive;
  const int32_t magnitude = scaled == INT32_MIN ? INT32_MAX : (scaled < 0 ? -scaled : scaled);
  int32_t degrees = 0, minutes = 0, fraction = 0;
  lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes(&magnitude, &degrees, &minutes, &fraction);
  std::snprintf(text, sizeof text, longitude ? "%03i%02i.%05i%c" : "%02i%02i.%05i%c", degrees, minutes, fraction,
                hemisphere);
}

// B5 62 01 07 5C 00 iTOW ... fixType(20) flags(21) lon(24) lat(28) height(32) hMSL(36) hAcc(40) vAcc(44)
void analyze_gps_ublox_message_nav_pvt(gps_private_info_t* infos, const gps_message_t* m) {
  lib_GPS_Trace(7, "analyze_gps_ublox_message_nav_pvt.");
  const Payload p(m);
  uint8_t snapshot[sizeof infos->nav_pvt];
  p.copy(snapshot, 0, sizeof snapshot);
  lib_GPS_Lock();
  infos->nav_pvt_tick = OS_rtc_GetTickCounter();
  std::memcpy(infos->nav_pvt, snapshot, sizeof snapshot);
  lib_GPS_Unlock();
  const int32_t lon = p.i32(24);
  const int32_t lat = p.i32(28);
  const int32_t hMsl = p.i32(36);
  lib_GPS_Trace(4, "NAV-PVT.fixType %d", p.u8(20));
  lib_GPS_Trace(4, "NAV-PVT.flags %d", p.u8(21));
  lib_GPS_Trace(4, "NAV-PVT.Lon %d", lon);
  lib_GPS_Trace(4, "NAV-PVT.Lat %d", lat);
  lib_GPS_Trace(4, "NAV-PVT.Height %d", p.i32(32));
  lib_GPS_Trace(4, "NAV-PVT.hMSL %d", hMsl);
  lib_GPS_Trace(4, "NAV-PVT.hAcc %d", static_cast<int>(p.u32(40)));
  lib_GPS_Trace(4, "NAV-PVT.vAcc %d", static_cast<int>(p.u32(44)));

  // Last known position: stored when no NMEA fix has been valid for
  // nmeaFixValidityIns seconds.
  const uint32_t now = OS_rtc_GetTickCounter();
  lib_GPS_Lock();
  const bool nmeaFixStale = infos->fix_quality == 0 &&
                            10u * (now - infos->fix_tick) > 1000u * infos->nmeaFixValidityIns;
  lib_GPS_Unlock();
  if (!nmeaFixStale || (lat == 0 && lon == 0)) return;
  lib_GPS_Trace(7, "analyze_gps_ublox_message_nav_pvt: store last known position as valid fix.");
  char latitude[16] = {};
  char longitude[16] = {};
  char altitude[16] = {};
  const char empty[16] = {};
  FormatCoordinate(latitude, lat, 'N', 'S', false);
  FormatCoordinate(longitude, lon, 'E', 'W', true);
  const int32_t tenths = (hMsl % 1000) / 100;
  std::snprintf(altitude, sizeof altitude, "%i.%i", hMsl / 1000, tenths < 0 ? -tenths : tenths);
  lib_GPS_Trace(7, "analyze_gps_ublox_message_nav_pvt: store last known position as valid fix.(%d, %d, %d)=>(%s, %s, %s)",
                lat, lon, hMsl, latitude, longitude, altitude);
  lib_GPS_Lock();
  lib_GPS_param_RecordLastFixData(empty, empty, latitude, longitude, empty, altitude);
  if (now - infos->last_fix_store_tick >= GPS_LAST_DATA_STORE_PERIOD_TICKS) {
    infos->last_fix_store_tick = now;
    lib_GPS_param_StoreLastFixData();
  }
  lib_GPS_Unlock();
}

// B5 62 01 22 14 00 iTOW clkB clkD tAcc fAcc
void analyze_gps_ublox_message_nav_clock(gps_private_info_t* infos, const gps_message_t* m) {
  const Payload p(m);
  lib_GPS_Lock();
  infos->nav_clock_tick = OS_rtc_GetTickCounter();
  p.copy(infos->nav_clock, 0, sizeof infos->nav_clock);
  lib_GPS_Unlock();
}

// B5 62 01 03 10 00 iTOW gpsFix flags fixStat flags2 ttff(8) msss(12)
void analyze_gps_ublox_message_nav_status(gps_private_info_t* infos, const gps_message_t* m) {
  const Payload p(m);
  lib_GPS_Lock();
  infos->nav_status_tick = OS_rtc_GetTickCounter();
  p.copy(infos->nav_status, 0, sizeof infos->nav_status);
  lib_GPS_Unlock();
}

// B5 62 01 30 ... iTOW numCh(4) globalFlags ... 12 bytes per channel. Kept
// for the readers of the satellites in view: in expert mode GSV is off and
// this is the only per-satellite report the receiver sends.
void analyze_gps_ublox_message_nav_svinfo(gps_private_info_t* infos, const gps_message_t* m) {
  const Payload p(m);
  lib_GPS_Trace(7, "SVINFO.numCh=%d", p.u8(4));
  uint8_t snapshot[sizeof infos->nav_svinfo];
  p.copy(snapshot, 0, sizeof snapshot);
  // Channels the payload does not hold read as zeros above; the count says so too.
  const uint32_t held = p.length() < 8 ? 0 : (p.length() - 8) / 12;
  if (snapshot[4] > held) snapshot[4] = static_cast<uint8_t>(held);
  if (snapshot[4] > GPS_NAV_SVINFO_CHANNELS) snapshot[4] = GPS_NAV_SVINFO_CHANNELS;
  lib_GPS_Lock();
  infos->nav_svinfo_tick = OS_rtc_GetTickCounter();
  std::memcpy(infos->nav_svinfo, snapshot, sizeof snapshot);
  lib_GPS_Unlock();
}

// B5 62 01 26 18 00 iTOW version ... currLs(9) lsChange(11) timeToLsEvent(12) valid(23)
void analyze_gps_ublox_message_nav_timels(gps_private_info_t* infos, const gps_message_t* m) {
  const Payload p(m);
  if (p.length() < sizeof infos->nav_timels) return;
  lib_GPS_Lock();
  infos->nav_timels_tick = OS_rtc_GetTickCounter();
  p.copy(infos->nav_timels, 0, sizeof infos->nav_timels);
  lib_GPS_Unlock();
}

void LogAcknowledgement(const gps_message_t* m, const char* source, bool ack) {
  const Payload p(m);
  if (ack) lib_GPS_Trace(7, "[%s]ACK-ACK for 0x%02X 0x%02X", source, p.u8(0), p.u8(1));
  else lib_GPS_Trace(7, "[%s]ACK-NAK for 0x%02X 0x%02X", source, p.u8(0), p.u8(1));
}

enum class Handler {
  MonHw, MonVer, MonLlc, CfgMsg, CfgPm2, AidAlpsrv, AckAck, AckNak,
  NavPvt, NavClock, NavDgps, NavSol, NavStatus, NavSvinfo, NavTimels,
};

struct Route {
  uint8_t cls;
  uint8_t id;
  Handler handler;
};

constexpr Route kRoutes[] = {
    {0x0A, 0x09, Handler::MonHw},     {0x0A, 0x04, Handler::MonVer},    {0x0A, 0x0D, Handler::MonLlc},
    {0x06, 0x01, Handler::CfgMsg},    {0x06, 0x3B, Handler::CfgPm2},    {0x0B, 0x32, Handler::AidAlpsrv},
    {0x05, 0x01, Handler::AckAck},    {0x05, 0x00, Handler::AckNak},    {0x01, 0x07, Handler::NavPvt},
    {0x01, 0x22, Handler::NavClock},  {0x01, 0x31, Handler::NavDgps},   {0x01, 0x06, Handler::NavSol},
    {0x01, 0x03, Handler::NavStatus}, {0x01, 0x30, Handler::NavSvinfo}, {0x01, 0x26, Handler::NavTimels},
};

}  // namespace

void lib_GPS_ServeAlpRequest(gps_private_info_t* infos, uint8_t type, uint16_t ofs, uint16_t size, uint8_t id1,
                             uint8_t id2) {
  const uint32_t start = ofs * 2u;
  const uint32_t bytes = size * 2u;
  if (!infos->alp_data || start + bytes > infos->alp_size) return;
  if (bytes > UBX_ALPSRV_MAX_ANSWER_DATA_BYTES) {
    lib_GPS_Trace(3, "lib_GPS_ServeAlpRequest: a request for %u bytes does not fit one answer (at most %u); not answered.",
                  bytes, UBX_ALPSRV_MAX_ANSWER_DATA_BYTES);
    return;
  }
  uint8_t frame[GPS_FRAME_BUFFER_BYTES] = {};
  const uint32_t payloadLength = bytes + 16;
  frame[0] = UBX_SYNC_1;
  frame[1] = UBX_SYNC_2;
  frame[2] = 0x0B;
  frame[3] = 0x32;
  frame[4] = static_cast<uint8_t>(payloadLength);
  frame[5] = static_cast<uint8_t>(payloadLength >> 8);
  uint8_t* payload = frame + UBX_HEADER_BYTES;
  payload[0] = 0x10;  // idSize
  payload[1] = type;
  payload[2] = static_cast<uint8_t>(ofs);
  payload[3] = static_cast<uint8_t>(ofs >> 8);
  payload[4] = static_cast<uint8_t>(size);
  payload[5] = static_cast<uint8_t>(size >> 8);
  payload[6] = static_cast<uint8_t>(infos->alp_file_id);
  payload[7] = static_cast<uint8_t>(infos->alp_file_id >> 8);
  payload[8] = static_cast<uint8_t>(bytes);  // dataSize
  payload[9] = static_cast<uint8_t>(bytes >> 8);
  payload[10] = id1;
  payload[11] = id2;
  std::memcpy(payload + 16, infos->alp_data + start, bytes);
  lib_GPS_ubx_SendMessage(infos, frame);
  lib_GPS_Lock();
  MarkBlocks(infos->alp_served_blocks, start, start + bytes);
  lib_GPS_Unlock();
}

void lib_GPS_ubx_AnalyzeMessage(gps_private_info_t* infos, gps_message_t* message, const char* source) {
  lib_GPS_Trace(4, "lib_GPS_ubx_AnalyzeMessage::[%s]Class 0x%02X, ID 0x%02X", source, message->ubx_class,
                message->ubx_id);
  for (const Route& route : kRoutes) {
    if (route.cls != message->ubx_class || route.id != message->ubx_id) continue;
    switch (route.handler) {
      case Handler::MonHw: analyze_gps_ublox_message_hardware(infos, message); break;
      case Handler::MonVer: analyze_gps_ublox_message_version(infos, message); break;
      case Handler::MonLlc: analyze_gps_ublox_message_low_level_configuration(infos, message); break;
      case Handler::CfgMsg: analyze_gps_ublox_message_cfg_msg(message, source); break;
      case Handler::CfgPm2: analyze_gps_ublox_message_extended_power_management_configuration(infos, message); break;
      case Handler::AidAlpsrv: analyze_gps_ublox_message_alpsrv(infos, message, source); break;
      case Handler::AckAck: LogAcknowledgement(message, source, true); break;
      case Handler::AckNak: LogAcknowledgement(message, source, false); break;
      case Handler::NavPvt: analyze_gps_ublox_message_nav_pvt(infos, message); break;
      case Handler::NavClock: analyze_gps_ublox_message_nav_clock(infos, message); break;
      case Handler::NavDgps: break;
      case Handler::NavSol: break;
      case Handler::NavStatus: analyze_gps_ublox_message_nav_status(infos, message); break;
      case Handler::NavSvinfo: analyze_gps_ublox_message_nav_svinfo(infos, message); break;
      case Handler::NavTimels: analyze_gps_ublox_message_nav_timels(infos, message); break;
    }
    return;
  }
}
