#include "engine/gps_device.h"

#include <cstring>
#include <unistd.h>

#include "param/gps_parameters.h"
#include "transport/gps_trace.h"
#include "transport/pty_channel.h"
#include "ubx/ubx_codec.h"
#include "ubx/ubx_config.h"

int lib_GPS_OpenDevice(gps_private_info_t* infos) {
  if (lib_GPS_IsUbxModule(infos->module_type)) return lib_GPS_ubx_OpenResource(infos);
  // One attempt; the engine thread retries while the modem software is away.
  const int fd = PTY_Open(infos->module_device[0] != '\0' ? infos->module_device : nullptr);
  if (fd >= 0) {
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

int lib_GPS_DeviceWaitDescriptor(const gps_private_info_t* infos) {
  if (infos->com_gps == GPS_INVALID_HANDLE) return -1;
  // For the u-blox types com_gps is only a marker; the driver has the descriptor.
  if (lib_GPS_IsUbxModule(infos->module_type)) return lib_GPS_ubx_WaitDescriptor();
  return static_cast<int>(infos->com_gps);
}

int lib_GPS_WriteDevice(gps_private_info_t* infos, const uint8_t* buffer, uint32_t length) {
  if (lib_GPS_IsUbxModule(infos->module_type)) return lib_GPS_ubx_SendDataToDevice(infos, buffer, length);
  return static_cast<int>(write(static_cast<int>(infos->com_gps), buffer, length));
}

void lib_GPS_ChangePowerState(gps_private_info_t* infos, uint32_t on) {
  if (lib_GPS_IsUbxModule(infos->module_type)) {
    lib_GPS_ubx_ChangePowerState(infos, on);
    return;
  }
  if (on == 1) {
    lib_GPS_Trace(7, "Send DGPRS_FIOCTL_GPS_GET_VERSION");
    // One byte more than the modem may fill, so the text always ends.
    char version[sizeof infos->gprs_module_version + 1] = {};
    PTY_SendCommand(DGPRS_FIOCTL_GPS_GET_VERSION, reinterpret_cast<uint8_t*>(version),
                    sizeof infos->gprs_module_version, 0);
    lib_GPS_Lock();
    lib_GPS_CopyField(infos->gprs_module_version, sizeof infos->gprs_module_version, version);
    lib_GPS_Unlock();
    lib_GPS_Trace(7, "gps_hlx_version : %s", version);
    lib_GPS_Trace(7, "Send DGPRS_FIOCTL_GPS_RUN");
    PTY_SendCommand(DGPRS_FIOCTL_GPS_RUN, nullptr, 0, 0);
  } else {
    PTY_SendCommand(DGPRS_FIOCTL_GPS_STOP, nullptr, 0, 0);
  }
}

namespace {

// Runs the u-blox operation, or logs (with the module type) that the modem's
// receiver has no such operation.
void ForUbxModule(gps_private_info_t* infos, void (*operation)(gps_private_info_t*), const char* unsupported) {
  if (lib_GPS_IsUbxModule(infos->module_type)) {
    operation(infos);
    return;
  }
  lib_GPS_Trace(3, unsupported, static_cast<int>(infos->module_type));
}

}  // namespace

void lib_GPS_PollFixUpdatePeriodConfiguration(gps_private_info_t* infos) {
  ForUbxModule(infos, lib_GPS_ubx_PollFixUpdatePeriodConfiguration,
               "lib_GPS_PollFixUpdatePeriodConfiguration: cannot get fix update period for this module type (%i).");
}

void lib_GPS_SendFixUpdatePeriodConfiguration(gps_private_info_t* infos) {
  lib_GPS_Trace(7, "lib_GPS_SendFixUpdatePeriodConfiguration: requested fix update period = %i ms.",
                static_cast<int>(lib_GPS_param_GetRequestedFixUpdatePeriod()));
  ForUbxModule(infos, lib_GPS_ubx_SendFixUpdatePeriodConfiguration,
               "lib_GPS_SendFixUpdatePeriodConfiguration: cannot set fix update period for this module type (%i).");
}

void lib_GPS_PerformExternalCommand(gps_private_info_t* infos) {
  ForUbxModule(infos, lib_GPS_ubx_PerformExternalCommand,
               "lib_GPS_PerformExternalCommand: external commands not handled for this module type (%i).");
}

void lib_GPS_RequestAntOffPolarityValue(gps_private_info_t* infos) {
  ForUbxModule(infos, lib_GPS_ubx_RequestAntOffPolarityValue,
               "lib_GPS_RequestAntOffPolarityValue: AntOffPolarity not handled for this module type (%i).");
}

void lib_GPS_SetAntOffPolarityValue(gps_private_info_t* infos) {
  ForUbxModule(infos, lib_GPS_ubx_SetAntOffPolarityValue,
               "lib_GPS_SetAntOffPolarityValue: AntOffPolarity not handled for this module type (%i).");
}
