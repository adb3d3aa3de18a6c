#include "ubx/ubx_codec.h"

#include <cstring>

#include "platform/gps_resource.h"
#include "transport/gps_trace.h"

uint32_t lib_GPS_ubx_ComputeChecksum(uint8_t* frame) {
  const uint32_t length = lib_GPS_ubx_PayloadLength(frame);
  uint8_t a = 0;
  uint8_t b = 0;
  for (uint32_t i = 2; i < UBX_HEADER_BYTES + length; ++i) {
    a = static_cast<uint8_t>(a + frame[i]);
    b = static_cast<uint8_t>(b + a);
  }
  frame[UBX_HEADER_BYTES + length] = a;
  frame[UBX_HEADER_BYTES + length + 1] = b;
  return length + UBX_HEADER_BYTES + UBX_CHECKSUM_BYTES;
}

void lib_GPS_ubx_SendMessage(gps_private_info_t* infos, uint8_t* frame) {
  lib_GPS_Trace(4, "lib_GPS_ubx_SendMessage.");
  if (infos->com_gps == GPS_INVALID_HANDLE) {
    lib_GPS_Trace(3, "lib_GPS_ubx_SendMessage: infos->com_gps == NULL.");
    return;
  }
  const uint32_t n = lib_GPS_ubx_ComputeChecksum(frame);
  lib_GPS_TraceHex(4, n, frame, 1);
  lib_GPS_ubx_SendDataToDevice(infos, frame, n);
  if (lib_GPS_LoggingEnabled(infos)) {
    lib_GPS_Trace(4, "record TX traces (length = %i).", static_cast<int>(n));
    lib_GPS_LogModuleTraces(infos, frame, n);
  }
}

void lib_GPS_ubx_SendMessageConst(gps_private_info_t* infos, const uint8_t* frame, uint32_t frameLength) {
  lib_GPS_Trace(7, "lib_GPS_ubx_SendMessageConst.");
  if (infos->com_gps == GPS_INVALID_HANDLE) {
    lib_GPS_Trace(7, "lib_GPS_ubx_SendMessageConst: infos->com_gps == NULL.");
    return;
  }
  lib_GPS_TraceHex(7, frameLength, frame, 1);
  lib_GPS_ubx_SendDataToDevice(infos, frame, frameLength);
}

int lib_GPS_ubx_OpenResource(gps_private_info_t* infos) {
  const int result = GPS_OpenResource();
  if (result == 0 || result == GPS_RESOURCE_OPEN_RESULT_ALREADY_OPEN) {
    infos->com_gps = 1;
    return 0;
  }
  infos->com_gps = GPS_INVALID_HANDLE;
  return -1;
}

int lib_GPS_ubx_CloseResource(gps_private_info_t* /*infos*/) { return GPS_CloseResource() != 0 ? -1 : 0; }

int lib_GPS_ubx_WaitDescriptor(void) { return GPS_GetResourceDescriptor(); }

int lib_GPS_ubx_ReadDataFromDevice(gps_private_info_t* /*infos*/, uint8_t* buffer, uint32_t size) {
  gps_device_data_t block;
  std::memset(&block, 0, sizeof block);
  const int result = GPS_GetDeviceData(&block);
  if (result != 0) {
    lib_GPS_Trace(7, "lib_GPS_ubx_ReadDataFromDevice: GPS_GetDeviceData failed. Error code: %i", result);
    return -1;
  }
  uint32_t n = block.length < size ? block.length : size;
  if (n > sizeof block.data) n = sizeof block.data;  // a driver must never report more than it holds
  std::memcpy(buffer, block.data, n);
  return static_cast<int>(n);
}

// A driver block carries at most 256 bytes; anything longer is sent as
// consecutive blocks, so assistance answers and tool frames arrive whole.
int lib_GPS_ubx_SendDataToDevice(gps_private_info_t* /*infos*/, const uint8_t* data, uint32_t length) {
  lib_GPS_Trace(7, "lib_GPS_ubx_SendDataToDevice.");
  // One driver block carries 256 bytes; longer frames (assistance answers,
  // frames forwarded from the transparent device) go in consecutive blocks.
  uint32_t sent = 0;
  do {
    gps_send_data_t block;
    std::memset(&block, 0, sizeof block);
    const uint32_t part = length - sent < GPS_SEND_DATA_BYTES ? length - sent : GPS_SEND_DATA_BYTES;
    block.length = part;
    if (part > 0) std::memcpy(block.data, data + sent, part);
    const int result = GPS_SendDataToGps(&block);
    if (result != 0) {
      lib_GPS_Trace(7, "lib_GPS_ubx_SendDataToDevice: GPS_SendDataToGps failed. Error code: %i", result);
      return 0;
    }
    sent += part;
  } while (sent < length);
  return static_cast<int>(length);
}

void lib_GPS_ubx_ChangePowerState(gps_private_info_t* /*infos*/, uint32_t state) {
  gps_power_state_t block;
  std::memset(&block, 0, sizeof block);
  block.on = state == 1 ? 1 : 0;
  const int result = GPS_SetPowerState(&block);
  if (result != 0) lib_GPS_Trace(7, "lib_GPS_ubx_ChangePowerState: GPS_SetPowerState failed. Error code: %i", result);
}
