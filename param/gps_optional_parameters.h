// Expert settings from "/home/LEGACY_FS/HOST/GPS_optional_parameters.ini",
// read once at engine start-up; absent file, absent key: fixed defaults.
#pragma once

#include <cstdint>

inline constexpr const char* GPS_OPTIONAL_PARAMETERS_FILE = "/home/LEGACY_FS/HOST/GPS_optional_parameters.ini";
inline constexpr uint32_t GPS_DEFAULT_NMEA_FIX_VALIDITY_S = 30;

// Fills expertModeIsEnabled, loggingIsEnabled, transparent_device,
// nmeaFixValidityIns and assistnow of the engine record, without the lock
// (the engine thread does not run yet).
int lib_GPS_param_InitializeOptionalParameters(void);
