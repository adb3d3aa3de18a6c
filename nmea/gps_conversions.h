// Text and number conversions shared by the NMEA and UBX analysers.
#pragma once

#include <cstdint>

// Leading decimal digits of a text as a number: "45*6A" -> 45, "" -> 0,
// "-1" -> 0, null -> 0. Wraps beyond 32 bits.
int32_t lib_GPS_util_ParseDecimalDigits(const char* text);

// hhmmss.ss -> HHhMMmSSs in place (buffer of at least 10 bytes).
void lib_GPS_util_FormatNmeaTime(char* text);

// ddmmyy -> dd/mm/20yy in place (buffer of at least 11 bytes).
void lib_GPS_util_FormatNmeaDate(char* text);

// 1e-7 degrees -> whole degrees, whole minutes and minutes in 1e-5.
void lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes(const int32_t* scaledDegrees,
                                                                         int32_t* degrees, int32_t* minutes,
                                                                         int32_t* fractionalMinutes);
