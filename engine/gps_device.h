// The receiver device by module type: the u-blox types through the platform
// GPS resource driver, the GPRS modem's receiver as a byte stream on its
// command channel.
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"

inline bool lib_GPS_IsUbxModule(uint32_t moduleType) {
  return moduleType == GPS_MODULE_TYPE_UBX_G7020 || moduleType == GPS_MODULE_TYPE_UBX_M8030;
}

int lib_GPS_OpenDevice(gps_private_info_t* infos);   // 0, or -1 with com_gps -1
int lib_GPS_CloseDevice(gps_private_info_t* infos);  // 0 or -1; com_gps becomes -1
int lib_GPS_ReadDevice(gps_private_info_t* infos, uint8_t* buffer, uint32_t capacity);
int lib_GPS_WriteDevice(gps_private_info_t* infos, const uint8_t* buffer, uint32_t length);
// A descriptor that turns readable when the receiver has data, or -1 (closed
// receiver, or nothing to wait on at the moment).
int lib_GPS_DeviceWaitDescriptor(const gps_private_info_t* infos);

// Receiver operations of the engine thread, by module type. For the modem's
// receiver only power is handled (over its command channel); the others log
// that the module type does not support them.
void lib_GPS_ChangePowerState(gps_private_info_t* infos, uint32_t on);
void lib_GPS_PollFixUpdatePeriodConfiguration(gps_private_info_t* infos);
void lib_GPS_SendFixUpdatePeriodConfiguration(gps_private_info_t* infos);
void lib_GPS_PerformExternalCommand(gps_private_info_t* infos);
void lib_GPS_RequestAntOffPolarityValue(gps_private_info_t* infos);
void lib_GPS_SetAntOffPolarityValue(gps_private_info_t* infos);
