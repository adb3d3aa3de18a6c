#include "ubx/ubx_config.h"

#include <cstring>
#include <ctime>

#include "param/gps_parameters.h"
#include "transport/gps_trace.h"
#include "ubx/ubx_codec.h"

// clang-format off
const uint8_t UBX_TEMPLATE_MON_VER_POLL[8] = {0xB5, 0x62, 0x0A, 0x04, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_PM2_POLL[8] = {0xB5, 0x62, 0x06, 0x3B, 0x00, 0x00, 0x00, 0x00};
// Cold start (navBbrMask 0xFFFF), controlled software reset of the GNSS part.
const uint8_t UBX_TEMPLATE_CFG_RST[12] = {0xB5, 0x62, 0x06, 0x04, 0x04, 0x00, 0xFF, 0xFF, 0x02, 0x00, 0x00, 0x00};
// MON-HW at rate 1 on the port the command arrives on.
const uint8_t UBX_TEMPLATE_CFG_MSG_MON_HW_SHORT[11] = {0xB5, 0x62, 0x06, 0x01, 0x03, 0x00, 0x0A, 0x09, 0x01,
                                                       0x1E, 0x70};
const uint8_t UBX_TEMPLATE_MON_LLC_POLL[8] = {0xB5, 0x62, 0x0A, 0x0D, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_OTP_POLL[8] = {0xB5, 0x62, 0x06, 0x41, 0x00, 0x00, 0x00, 0x00};
// One-time-programmable record that sets the ANT_OFF pin polarity.
const uint8_t UBX_TEMPLATE_CFG_OTP_WRITE[20] = {0xB5, 0x62, 0x06, 0x41, 0x0C, 0x00, 0x00, 0x00, 0x03, 0x1F,
                                                0x9C, 0x94, 0xBD, 0x18, 0xFF, 0xF6, 0xAC, 0xFF, 0x1A, 0x13};
// CFG-MSG, 8-byte form: class, id, rates for I2C, UART1, UART2, USB, SPI, a sixth port.
const uint8_t UBX_TEMPLATE_CFG_MSG_MON_HW[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x0A, 0x09,
                                                 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_STATUS[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x01, 0x03,
                                                     0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_MSG_GSV_OFF[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0xF0, 0x03,
                                                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_PVT[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x01, 0x07,
                                                  0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
// Version 0, mask1 0x0040 (apply the initial-fix setting), iniFix3D = 1: the
// first fix must be three-dimensional.
const uint8_t UBX_TEMPLATE_CFG_NAVX5[48] = {
    0xB5, 0x62, 0x06, 0x23, 0x28, 0x00,
    0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_CLOCK[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x01, 0x22,
                                                    0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_SOL[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x01, 0x06,
                                                  0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_SVINFO[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x01, 0x30,
                                                     0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
// Reserved byte 8, lpMode 1: power save mode.
const uint8_t UBX_TEMPLATE_CFG_RXM[10] = {0xB5, 0x62, 0x06, 0x11, 0x02, 0x00, 0x08, 0x01, 0x00, 0x00};
// clang-format on

namespace {

constexpr uint32_t kCfgPm2PayloadBytes = 44;
constexpr uint32_t kCfgPm2Flags = 0x00031000;  // updateEPH, doNotEnterOff, cyclic tracking
constexpr uint32_t kCfgPm2SearchPeriodMs = 10000;

void PutU32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

// The pause spaces frames on the receiver's input; when the receiver is not
// open nothing was sent and there is nothing to space.
void SendWithPause(gps_private_info_t* infos, const uint8_t* frameTemplate, uint32_t size) {
  lib_GPS_ubx_SendTemplate(infos, frameTemplate, size);
  if (infos->com_gps != GPS_INVALID_HANDLE) lib_GPS_Pause(UBX_CONFIGURATION_PAUSE_US);
}

}  // namespace

void lib_GPS_Pause(uint32_t microseconds) {
  timespec delay{static_cast<time_t>(microseconds / 1000000), static_cast<long>(microseconds % 1000000) * 1000};
  while (nanosleep(&delay, &delay) != 0) {
  }
}

void lib_GPS_ubx_SendTemplate(gps_private_info_t* infos, const uint8_t* frameTemplate, uint32_t size) {
  uint8_t frame[64];
  if (size > sizeof frame) return;
  std::memcpy(frame, frameTemplate, size);
  lib_GPS_ubx_SendMessage(infos, frame);
}

void lib_GPS_ubx_PollVersion(gps_private_info_t* infos) {
  lib_GPS_ubx_SendTemplate(infos, UBX_TEMPLATE_MON_VER_POLL, sizeof UBX_TEMPLATE_MON_VER_POLL);
}

void lib_GPS_ubx_ConfigureMessages(gps_private_info_t* infos) {
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_MON_HW, sizeof UBX_TEMPLATE_CFG_MSG_MON_HW);
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_NAV_STATUS, sizeof UBX_TEMPLATE_CFG_MSG_NAV_STATUS);
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_GSV_OFF, sizeof UBX_TEMPLATE_CFG_MSG_GSV_OFF);
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_NAV_PVT, sizeof UBX_TEMPLATE_CFG_MSG_NAV_PVT);
}

void lib_GPS_ubx_ConfigureStandard(gps_private_info_t* infos) { lib_GPS_ubx_ConfigureMessages(infos); }

void lib_GPS_ubx_ConfigureExpert(gps_private_info_t* infos) {
  lib_GPS_ubx_ConfigureMessages(infos);
  SendWithPause(infos, UBX_TEMPLATE_CFG_NAVX5, sizeof UBX_TEMPLATE_CFG_NAVX5);
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_NAV_CLOCK, sizeof UBX_TEMPLATE_CFG_MSG_NAV_CLOCK);
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_NAV_SOL, sizeof UBX_TEMPLATE_CFG_MSG_NAV_SOL);
  SendWithPause(infos, UBX_TEMPLATE_CFG_MSG_NAV_SVINFO, sizeof UBX_TEMPLATE_CFG_MSG_NAV_SVINFO);
  SendWithPause(infos, UBX_TEMPLATE_CFG_RXM, sizeof UBX_TEMPLATE_CFG_RXM);
}

void lib_GPS_ubx_SendFixUpdatePeriodConfiguration(gps_private_info_t* infos) {
  const int32_t periodMs = lib_GPS_param_GetRequestedFixUpdatePeriod();
  lib_GPS_Trace(7, "lib_GPS_ubx_SendFixUpdatePeriodConfiguration: requested fix update period = %i ms.", periodMs);
  uint8_t pm2[UBX_HEADER_BYTES + kCfgPm2PayloadBytes + UBX_CHECKSUM_BYTES] = {
      UBX_SYNC_1, UBX_SYNC_2, 0x06, 0x3B, kCfgPm2PayloadBytes, 0x00};
  uint8_t* payload = pm2 + UBX_HEADER_BYTES;
  payload[0] = 1;  // version
  PutU32(payload + 4, kCfgPm2Flags);
  PutU32(payload + 8, static_cast<uint32_t>(periodMs));  // updatePeriod [ms]
  PutU32(payload + 12, kCfgPm2SearchPeriodMs);           // searchPeriod [ms]
  lib_GPS_ubx_SendMessage(infos, pm2);
  lib_GPS_ubx_SendTemplate(infos, UBX_TEMPLATE_CFG_RXM, sizeof UBX_TEMPLATE_CFG_RXM);
}

void lib_GPS_ubx_PollFixUpdatePeriodConfiguration(gps_private_info_t* infos) {
  lib_GPS_ubx_SendTemplate(infos, UBX_TEMPLATE_CFG_PM2_POLL, sizeof UBX_TEMPLATE_CFG_PM2_POLL);
}

void lib_GPS_ubx_RequestAntOffPolarityValue(gps_private_info_t* infos) {
  lib_GPS_Trace(4, "lib_GPS_ubx_RequestAntOffPolarityValue::send(MON_LLC_Read)");
  lib_GPS_ubx_SendTemplate(infos, UBX_TEMPLATE_MON_LLC_POLL, sizeof UBX_TEMPLATE_MON_LLC_POLL);
  lib_GPS_Trace(4, "lib_GPS_ubx_RequestAntOffPolarityValue::send(CFG_OTP_Read)");
  lib_GPS_ubx_SendTemplate(infos, UBX_TEMPLATE_CFG_OTP_POLL, sizeof UBX_TEMPLATE_CFG_OTP_POLL);
}

void lib_GPS_ubx_SetAntOffPolarityValue(gps_private_info_t* infos) {
  lib_GPS_ubx_SendMessageConst(infos, UBX_TEMPLATE_CFG_OTP_WRITE, sizeof UBX_TEMPLATE_CFG_OTP_WRITE);
}

void lib_GPS_ubx_PerformExternalCommand(gps_private_info_t* infos) {
  if (infos->external_command_flags & GPS_COMMAND_COLD_RESTART) {
    infos->external_command_flags &= ~GPS_COMMAND_COLD_RESTART;
    lib_GPS_ubx_SendTemplate(infos, UBX_TEMPLATE_CFG_RST, sizeof UBX_TEMPLATE_CFG_RST);
    lib_GPS_ResetInfos(infos);
  }
  if (infos->external_command_flags & GPS_COMMAND_MON_HW_ON) {
    infos->external_command_flags &= ~GPS_COMMAND_MON_HW_ON;
    lib_GPS_ubx_SendMessageConst(infos, UBX_TEMPLATE_CFG_MSG_MON_HW_SHORT, sizeof UBX_TEMPLATE_CFG_MSG_MON_HW_SHORT);
  }
  if (infos->external_command_flags & GPS_COMMAND_NO_ACTION) infos->external_command_flags &= ~GPS_COMMAND_NO_ACTION;
}
