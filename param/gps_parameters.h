// Settings and the last known fix, one 1216-byte record mirrored byte for byte
// in "gps_param.cfg" on the platform disk "GPS".
#pragma once

#include <cstddef>
#include <bit>
#include <cstdint>

inline constexpr uint32_t GPS_PARAMETERS_FILE_BYTES = 1216;
inline constexpr uint32_t GPS_PARAMETER_TEXT_BYTES = 128;
inline constexpr uint32_t GPS_LAST_DATA_TEXT_BYTES = 16;
inline constexpr const char* GPS_PARAMETERS_DISK = "GPS";
inline constexpr const char* GPS_PARAMETERS_FILE = "gps_param.cfg";

// Integers are little-endian int32 on every target this runs on; the layout is
// checked below so the in-memory record is the file.
struct gps_parameters_t {
  int32_t power_mode_policy;
  int32_t standby_policy;
  int32_t assistance_policy;
  int32_t connection_policy;
  int32_t gprs_parameter_policy;
  char gprs_apn[128];
  char gprs_login[128];
  char gprs_password[128];
  char online_server_address[128];
  char online_server_username[128];
  char online_server_password[128];
  int32_t online_server_port;
  char offline_server_address[128];
  char offline_server_file[128];
  int32_t offline_server_port;
  int32_t requestedFixUpdatePeriodInms;
  char date[16];
  char time[16];
  char latitude[16];
  char longitude[16];
  char hdop[16];
  char altitude[16];
  char courseTrue[16];
  char courseMagnetic[16];
  char speedKnots[16];
  char speedKmh[16];
};

static_assert(std::endian::native == std::endian::little, "the parameters file is little-endian");
static_assert(sizeof(gps_parameters_t) == GPS_PARAMETERS_FILE_BYTES);
static_assert(offsetof(gps_parameters_t, gprs_apn) == 20);
static_assert(offsetof(gps_parameters_t, online_server_port) == 788);
static_assert(offsetof(gps_parameters_t, offline_server_address) == 792);
static_assert(offsetof(gps_parameters_t, offline_server_port) == 1048);
static_assert(offsetof(gps_parameters_t, requestedFixUpdatePeriodInms) == 1052);
static_assert(offsetof(gps_parameters_t, date) == 1056);
static_assert(offsetof(gps_parameters_t, speedKmh) == 1200);

extern gps_parameters_t gps_parameters;

// Defaults of a newly created file.
inline constexpr const char* GPS_DEFAULT_GPRS_APN = "internet";
inline constexpr const char* GPS_DEFAULT_ONLINE_SERVER = "online-live1.services.u-blox.com";
inline constexpr const char* GPS_DEFAULT_ONLINE_USERNAME = "terminal@gps-service.invalid";
inline constexpr const char* GPS_DEFAULT_ONLINE_PASSWORD = "Mfnotl";
inline constexpr int32_t GPS_DEFAULT_ONLINE_PORT = 46434;
inline constexpr const char* GPS_DEFAULT_OFFLINE_SERVER = "offline-live1.services.u-blox.com";
inline constexpr const char* GPS_DEFAULT_OFFLINE_FILE = "current_14d.alp";
inline constexpr int32_t GPS_DEFAULT_OFFLINE_PORT = 80;
inline constexpr int32_t GPS_DEFAULT_FIX_UPDATE_PERIOD_MS = 1000;
// The fix update periods a caller may ask for.
inline constexpr uint32_t GPS_MIN_FIX_UPDATE_PERIOD_MS = 1000;
inline constexpr uint32_t GPS_MAX_FIX_UPDATE_PERIOD_MS = 86400000;

void lib_GPS_param_BuildDefaultParameters(gps_parameters_t* params);

int lib_GPS_param_CreateParametersFileIfNecessary(void);
struct FILE_FS_File* lib_GPS_param_OpenParametersFile(void);
int lib_GPS_param_ReadParametersFile(gps_parameters_t* destination);
int lib_GPS_param_UpdateParametersFile(const gps_parameters_t* source);
// Writes the record now, on the calling thread; a deferred write of an older
// copy never lands after it.
int lib_GPS_param_SaveParameters(void);
// The periodic last-fix writes come from the engine thread with the engine
// lock held; the write and its fsync take milliseconds (much more on a busy
// flash), and every reader of the record would wait for them. These two copy
// the record and hand the copy to a writer thread, which writes it the same
// crash-safe way (temporary file, fsync, rename). Several stores before the
// writer gets to them make one write of the latest copy.
//  lib_GPS_param_FlushParameters waits until the latest stored copy is on
//  disk (at shutdown; tests that read the file back).
int lib_GPS_param_FlushParameters(void);
// Start-up: creates the disk and a default file when there is none, then
// reads the record and checks it, which departs on purpose from taking the
// record back byte for byte: the file may have rotted, been truncated or come
// from elsewhere, and its texts go to clients.
//  - The stored fix (date, time, position, HDOP, altitude, course and speed)
//    must have the forms the engine writes: each text terminated within its
//    16 bytes and either empty or latitude "DDMM.f...N|S" (degrees up to 90,
//    minutes below 60), longitude "DDDMM.f...E|W" (degrees up to 180), the
//    two both present or both empty, date "dd/mm/yyyy", time "HHhMMmSSs",
//    altitude a decimal number, HDOP, courses and speeds unsigned decimal
//    numbers. Otherwise the whole stored fix is treated as absent (zeroed)
//    and one level-3 line names the file: a fix made of partly damaged texts
//    is no position a receiver measured.
//  - Settings outside their range take their default, one level-3 line each:
//    power mode 0 or 1, assistance 0 to ASSISTNOW_RESERVED, connection 0,
//    ports 1 to 65535, fix update period GPS_MIN_ to GPS_MAX_FIX_UPDATE_PERIOD_MS,
//    texts terminated within their 128 bytes.
// The file itself is left as it is; the next save writes the checked record.
int lib_GPS_param_RestorePersistentStorage(void);
void lib_GPS_param_LogParameters(const gps_parameters_t* params);

// Last fix; every text is a 16-byte buffer. Callers hold the engine lock.
int lib_GPS_param_RecordLastFixData(const char* date, const char* time, const char* latitude, const char* longitude,
                                    const char* hdop, const char* altitude);
int lib_GPS_param_StoreLastFixData(void);
int lib_GPS_param_RetrieveLastFixData(char* date, char* time, char* latitude, char* longitude, char* hdop,
                                      char* altitude);
int lib_GPS_param_RecordLastCourseAndSpeedData(const char* courseTrue, const char* courseMagnetic,
                                               const char* speedKnots, const char* speedKmh);
int lib_GPS_param_StoreLastCourseAndSpeedData(void);
int lib_GPS_param_RetrieveLastCourseAndSpeedData(char* courseTrue, char* courseMagnetic, char* speedKnots,
                                                 char* speedKmh);

// Settings accessors; a setter saves the file when it changed something.
// The requested fix update period is set by callers under the engine lock and
// read by the engine thread while it configures the receiver, with or without
// the lock; both sides go through these.
inline int32_t lib_GPS_param_GetRequestedFixUpdatePeriod(void) {
  return __atomic_load_n(&gps_parameters.requestedFixUpdatePeriodInms, __ATOMIC_RELAXED);
}
inline void lib_GPS_param_SetRequestedFixUpdatePeriod(int32_t periodMs) {
  __atomic_store_n(&gps_parameters.requestedFixUpdatePeriodInms, periodMs, __ATOMIC_RELAXED);
}

int lib_GPS_param_SetPowerModePolicy(int32_t value);
int32_t lib_GPS_param_GetPowerModePolicy(void);
int lib_GPS_param_SetStandbyPolicy(int32_t value);
int32_t lib_GPS_param_GetStandbyPolicy(void);
int lib_GPS_param_SetAssistancePolicy(int32_t value);
int32_t lib_GPS_param_GetAssistancePolicy(void);
int lib_GPS_param_SetConnectionPolicy(int32_t value);
int32_t lib_GPS_param_GetConnectionPolicy(void);
int lib_GPS_param_SetGprsParameterPolicy(int32_t value);
int32_t lib_GPS_param_GetGprsParameterPolicy(void);
int lib_GPS_param_SetGprsParameters(const char* apn, const char* login, const char* password);
int lib_GPS_param_GetGprsParameters(char* apn, char* login, char* password);
int lib_GPS_param_SetOnlineServerParameters(const char* address, uint16_t port, const char* username,
                                            const char* password);
int lib_GPS_param_GetOnlineServerParameters(char* address, uint16_t* port, char* username, char* password);
int lib_GPS_param_SetOfflineServerParameters(const char* address, uint16_t port, const char* file);
int lib_GPS_param_GetOfflineServerParameters(char* address, uint16_t* port, char* file);
