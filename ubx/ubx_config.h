// Commands the engine sends to a u-blox receiver on its own initiative: the
// version poll, the message-rate configuration (standard or expert), the
// power-save configuration with the fix update period, the ANT_OFF polarity
// polls and write, and the external commands (cold restart, MON-HW output).
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"

// Templates: whole frames. Those sent through lib_GPS_ubx_SendMessage carry
// 00 00 in the checksum place (computed at sending); the two sent through
// lib_GPS_ubx_SendMessageConst carry their checksum.
extern const uint8_t UBX_TEMPLATE_MON_VER_POLL[8];
extern const uint8_t UBX_TEMPLATE_CFG_PM2_POLL[8];
extern const uint8_t UBX_TEMPLATE_CFG_RST[12];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_MON_HW_SHORT[11];
extern const uint8_t UBX_TEMPLATE_MON_LLC_POLL[8];
extern const uint8_t UBX_TEMPLATE_CFG_OTP_POLL[8];
extern const uint8_t UBX_TEMPLATE_CFG_OTP_WRITE[20];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_MON_HW[16];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_STATUS[16];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_GSV_OFF[16];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_PVT[16];
extern const uint8_t UBX_TEMPLATE_CFG_NAVX5[48];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_CLOCK[16];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_SOL[16];
extern const uint8_t UBX_TEMPLATE_CFG_MSG_NAV_SVINFO[16];
extern const uint8_t UBX_TEMPLATE_CFG_RXM[10];

// Pause after each configuration frame, so the receiver's input is not flooded.
inline constexpr uint32_t UBX_CONFIGURATION_PAUSE_US = 20000;
void lib_GPS_Pause(uint32_t microseconds);

// Copies a template to the caller's buffer (at least its size) and sends it
// with a computed checksum.
void lib_GPS_ubx_SendTemplate(gps_private_info_t* infos, const uint8_t* frameTemplate, uint32_t size);

void lib_GPS_ubx_PollVersion(gps_private_info_t* infos);
void lib_GPS_ubx_ConfigureMessages(gps_private_info_t* infos);
void lib_GPS_ubx_ConfigureStandard(gps_private_info_t* infos);
void lib_GPS_ubx_ConfigureExpert(gps_private_info_t* infos);
void lib_GPS_ubx_SendFixUpdatePeriodConfiguration(gps_private_info_t* infos);
void lib_GPS_ubx_PollFixUpdatePeriodConfiguration(gps_private_info_t* infos);
void lib_GPS_ubx_RequestAntOffPolarityValue(gps_private_info_t* infos);
void lib_GPS_ubx_SetAntOffPolarityValue(gps_private_info_t* infos);
// Carries out the pending bits of external_command_flags; the caller holds
// the engine lock.
void lib_GPS_ubx_PerformExternalCommand(gps_private_info_t* infos);
