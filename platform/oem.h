// The terminal firmware's system requests, answered from platform.ini.
#pragma once

#include <cstdint>

inline constexpr uint32_t OEM_REQUEST_STARTUP_MODE = 0x9081;  // writes a u32: the start-up mode
inline constexpr uint32_t OEM_REQUEST_GPS_MODULE_TYPE = 0x9085;  // writes a u32: the receiver module type
inline constexpr int OEM_ERROR_UNKNOWN_REQUEST = -1;
inline constexpr int OEM_ERROR_ARGUMENT = -2;

// 0 on success; a negative value for an unknown request or a null argument.
int Oem_SystemFioctl(uint32_t request, void* argument);
