#include "engine/gps_device.h"

#include <unistd.h>

#include "transport/gps_trace.h"
#include "transport/pty_channel.h"
#include "ubx/ubx_codec.h"

int lib_GPS_OpenDevice(gps_private_info_t* infos) {
  if (lib_GPS_IsUbxModule(infos->module_type)) return lib_GPS_ubx_OpenResource(infos);
  // Waits until the modem software has created its channel.
  const int fd = PTY_Open(infos->module_device[0] != '\0' ? infos->module_device : nullptr);
  if (fd > 0) {
    infos->com_gps = static_cast<uint32_t>(fd);
    return 0;
  }
  infos->com_gps = GPS_INVALID_HANDLE;
  return -1;
}

int lib_GPS_CloseDevice(gps_private_info_t* infos) {
  int result = 0;
  if (lib_GPS_IsUbxModule(infos->module_type)) {
    result = lib_GPS_ubx_CloseResource(infos);
  } else if (infos->com_gps != GPS_INVALID_HANDLE) {
    close(static_cast<int>(infos->com_gps));
  }
  infos->com_gps = GPS_INVALID_HANDLE;
  return result;
}

int lib_GPS_ReadDevice(gps_private_info_t* infos, uint8_t* buffer, uint32_t capacity) {
  if (lib_GPS_IsUbxModule(infos->module_type)) return lib_GPS_ubx_ReadDataFromDevice(infos, buffer, capacity);
  return static_cast<int>(read(static_cast<int>(infos->com_gps), buffer, capacity));
}

int lib_GPS_WriteDevice(gps_private_info_t* infos, const uint8_t* buffer, uint32_t length) {
  if (lib_GPS_IsUbxModule(infos->module_type)) return lib_GPS_ubx_SendDataToDevice(infos, buffer, length);
  return static_cast<int>(write(static_cast<int>(infos->com_gps), buffer, length));
}
