// The terminal firmware's system requests, answered from platform.ini.
#pragma once

#include <cstdint>

// The start-up mode is the result (0 service, non-zero ready-only), also
// written as a u32 when an argument is given.
inline constexpr uint32_t OEM_REQUEST_STARTUP_MODE = 0x9081;
inline constexpr uint32_t OEM_REQUEST_GPS_MODULE_TYPE = 0x9085;  // writes a u32: the receiver module type
inline constexpr int OEM_ERROR_UNKNOWN_REQUEST = -1;
inline constexpr int OEM_ERROR_ARGUMENT = -2;

// 0 on success (the mode for 0x9081); a negative value for an unknown request
// or a missing argument.
int Oem_SystemFioctl(uint32_t request, void* argument);
