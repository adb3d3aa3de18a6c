// The engine's public API: result codes and the fix queries.
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"

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

// The age output's value when the age cannot be known.
inline constexpr uint32_t GPS_AGE_UNKNOWN = 0xFFFFFFFF;

// Every text output is a caller buffer of at least 16 bytes; any output may be
// null. The age output receives the fix age in seconds.
// Once this run has had a fix (a course and speed for the speed and heading
// queries), the age counts the ticks since it. Before that, the last fix is
// the one stored in the parameters file by an earlier run, and ticks since
// boot would make a week-old position look seconds old after a reboot: its
// age is instead the system clock minus the stored UTC date and time; the
// course and speed, stored alongside, take the stored fix's age. When that
// cannot be trusted (the clock reads before the day this program was built,
// the stored date or time is missing, damaged or later than the clock) the
// age is GPS_AGE_UNKNOWN. Such a fix is never current: the result is
// GEOLOCATING_GPS_ERROR_OLD_COORDINATES or GEOLOCATING_GPS_ERROR_NO_FIX_YET.
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

// Engine start-up: creates the event channels, opens the receiver of the
// platform's module type, restores the parameters and starts the engine
// thread. Once per process; failures are logged, the result is always 0.
int gps_dll_init(void);

// Control. None of these touches the receiver: they record the request and
// wake the engine thread. The two reads that need the receiver's answer wait
// for it at most 5 seconds.
int32_t lib_GPS_Geolocating_GPS_SetPower(uint32_t on);
int32_t lib_GPS_Geolocating_GPS_GetPower(uint32_t* on);
int32_t lib_GPS_Geolocating_GPS_SetPowerOnParameter(uint32_t value);
int32_t lib_GPS_Geolocating_GPS_GetPowerOnParameter(void);
int32_t lib_GPS_Geolocating_GPS_GetFixUpdatePeriodInms(uint32_t* periodMs);
int32_t lib_GPS_Geolocating_GPS_SetFixUpdatePeriodInms(const uint32_t* periodMs);  // 1000 .. 86,400,000

int32_t lib_GPS_Geolocating_GPS_LogDataStart(void);
int32_t lib_GPS_Geolocating_GPS_LogDataStop(void);
int32_t lib_GPS_Geolocating_GPS_GetLogDataState(char* path, uint32_t capacity, uint32_t* enabled);

int32_t lib_GPS_Geolocating_GPS_GetAntOffEFusePolarity(int32_t* polarity);
int32_t lib_GPS_Geolocating_GPS_SetAntOffPioPolarity(void);
int32_t lib_GPS_Geolocating_GPS_ColdStart(void);
int32_t lib_GPS_Geolocating_GPS_SetAssistanceMode(uint32_t mode);
int32_t lib_GPS_Geolocating_GPS_GetAssistanceMode(uint32_t* mode);
int32_t lib_GPS_Geolocating_GPS_StopAssistance(void);
int32_t lib_GPS_Geolocating_GPS_ReloadAssistance(void);

// Device names hold at most 15 characters; longer ones are refused (-10). A
// refused call still stops forwarding when forwarding was on.
int32_t lib_GPS_Geolocating_GPS_SetTransparentDevice(const char* name);
int32_t lib_GPS_Geolocating_GPS_GetTransparentDevice(char* name, uint32_t capacity);
int32_t lib_GPS_Geolocating_GPS_SetModuleDevice(const char* name);
int32_t lib_GPS_Geolocating_GPS_GetModuleDevice(char* name, uint32_t capacity);

// sw, ext1..ext4: at least 32 bytes; hw: at least 16; zero-filled by the caller.
// A GPRS modem's version text goes into sw without its terminator, cut to the
// 32 bytes sw holds (the modem may report up to 49 characters).
int32_t lib_GPS_Geolocating_GPS_GetVersion(char* sw, char* hw, char* ext1, char* ext2, char* ext3, char* ext4);
// Ages are in ticks (10 ms).
int32_t lib_GPS_Geolocating_GPS_GetHardwareStatus(uint32_t* noise, uint32_t* agc, uint32_t* jamming,
                                                   uint32_t* ageTicks);
// Copies both 32-entry tables; returns the number of satellites in view.
int32_t lib_GPS_Geolocating_GPS_GetSatellites(gps_satellite_t* prn1to32, gps_satellite_t* prn33to64,
                                               uint32_t* ageTicks);
int32_t lib_GPS_Geolocating_GPS_GetNavPvt(uint8_t* navPvt, uint32_t* tick);      // 84 bytes
int32_t lib_GPS_Geolocating_GPS_GetNavClock(uint8_t* navClock, uint32_t* tick);  // 20 bytes
int32_t lib_GPS_Geolocating_GPS_GetAlpServedBlocks(uint8_t* blocks);             // 1024 bytes
int32_t lib_GPS_Geolocating_GPS_GetAlpClientBlocks(uint8_t* blocks);             // 1024 bytes
// Listeners are eventfds signalled when an event of their mask happens.
int32_t lib_GPS_Geolocating_GPS_AddEventListener(uint16_t eventFd, uint32_t mask);
int32_t lib_GPS_Geolocating_GPS_RemoveEventListener(uint16_t eventFd, uint32_t mask);
