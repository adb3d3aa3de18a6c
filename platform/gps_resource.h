// The platform GPS resource driver: the u-blox receiver as the engine sees it.
// The receiver is the embedded simulator (device "sim") or a serial port,
// chosen in platform.ini ([gps] device, baud).
#pragma once

#include <cstdint>

inline constexpr uint32_t GPS_DEVICE_DATA_BYTES = 2176;
inline constexpr uint32_t GPS_SEND_DATA_BYTES = 256;

struct gps_device_data_t {
  uint32_t length;  // valid bytes in data
  uint8_t data[GPS_DEVICE_DATA_BYTES];
};

struct gps_send_data_t {
  uint32_t length;  // at most GPS_SEND_DATA_BYTES
  uint8_t data[GPS_SEND_DATA_BYTES];
};

struct gps_power_state_t {
  uint32_t on;  // 1 on, 0 off
};

// Results: 0 success; negative values are errors (GPS_RESOURCE_ERROR_*).
inline constexpr int GPS_RESOURCE_ERROR_NOT_OPEN = -1;
inline constexpr int GPS_RESOURCE_ERROR_DEVICE = -2;     // the device failed or is gone
inline constexpr int GPS_RESOURCE_ERROR_ARGUMENT = -3;
inline constexpr int GPS_RESOURCE_ALREADY_OPEN = -12290; // the engine counts it as open

int GPS_OpenResource(void);
int GPS_CloseResource(void);
// Non-blocking. Delivers only whole NMEA sentences and UBX frames (bytes that
// belong to no message pass through), at most GPS_DEVICE_DATA_BYTES; an
// incomplete tail is kept for the next call. length 0 when nothing is ready.
int GPS_GetDeviceData(gps_device_data_t* block);
int GPS_SendDataToGps(const gps_send_data_t* block);
int GPS_SetPowerState(const gps_power_state_t* state);

// A descriptor that becomes readable when receiver data may be ready, for the
// engine thread's wait; -1 while the resource is closed or the device is gone.
// It can change after a reopen, so ask again before each wait.
int GPS_GetResourceDescriptor(void);
