// Engine diagnostics: "[GPS] " log lines and hex dumps through the system log,
// and module traces, raw copies of the receiver traffic in .ubx files.
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"
#include "platform/os.h"

inline constexpr uint32_t GPS_TRACE_LINE_CAPACITY = 256;
inline constexpr uint32_t GPS_TRACE_DUMP_CHUNK_BYTES = 268;
inline constexpr int32_t GPS_MODULE_TRACE_MIN_FREE_BYTES = 1048576;
inline constexpr const char* GPS_MODULE_TRACE_DIRECTORY = "/home/LEGACY_FS/HOST/";

// lib_GPS_Trace(level, format, ...): one "[GPS] " line. A line whose level is
// off costs one comparison: neither the line nor its arguments are evaluated.
void lib_GPS_TraceLine(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
#define lib_GPS_Trace(level, ...) \
  do {                            \
    if (Sys_log_IsEnabled(level)) lib_GPS_TraceLine((level), __VA_ARGS__); \
  } while (0)
void lib_GPS_TraceHex(int level, uint32_t length, const uint8_t* data, int withAscii);

int lib_GPS_TraceInit(int enable);
void lib_GPS_Geolocating_GPS_SetTraces(int enable);
void lib_GPS_Geolocating_GPS_ReleaseTraces(void);

int lib_GPS_LogModuleTraces(gps_private_info_t* infos, const uint8_t* data, uint32_t length);
int lib_GPS_WriteIfSpaceLeft(const uint8_t* data, uint32_t length, int descriptor);
void lib_GPS_StopModuleTraces(gps_private_info_t* infos);
