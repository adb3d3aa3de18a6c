// Text and number conversions shared by the NMEA and UBX analysers.
#pragma once

#include <cstdint>

// Leading decimal digits of a text as a number: "45*6A" -> 45, "" -> 0,
// "-1" -> 0, null -> 0. Wraps beyond 32 bits.
int32_t lib_GPS_util_ParseDecimalDigits(const char* text);

// hhmmss.ss -> HHhMMmSSs in place (buffer of at least 10 bytes).
void lib_GPS_util_FormatNmeaTime(char* text);

// A receiver's ddmmyy as days since 1970-01-01, or -1 when it is not six
// digits of a calendar day. Two-digit years are read from 1980 (the first GPS
// week) to 2079: no receiver date falls before the GPS epoch.
int64_t lib_GPS_util_NmeaDateDays(const char* text);

// Days since 1970-01-01 -> "dd/mm/yyyy" (buffer of at least 11 bytes).
void lib_GPS_util_FormatDays(char* text, int64_t days);

// The record's date "dd/mm/yyyy" and time "HHhMMmSSs" (UTC) as seconds since
// 1970-01-01, or -1 when either is not of that form or out of range. Both are
// 16-byte fields that need not be terminated.
int64_t lib_GPS_util_RecordUtcSeconds(const char* date, const char* time);

// 1e-7 degrees -> whole degrees, whole minutes and minutes in 1e-5.
void lib_GPS_util_ConvertScaledDegreesToDegreesMinutesFractionalMinutes(const int32_t* scaledDegrees,
                                                                         int32_t* degrees, int32_t* minutes,
                                                                         int32_t* fractionalMinutes);
