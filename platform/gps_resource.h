// The platform GPS resource driver: the u-blox receiver as the engine sees it.
// The receiver is a u-blox receiver on a serial port (USB or UART) or the
// embedded simulator (device "sim", a receiver on USB), chosen in
// platform.ini ([gps] device, baud, port, power_off).
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
// Reads [gps] of platform.ini again (SIGHUP) and reopens the receiver, in the
// power state it had, only when its device, baud, port or power_off changed.
// 0 when nothing changed or the new receiver opened.
int GPS_ReloadResourceSettings(void);

// A descriptor that becomes readable when receiver data may be ready, for the
// engine thread's wait; -1 while the resource is closed or the device is gone.
// It can change after a reopen, so ask again before each wait.
//
// It is an epoll set: readable while the powered receiver's line has bytes,
// and while the driver still holds whole messages that did not fit the last
// block, so one GPS_GetDeviceData per wake is enough and nothing waits for
// the time-out. While the receiver is switched off it stays quiet whatever the
// line carries. Readable can still mean "nothing whole yet" (length 0).
//
// While the device is gone (a serial adapter unplugged), each GPS_GetDeviceData
// tries to reopen it at most once a second; the engine's periodic read is what
// brings it back, and it sees nothing but a gap in the data.
//
// Power is switched over the line, the u-blox way for the receiver's port
// (USB unless [gps] port says otherwise; a serial device is USB when it is a
// CDC-ACM tty or has a u-blox USB parent, UART1 otherwise). Off stops
// delivery (input is drained and dropped) and sends GNSS stop (CFG-RST 0x08)
// on USB, or backup with UART RX as wake-up source (RXM-PMREQ) on a UART
// ([gps] power_off overrides). On wakes a receiver in backup (bytes on its
// line, then a MON-VER poll answered within 2 s), starts GNSS after a GNSS
// stop, and sets the port to output NMEA and UBX and take UBX (CFG-PRT, a
// UART at its current rate); delivery starts only once CFG-PRT is
// acknowledged. A receiver that fails is logged once and tried again after
// 5 s, then at doubling intervals up to 30 s. Delivery starts only with the first power-on. The requested state
// outlives a device that goes and comes back (it is applied to the new one);
// a request made while closed applies at the next open, and close forgets it.
//
// Every 8-rate CFG-MSG sent that names DDC (port 0) and no other port, the
// engine's way of enabling a message, goes out with DDC's rate carried to the
// attached port; everything else goes out as it came.
//
// [gps] device = auto finds the receiver (USB vendor id 1546 through sysfs,
// then /dev/serial/by-id/*u-blox*, then the only /dev/ttyACM*; below
// $GPS_HOST_ROOT when set) and looks again once a second while none is there.
// [gps] baud = auto finds a UART's rate by listening for whole messages.
//
// The embedded simulator (device "sim") also reads [sim] ttff_ms (time to
// first fix), ant_off_polarity (0/1) and alp_file from platform.ini.
int GPS_GetResourceDescriptor(void);
