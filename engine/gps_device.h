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
