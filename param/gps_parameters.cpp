#include "param/gps_parameters.h"

#include <pthread.h>

#include <cstdio>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "assist/assistnow.h"
#include "nmea/gps_conversions.h"
#include "platform/fs.h"
#include "platform/os.h"
#include "platform/root.h"

gps_parameters_t gps_parameters;

namespace {

void ParametersPath(char (&path)[64]) { std::snprintf(path, sizeof path, "/%s/%s", GPS_PARAMETERS_DISK, GPS_PARAMETERS_FILE); }

// Copies a caller's text into a 128-byte setting: at most 127 characters.
void CopySetting(char (&field)[GPS_PARAMETER_TEXT_BYTES], const char* text) {
  std::strncpy(field, text, GPS_PARAMETER_TEXT_BYTES - 1);
  field[GPS_PARAMETER_TEXT_BYTES - 1] = '\0';
}

void CopyLastData(char* to, const char* from) {
  if (to && from) std::memcpy(to, from, GPS_LAST_DATA_TEXT_BYTES);
}

// Log arguments: a 16-byte last-data field need not be terminated if it was
// copied whole from a caller, so it is printed with a bound.
constexpr int kLast = GPS_LAST_DATA_TEXT_BYTES;

int SetPolicy(int32_t& field, int32_t value) {
  if (field != value) {
    field = value;
    lib_GPS_param_SaveParameters();
  }
  return 0;
}

// Form checks of the stored texts, on the text before the terminator.
bool Digits(const char* text, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (text[i] < '0' || text[i] > '9') return false;
  return true;
}

int Number(const char* text, size_t count) {
  int value = 0;
  for (size_t i = 0; i < count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// Length of a last-data text; a field without terminator counts as too long.
size_t LastDataLength(const char* field) { return strnlen(field, GPS_LAST_DATA_TEXT_BYTES); }

// "DDMM.fN": degreeDigits of degrees up to maxDegrees, two of minutes below
// 60, a point, at least one digit of fraction, the hemisphere.
bool IsCoordinate(const char* text, size_t length, size_t degreeDigits, int maxDegrees, char positive, char negative) {
  const size_t point = degreeDigits + 2;
  if (length < point + 3 || !Digits(text, point) || text[point] != '.') return false;
  if (!Digits(text + point + 1, length - point - 2)) return false;
  const char hemisphere = text[length - 1];
  if (hemisphere != positive && hemisphere != negative) return false;
  const int degrees = Number(text, degreeDigits);
  const int minutes = Number(text + degreeDigits, 2);
  bool fractionZero = true;
  for (size_t i = point + 1; i + 1 < length; ++i) fractionZero = fractionZero && text[i] == '0';
  return minutes < 60 && (degrees < maxDegrees || (degrees == maxDegrees && minutes == 0 && fractionZero));
}

// "-12.5", "0.91": digits, an optional fraction after a point.
bool IsDecimal(const char* text, size_t length, bool mayBeNegative) {
  if (mayBeNegative && length > 0 && text[0] == '-') {
    ++text;
    --length;
  }
  size_t whole = 0;
  while (whole < length && text[whole] >= '0' && text[whole] <= '9') ++whole;
  if (whole == 0) return false;
  if (whole == length) return true;
  return text[whole] == '.' && whole + 1 < length && Digits(text + whole + 1, length - whole - 1);
}

bool IsDate(const char* text, size_t length) {  // dd/mm/yyyy, a day of the calendar
  return length == 10 && lib_GPS_util_RecordUtcSeconds(text, "00h00m00s") >= 0;
}

bool IsTime(const char* text, size_t length) {  // HHhMMmSSs
  if (length != 9 || text[2] != 'h' || text[5] != 'm' || text[8] != 's' || !Digits(text, 2) ||
      !Digits(text + 3, 2) || !Digits(text + 6, 2))
    return false;
  return Number(text, 2) < 24 && Number(text + 3, 2) < 60 && Number(text + 6, 2) <= 60;
}

// Empty, or of the form the engine writes. Names the first field that is not.
const char* DamagedFixField(const gps_parameters_t& p) {
  struct Text {
    const char* name;
    const char* field;
    bool (*valid)(const char*, size_t);
  };
  const Text texts[] = {
      {"date", p.date, IsDate},
      {"time", p.time, IsTime},
      {"latitude", p.latitude, [](const char* t, size_t n) { return IsCoordinate(t, n, 2, 90, 'N', 'S'); }},
      {"longitude", p.longitude, [](const char* t, size_t n) { return IsCoordinate(t, n, 3, 180, 'E', 'W'); }},
      {"hdop", p.hdop, [](const char* t, size_t n) { return IsDecimal(t, n, false); }},
      {"altitude", p.altitude, [](const char* t, size_t n) { return IsDecimal(t, n, true); }},
      {"courseTrue", p.courseTrue, [](const char* t, size_t n) { return IsDecimal(t, n, false); }},
      {"courseMagnetic", p.courseMagnetic, [](const char* t, size_t n) { return IsDecimal(t, n, false); }},
      {"speedKnots", p.speedKnots, [](const char* t, size_t n) { return IsDecimal(t, n, false); }},
      {"speedKmh", p.speedKmh, [](const char* t, size_t n) { return IsDecimal(t, n, false); }},
  };
  for (const Text& text : texts) {
    const size_t length = LastDataLength(text.field);
    if (length == GPS_LAST_DATA_TEXT_BYTES || (length > 0 && !text.valid(text.field, length))) return text.name;
  }
  if ((LastDataLength(p.latitude) == 0) != (LastDataLength(p.longitude) == 0)) return "position";
  return nullptr;
}

void CheckSetting(int32_t& value, int32_t low, int32_t high, int32_t fallback, const char* name, const char* path) {
  if (value >= low && value <= high) return;
  Sys_log(3, "lib_GPS_param_RestorePersistentStorage: %s: %s = %i is outside %i to %i; using %i.", path, name,
          static_cast<int>(value), static_cast<int>(low), static_cast<int>(high), static_cast<int>(fallback));
  value = fallback;
}

void CheckSetting(char (&text)[GPS_PARAMETER_TEXT_BYTES], const char (&fallback)[GPS_PARAMETER_TEXT_BYTES],
                  const char* name, const char* path) {
  if (strnlen(text, sizeof text) < sizeof text) return;
  Sys_log(3, "lib_GPS_param_RestorePersistentStorage: %s: %s is not a terminated text; using the default.", path, name);
  std::memcpy(text, fallback, sizeof text);
}

void CheckRestored(gps_parameters_t& p) {
  char file[64];
  ParametersPath(file);
  const std::string path = gps::platform::Root() + "/fs" + file;
  gps_parameters_t d;
  lib_GPS_param_BuildDefaultParameters(&d);
  CheckSetting(p.power_mode_policy, 0, 1, d.power_mode_policy, "power_mode_policy", path.c_str());
  CheckSetting(p.assistance_policy, 0, static_cast<int32_t>(ASSISTNOW_RESERVED), d.assistance_policy, "assistance_policy", path.c_str());
  CheckSetting(p.connection_policy, 0, 0, d.connection_policy, "connection_policy", path.c_str());
  CheckSetting(p.online_server_port, 1, 65535, d.online_server_port, "online_server_port", path.c_str());
  CheckSetting(p.offline_server_port, 1, 65535, d.offline_server_port, "offline_server_port", path.c_str());
  CheckSetting(p.requestedFixUpdatePeriodInms, static_cast<int32_t>(GPS_MIN_FIX_UPDATE_PERIOD_MS),
               static_cast<int32_t>(GPS_MAX_FIX_UPDATE_PERIOD_MS),
               d.requestedFixUpdatePeriodInms, "requestedFixUpdatePeriodInms", path.c_str());
  CheckSetting(p.gprs_apn, d.gprs_apn, "gprs_apn", path.c_str());
  CheckSetting(p.gprs_login, d.gprs_login, "gprs_login", path.c_str());
  CheckSetting(p.gprs_password, d.gprs_password, "gprs_password", path.c_str());
  CheckSetting(p.online_server_address, d.online_server_address, "online_server_address", path.c_str());
  CheckSetting(p.online_server_username, d.online_server_username, "online_server_username", path.c_str());
  CheckSetting(p.online_server_password, d.online_server_password, "online_server_password", path.c_str());
  CheckSetting(p.offline_server_address, d.offline_server_address, "offline_server_address", path.c_str());
  CheckSetting(p.offline_server_file, d.offline_server_file, "offline_server_file", path.c_str());
  if (const char* damaged = DamagedFixField(p)) {
    Sys_log(3, "lib_GPS_param_RestorePersistentStorage: %s: the stored fix is damaged (%s); discarded.", path.c_str(),
            damaged);
    constexpr size_t kFixStart = offsetof(gps_parameters_t, date);
    std::memset(reinterpret_cast<char*>(&p) + kFixStart, 0, sizeof p - kFixStart);
  }
}

// Deferred writes. Every write of the file, deferred or not, takes a
// generation number when its content is taken and happens under g_fileLock;
// a write whose generation is older than the last written one is skipped, so
// a deferred copy never overwrites a newer setting saved directly.
pthread_mutex_t g_fileLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_pendingLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_pendingChanged = PTHREAD_COND_INITIALIZER;
gps_parameters_t g_pending;         // under g_pendingLock
bool g_hasPending = false;          // under g_pendingLock
bool g_writing = false;             // under g_pendingLock: a copy taken, not yet written
bool g_writerStarted = false;       // under g_pendingLock
bool g_closed = false;              // under g_pendingLock: the process is exiting
uint64_t g_generation = 0;          // under g_pendingLock
uint64_t g_pendingGeneration = 0;   // under g_pendingLock
uint64_t g_writtenGeneration = 0;   // under g_fileLock

int WriteGeneration(const gps_parameters_t* source, uint64_t generation) {
  pthread_mutex_lock(&g_fileLock);
  int result = 0;
  if (generation > g_writtenGeneration) {
    result = lib_GPS_param_UpdateParametersFile(source);
    g_writtenGeneration = generation;
  }
  pthread_mutex_unlock(&g_fileLock);
  return result;
}

void* ParametersWriter(void*) {
  gps_parameters_t copy;
  pthread_mutex_lock(&g_pendingLock);
  for (;;) {
    while (!g_hasPending) pthread_cond_wait(&g_pendingChanged, &g_pendingLock);
    std::memcpy(static_cast<void*>(&copy), &g_pending, sizeof copy);
    const uint64_t generation = g_pendingGeneration;
    g_hasPending = false;
    g_writing = true;
    pthread_mutex_unlock(&g_pendingLock);
    if (WriteGeneration(&copy, generation) != 0)
      Sys_log(3, "lib_GPS_param: the last fix could not be written to the parameters file; the previous one stays.");
    pthread_mutex_lock(&g_pendingLock);
    g_writing = false;
    pthread_cond_broadcast(&g_pendingChanged);
  }
  return nullptr;
}

// At exit the last copy is written and the writer stops taking copies:
// what it uses (the platform root, the log) is destroyed after this runs.
void CloseParametersWriter(void) {
  pthread_mutex_lock(&g_pendingLock);
  while (g_hasPending || g_writing) pthread_cond_wait(&g_pendingChanged, &g_pendingLock);
  g_closed = true;
  pthread_mutex_unlock(&g_pendingLock);
}

// Hands a copy of the record to the writer thread; written on the caller's
// thread when no writer thread can be started.
int StoreDeferred(void) {
  pthread_mutex_lock(&g_pendingLock);
  if (g_closed) {
    pthread_mutex_unlock(&g_pendingLock);
    return 0;
  }
  if (!g_writerStarted) {
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    g_writerStarted = pthread_create(&thread, &attributes, ParametersWriter, nullptr) == 0;
    pthread_attr_destroy(&attributes);
    if (g_writerStarted) std::atexit(CloseParametersWriter);
    if (!g_writerStarted) {
      pthread_mutex_unlock(&g_pendingLock);
      return lib_GPS_param_SaveParameters();
    }
  }
  std::memcpy(static_cast<void*>(&g_pending), &gps_parameters, sizeof g_pending);
  g_pendingGeneration = ++g_generation;
  g_hasPending = true;
  pthread_cond_broadcast(&g_pendingChanged);
  pthread_mutex_unlock(&g_pendingLock);
  return 0;
}

}  // namespace

int lib_GPS_param_FlushParameters(void) {
  pthread_mutex_lock(&g_pendingLock);
  while (g_hasPending || g_writing) pthread_cond_wait(&g_pendingChanged, &g_pendingLock);
  pthread_mutex_unlock(&g_pendingLock);
  return 0;
}

void lib_GPS_param_BuildDefaultParameters(gps_parameters_t* params) {
  std::memset(params, 0, sizeof *params);
  params->gprs_parameter_policy = 1;
  CopySetting(params->gprs_apn, GPS_DEFAULT_GPRS_APN);
  CopySetting(params->online_server_address, GPS_DEFAULT_ONLINE_SERVER);
  CopySetting(params->online_server_username, GPS_DEFAULT_ONLINE_USERNAME);
  CopySetting(params->online_server_password, GPS_DEFAULT_ONLINE_PASSWORD);
  params->online_server_port = GPS_DEFAULT_ONLINE_PORT;
  CopySetting(params->offline_server_address, GPS_DEFAULT_OFFLINE_SERVER);
  CopySetting(params->offline_server_file, GPS_DEFAULT_OFFLINE_FILE);
  params->offline_server_port = GPS_DEFAULT_OFFLINE_PORT;
  params->requestedFixUpdatePeriodInms = GPS_DEFAULT_FIX_UPDATE_PERIOD_MS;
}

int lib_GPS_param_CreateParametersFileIfNecessary(void) {
  FILE_FS_DiskDescriptor descriptor{};
  std::strncpy(descriptor.name, GPS_PARAMETERS_DISK, sizeof descriptor.name);
  descriptor.blockSize = 4096;
  descriptor.accessMode = 4;
  descriptor.maxOpenFiles = 1;
  descriptor.area = 0;
  const uint32_t sizeInBlocks = 8192;
  const int created = FILE_FS_dskcreate(&descriptor, &sizeInBlocks);
  if (created == FILE_FS_DISK_CREATED) {
    Sys_log(7, "lib_GPS_param_CreateParametersFileIfNecessary: disk created.");
    char path[64];
    ParametersPath(path);
    FILE_FS_HANDLE file = FILE_FS_open(path, "w+");
    if (!file) {
      Sys_log(3, "lib_GPS_param_CreateParametersFileIfNecessary: file creation failed.");
      return -1;
    }
    gps_parameters_t defaults;
    lib_GPS_param_BuildDefaultParameters(&defaults);
    FILE_FS_seek(file, 0, FILE_FS_SEEK_SET);
    FILE_FS_write(&defaults, 1, sizeof defaults, file);
    FILE_FS_sync(file);
    FILE_FS_close(file);
    return 0;
  }
  if (created == FILE_FS_DISK_EXISTS) {
    char disk[32];
    std::snprintf(disk, sizeof disk, "/%s", GPS_PARAMETERS_DISK);
    const uint32_t mode = 4;
    const int mounted = FILE_FS_mount(disk, &mode);
    if (mounted == 0 || mounted == 7) {
      Sys_log(3, "lib_GPS_param_CreateParametersFileIfNecessary: disk mount failed. error = %i.", mounted);
      return -2;
    }
    return 0;
  }
  Sys_log(3, "lib_GPS_param_CreateParametersFileIfNecessary: disk creation failed. diskCreationResult = %i.", created);
  return -3;
}

FILE_FS_File* lib_GPS_param_OpenParametersFile(void) {
  Sys_log(7, "lib_GPS_param_OpenParametersFile.");
  char path[64];
  ParametersPath(path);
  FILE_FS_HANDLE file = FILE_FS_open(path, "r+");
  if (!file) Sys_log(7, "lib_GPS_param_OpenParametersFile: parameter file does not exist.");
  return file;
}

int lib_GPS_param_ReadParametersFile(gps_parameters_t* destination) {
  Sys_log(7, "lib_GPS_param_ReadParametersFile.");
  FILE_FS_HANDLE file = lib_GPS_param_OpenParametersFile();
  if (!file) {
    Sys_log(7, "lib_GPS_param_ReadParametersFile: cannot open parameters file.");
    return -1;
  }
  FILE_FS_seek(file, 0, FILE_FS_SEEK_SET);
  // A shorter file (another version, a truncated copy) leaves the tail of the
  // record as it was: the read is taken as it comes.
  FILE_FS_read(destination, 1, sizeof *destination, file);
  FILE_FS_close(file);
  lib_GPS_param_LogParameters(destination);
  return 0;
}

int lib_GPS_param_UpdateParametersFile(const gps_parameters_t* source) {
  Sys_log(7, "lib_GPS_param_UpdateParametersFile.");
  lib_GPS_param_LogParameters(source);
  FILE_FS_HANDLE file = lib_GPS_param_OpenParametersFile();
  if (!file) {
    Sys_log(7, "lib_GPS_param_UpdateParametersFile: parameter file does not exist.");
    return -2;
  }
  int result = 0;
  FILE_FS_seek(file, 0, FILE_FS_SEEK_SET);
  if (FILE_FS_write(source, 1, sizeof *source, file) < sizeof *source) {
    Sys_log(7, "lib_GPS_param_UpdateParametersFile: write error.");
    result = -1;
  }
  if (FILE_FS_sync(file) != 0) result = -1;
  if (FILE_FS_close(file) != 0) result = -1;
  return result;
}

int lib_GPS_param_SaveParameters(void) {
  pthread_mutex_lock(&g_pendingLock);
  const uint64_t generation = ++g_generation;
  pthread_mutex_unlock(&g_pendingLock);
  return WriteGeneration(&gps_parameters, generation);
}

int lib_GPS_param_RestorePersistentStorage(void) {
  Sys_log(7, "lib_GPS_param_RestorePersistentStorage.");
  lib_GPS_param_CreateParametersFileIfNecessary();
  const int read = lib_GPS_param_ReadParametersFile(&gps_parameters);
  if (read == 0) CheckRestored(gps_parameters);
  return read;
}

void lib_GPS_param_LogParameters(const gps_parameters_t* p) {
  if (!Sys_log_IsEnabled(7)) return;
  // Texts are printed with their field width as bound: a file from elsewhere
  // may hold unterminated fields.
  Sys_log(7, "lib_GPS_param_LogParameters.");
  Sys_log(7, "******** GPS parameters ********");
  Sys_log(7, "power_mode_policy: %i.", p->power_mode_policy);
  Sys_log(7, "standby_policy: %i.", p->standby_policy);
  Sys_log(7, "assistance_policy: %i.", p->assistance_policy);
  Sys_log(7, "connection_policy: %i.", p->connection_policy);
  Sys_log(7, "gprs_parameter_policy: %i.", p->gprs_parameter_policy);
  Sys_log(7, "gprs_apn: %.128s.", p->gprs_apn);
  Sys_log(7, "gprs_login: %.128s.", p->gprs_login);
  Sys_log(7, "gprs_password: %.128s.", p->gprs_password);
  Sys_log(7, "online_server_address: %.128s.", p->online_server_address);
  Sys_log(7, "online_server_username: %.128s.", p->online_server_username);
  Sys_log(7, "online_server_password: %.128s.", p->online_server_password);
  Sys_log(7, "online_server_port: %i.", p->online_server_port);
  Sys_log(7, "offline_server_address: %.128s.", p->offline_server_address);
  Sys_log(7, "offline_server_file: %.128s.", p->offline_server_file);
  Sys_log(7, "offline_server_port: %i.", p->offline_server_port);
  Sys_log(7, "requestedFixUpdatePeriodInms: %i.", p->requestedFixUpdatePeriodInms);
  Sys_log(7, "date: %.*s.", kLast, p->date);
  Sys_log(7, "time: %.*s.", kLast, p->time);
  Sys_log(7, "latitude: %.*s.", kLast, p->latitude);
  Sys_log(7, "longitude: %.*s.", kLast, p->longitude);
  Sys_log(7, "hdop: %.*s.", kLast, p->hdop);
  Sys_log(7, "altitude: %.*s.", kLast, p->altitude);
  Sys_log(7, "courseTrue: %.*s.", kLast, p->courseTrue);
  Sys_log(7, "courseMagnetic: %.*s.", kLast, p->courseMagnetic);
  Sys_log(7, "speedKnots: %.*s.", kLast, p->speedKnots);
  Sys_log(7, "speedKmh: %.*s.", kLast, p->speedKmh);
  Sys_log(7, "********************************");
}

int lib_GPS_param_RecordLastFixData(const char* date, const char* time, const char* latitude, const char* longitude,
                                    const char* hdop, const char* altitude) {
  CopyLastData(gps_parameters.date, date);
  CopyLastData(gps_parameters.time, time);
  CopyLastData(gps_parameters.latitude, latitude);
  CopyLastData(gps_parameters.longitude, longitude);
  CopyLastData(gps_parameters.hdop, hdop);
  CopyLastData(gps_parameters.altitude, altitude);
  Sys_log(7,
          "lib_GPS_param_RecordLastFixData: date = %.*s, time = %.*s, latitude = %.*s, longitude = %.*s, hdop = %.*s, "
          "altitude = %.*s.",
          kLast, gps_parameters.date, kLast, gps_parameters.time, kLast, gps_parameters.latitude, kLast,
          gps_parameters.longitude, kLast, gps_parameters.hdop, kLast, gps_parameters.altitude);
  return 0;
}

int lib_GPS_param_StoreLastFixData(void) {
  Sys_log(7, "lib_GPS_param_StoreLastFixData.");
  return StoreDeferred();
}

int lib_GPS_param_RetrieveLastFixData(char* date, char* time, char* latitude, char* longitude, char* hdop,
                                      char* altitude) {
  Sys_log(7, "lib_GPS_param_RetrieveLastFixData.");
  CopyLastData(date, gps_parameters.date);
  CopyLastData(time, gps_parameters.time);
  CopyLastData(latitude, gps_parameters.latitude);
  CopyLastData(longitude, gps_parameters.longitude);
  CopyLastData(hdop, gps_parameters.hdop);
  CopyLastData(altitude, gps_parameters.altitude);
  return 0;
}

int lib_GPS_param_RecordLastCourseAndSpeedData(const char* courseTrue, const char* courseMagnetic,
                                               const char* speedKnots, const char* speedKmh) {
  CopyLastData(gps_parameters.courseTrue, courseTrue);
  CopyLastData(gps_parameters.courseMagnetic, courseMagnetic);
  CopyLastData(gps_parameters.speedKnots, speedKnots);
  CopyLastData(gps_parameters.speedKmh, speedKmh);
  Sys_log(7,
          "lib_GPS_param_RecordLastCourseAndSpeedData: courseTrue = %.*s, courseMagnetic = %.*s, speedKnots = %.*s, "
          "speedKmh = %.*s.",
          kLast, gps_parameters.courseTrue, kLast, gps_parameters.courseMagnetic, kLast, gps_parameters.speedKnots,
          kLast, gps_parameters.speedKmh);
  return 0;
}

int lib_GPS_param_StoreLastCourseAndSpeedData(void) {
  Sys_log(7, "lib_GPS_param_StoreLastCourseAndSpeedData.");
  return StoreDeferred();
}

int lib_GPS_param_RetrieveLastCourseAndSpeedData(char* courseTrue, char* courseMagnetic, char* speedKnots,
                                                 char* speedKmh) {
  Sys_log(7, "lib_GPS_param_RetrieveLastCourseAndSpeedData.");
  CopyLastData(courseTrue, gps_parameters.courseTrue);
  CopyLastData(courseMagnetic, gps_parameters.courseMagnetic);
  CopyLastData(speedKnots, gps_parameters.speedKnots);
  CopyLastData(speedKmh, gps_parameters.speedKmh);
  return 0;
}

int lib_GPS_param_SetPowerModePolicy(int32_t value) { return SetPolicy(gps_parameters.power_mode_policy, value); }
int32_t lib_GPS_param_GetPowerModePolicy(void) { return gps_parameters.power_mode_policy; }
int lib_GPS_param_SetStandbyPolicy(int32_t value) { return SetPolicy(gps_parameters.standby_policy, value); }
int32_t lib_GPS_param_GetStandbyPolicy(void) { return gps_parameters.standby_policy; }
int lib_GPS_param_SetAssistancePolicy(int32_t value) { return SetPolicy(gps_parameters.assistance_policy, value); }
int32_t lib_GPS_param_GetAssistancePolicy(void) { return gps_parameters.assistance_policy; }

int lib_GPS_param_SetConnectionPolicy(int32_t value) {
  if (value != 0) return -10;
  return SetPolicy(gps_parameters.connection_policy, value);
}
int32_t lib_GPS_param_GetConnectionPolicy(void) { return gps_parameters.connection_policy; }

int lib_GPS_param_SetGprsParameterPolicy(int32_t value) {
  return SetPolicy(gps_parameters.gprs_parameter_policy, value);
}
int32_t lib_GPS_param_GetGprsParameterPolicy(void) { return gps_parameters.gprs_parameter_policy; }

int lib_GPS_param_SetGprsParameters(const char* apn, const char* login, const char* password) {
  if (apn) CopySetting(gps_parameters.gprs_apn, apn);
  if (login) CopySetting(gps_parameters.gprs_login, login);
  if (password) CopySetting(gps_parameters.gprs_password, password);
  if (apn || login || password) lib_GPS_param_SaveParameters();
  return 0;
}

int lib_GPS_param_GetGprsParameters(char* apn, char* login, char* password) {
  if (apn) std::memcpy(apn, gps_parameters.gprs_apn, GPS_PARAMETER_TEXT_BYTES);
  if (login) std::memcpy(login, gps_parameters.gprs_login, GPS_PARAMETER_TEXT_BYTES);
  if (password) std::memcpy(password, gps_parameters.gprs_password, GPS_PARAMETER_TEXT_BYTES);
  return 0;
}

int lib_GPS_param_SetOnlineServerParameters(const char* address, uint16_t port, const char* username,
                                            const char* password) {
  if (address) CopySetting(gps_parameters.online_server_address, address);
  if (port != 0) gps_parameters.online_server_port = port;
  if (username) CopySetting(gps_parameters.online_server_username, username);
  if (password) CopySetting(gps_parameters.online_server_password, password);
  if (address || port != 0 || username || password) lib_GPS_param_SaveParameters();
  return 0;
}

int lib_GPS_param_GetOnlineServerParameters(char* address, uint16_t* port, char* username, char* password) {
  if (address) std::memcpy(address, gps_parameters.online_server_address, GPS_PARAMETER_TEXT_BYTES);
  if (port) *port = static_cast<uint16_t>(gps_parameters.online_server_port);
  if (username) std::memcpy(username, gps_parameters.online_server_username, GPS_PARAMETER_TEXT_BYTES);
  if (password) std::memcpy(password, gps_parameters.online_server_password, GPS_PARAMETER_TEXT_BYTES);
  return 0;
}

int lib_GPS_param_SetOfflineServerParameters(const char* address, uint16_t port, const char* file) {
  if (address) CopySetting(gps_parameters.offline_server_address, address);
  if (port != 0) gps_parameters.offline_server_port = port;
  if (file) CopySetting(gps_parameters.offline_server_file, file);
  if (address || port != 0 || file) lib_GPS_param_SaveParameters();
  return 0;
}

int lib_GPS_param_GetOfflineServerParameters(char* address, uint16_t* port, char* file) {
  if (address) std::memcpy(address, gps_parameters.offline_server_address, GPS_PARAMETER_TEXT_BYTES);
  if (port) *port = static_cast<uint16_t>(gps_parameters.offline_server_port);
  if (file) std::memcpy(file, gps_parameters.offline_server_file, GPS_PARAMETER_TEXT_BYTES);
  return 0;
}
