// The engine's public API: result codes and the fix queries.
#pragma once

#include <cstdint>

inline constexpr int32_t GEOLOCATING_GPS_ERROR_SUCCESS = 0;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_NOT_POWERED = -1;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_NO_FIX_YET = -2;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_OLD_COORDINATES = -4;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_TOO_MANY_LISTENERS = -6;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_LISTENER_NOT_FOUND = -8;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_NO_VERSION = -9;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_INVALID_PARAMETER = -10;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_ANT_OFF_UNAVAILABLE = -11;
inline constexpr int32_t GEOLOCATING_GPS_ERROR_TIMEOUT = -12;

// Policy flags of the queries.
inline constexpr uint32_t GEOLOCATING_GPS_ACCEPT_OLD_FIX = 1;
inline constexpr uint32_t GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX = 2;

// Every text output is a caller buffer of at least 16 bytes; any output may be
// null. The age output receives the fix age in seconds.
int32_t lib_GPS_Geolocating_GPS_GetPosition(char* longitude, char* latitude, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetDateAndTime(char* date, char* time, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetDate(char* date, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetTime(char* time, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetAltitude(char* altitude, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetHDOP(char* hdop, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetSpeedKMH(char* speed, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetSpeedKnot(char* speed, uint32_t* ageSeconds, uint32_t flags);
int32_t lib_GPS_Geolocating_GPS_GetHeading(char* heading, uint32_t* ageSeconds, uint32_t flags);
// The receiver's 16-byte navigation status (u32 at byte 8: time to first fix
// [ms]) and the tick it arrived at.
int32_t lib_GPS_Geolocating_GPS_GetTTFF(uint8_t* status, uint32_t* tick);
