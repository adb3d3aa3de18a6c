// The GPRS modem's receiver: one pseudo-terminal carries its NMEA stream and
// the engine's commands (run, stop, version), one exchange at a time.
//
//   command:  u32 code | u32 data length n | n data bytes
//   response: u32 (not examined) | u32 status | u32 length m | m bytes
#pragma once

#include <cstdint>

inline constexpr uint32_t DGPRS_FIOCTL_GPS_GET_VERSION = 0x812C;
inline constexpr uint32_t DGPRS_FIOCTL_GPS_RUN = 0x812D;
inline constexpr uint32_t DGPRS_FIOCTL_GPS_STOP = 0x812E;
inline constexpr const char* PTY_DEFAULT_DEVICE = "/tmp/gps_dgprs";
// A modem that does not answer within this time fails the exchange rather
// than holding the engine thread forever.
inline constexpr int PTY_RESPONSE_TIMEOUT_MS = 5000;

// Opens `path` as given, or the default channel below the platform root when
// path is null, in raw mode. One attempt: -1 (errno set) while the modem
// software has not created the channel; the caller tries again later.
int PTY_Open(const char* path);
int PTY_OpenDevice(const char* path);
// Status of the modem's response, or -1. `buffer` carries dataLength bytes to
// send and receives at most bufferSize response bytes.
int PTY_SendCommand(uint32_t command, uint8_t* buffer, int32_t bufferSize, uint32_t dataLength);
// 0 when exactly n bytes were read, -1 otherwise.
int data_read(int descriptor, uint8_t* buffer, uint32_t n);
