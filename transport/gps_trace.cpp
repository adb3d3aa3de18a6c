#include "transport/gps_trace.h"

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/fs.h"
#include "platform/os.h"
#include "platform/root.h"

namespace {

pthread_mutex_t trace_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<uint8_t> traces_enabled{0};
// Set by lib_GPS_Geolocating_GPS_ReleaseTraces: from then on nothing is logged
// through the engine, which keeps a late line from touching a released lock.
std::atomic<bool> traces_released{false};

constexpr uint32_t kWorkBufferBytes = 2048;
constexpr uint32_t kOverlongPrefixChars = 100;
constexpr uint32_t kDumpBytesPerLine = 16;
constexpr int kDumpAsciiColumn = 51;

class TraceLockGuard {
 public:
  TraceLockGuard() { pthread_mutex_lock(&trace_lock); }
  ~TraceLockGuard() { pthread_mutex_unlock(&trace_lock); }
  TraceLockGuard(const TraceLockGuard&) = delete;
  TraceLockGuard& operator=(const TraceLockGuard&) = delete;
};

// Text mode: a line of at most 256 characters goes out whole; a longer one is
// announced with its first 100 characters.
void TraceWriteText(int level, const char* text, size_t length) {
  if (length <= GPS_TRACE_LINE_CAPACITY) {
    Sys_log(level, "[GPS] %s", text);
    return;
  }
  char prefix[kOverlongPrefixChars + 1] = {};
  std::memcpy(prefix, text, kOverlongPrefixChars);
  Sys_log(level, "[GPS] ATTENTION : Trace trop longue => %s...", prefix);
}

// One chunk of at most 268 bytes.
void TraceDump(int level, const uint8_t* data, uint32_t length, int withAscii) {
  char printable[GPS_TRACE_DUMP_CHUNK_BYTES + 1];
  for (uint32_t i = 0; i < length; ++i) {
    const uint8_t b = data[i];
    const bool keep = std::isprint(b) && b != '\r' && b != '\n' && b != '\t';
    printable[i] = keep ? static_cast<char>(b) : '.';
  }
  printable[length] = '\0';
  if (!withAscii) {
    Sys_log(level, "[GPS] %s", printable);
    return;
  }
  for (uint32_t start = 0; start < length; start += kDumpBytesPerLine) {
    const uint32_t count = length - start < kDumpBytesPerLine ? length - start : kDumpBytesPerLine;
    char line[101];
    int pos = 0;
    for (uint32_t i = 0; i < count; ++i) pos += std::snprintf(line + pos, sizeof line - pos, " %.2hhx", data[start + i]);
    while (pos < kDumpAsciiColumn) line[pos++] = ' ';
    std::memcpy(line + pos, printable + start, count);
    line[pos + static_cast<int>(count)] = '\0';
    Sys_log(level, "[GPS] %s", line);
  }
}

void TraceWriteData(int level, const uint8_t* data, uint32_t length, int withAscii) {
  while (length > GPS_TRACE_DUMP_CHUNK_BYTES) {
    TraceDump(level, data, GPS_TRACE_DUMP_CHUNK_BYTES, withAscii);
    data += GPS_TRACE_DUMP_CHUNK_BYTES;
    length -= GPS_TRACE_DUMP_CHUNK_BYTES;
  }
  if (length > 0) TraceDump(level, data, length, withAscii);
}

void PublishTracePath(gps_private_info_t* infos, const char* path) {
  // lib_GPS_ubx_SendMessage records its frames with the engine lock held; the
  // lock is not recursive, so take it only when this thread does not have it.
  const bool alreadyHeld = lib_GPS_LockHeldByCaller();
  if (!alreadyHeld) lib_GPS_Lock();
  lib_GPS_CopyField(infos->module_trace_path, sizeof infos->module_trace_path, path);
  if (!alreadyHeld) lib_GPS_Unlock();
}

}  // namespace

void lib_GPS_TraceLine(int level, const char* format, ...) {
  if (traces_released.load(std::memory_order_relaxed) || !Sys_log_IsEnabled(level)) return;
  TraceLockGuard guard;
  char text[kWorkBufferBytes] = {};
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n < 0) return;
  TraceWriteText(level, text, static_cast<size_t>(n));
}

void lib_GPS_TraceHex(int level, uint32_t length, const uint8_t* data, int withAscii) {
  if (!traces_enabled.load(std::memory_order_relaxed) || traces_released.load(std::memory_order_relaxed) ||
      !data || length == 0 || !Sys_log_IsEnabled(level))
    return;
  TraceLockGuard guard;
  TraceWriteData(level, data, length, withAscii);
}

int lib_GPS_TraceInit(int enable) {
  traces_enabled.store(enable == 1 ? 1 : 0, std::memory_order_relaxed);
  return 0;
}

void lib_GPS_Geolocating_GPS_SetTraces(int enable) {
  traces_enabled.store(enable == 1 ? 1 : 0, std::memory_order_relaxed);
}

void lib_GPS_Geolocating_GPS_ReleaseTraces(void) { traces_released.store(true, std::memory_order_relaxed); }

int lib_GPS_WriteIfSpaceLeft(const uint8_t* data, uint32_t length, int descriptor) {
  if (FILE_FS_AreaGetFreeSize(1) < GPS_MODULE_TRACE_MIN_FREE_BYTES) {
    lib_GPS_Trace(7, "lib_GPS_WriteIfSpaceLeft: not enough free space.");
    return -1;
  }
  if (write(descriptor, data, length) == -1) {
    lib_GPS_Trace(7, "lib_GPS_WriteIfSpaceLeft: error during write.");
    return -1;
  }
  return 0;
}

void lib_GPS_StopModuleTraces(gps_private_info_t* infos) {
  if (infos->module_trace_fd != 0) {
    if (infos->module_trace_fd > 0) close(infos->module_trace_fd);
    infos->module_trace_fd = 0;
  }
}

// A trace file is created with mode 0666 less the process umask, like any file
// a user's tool writes, so the person who switched logging on can read it.
int lib_GPS_LogModuleTraces(gps_private_info_t* infos, const uint8_t* data, uint32_t length) {
  if (infos->module_trace_fd == 0) {
    lib_GPS_Trace(7, "lib_GPS_LogModuleTraces: create file.");
    const std::time_t now = gps::platform::WallClockNow();
    std::tm local{};
    localtime_r(&now, &local);
    char name[49] = {};
    std::strftime(name, sizeof name, "GpsLog_%0Y%0m%0d%0H%0M%0S.ubx", &local);
    char path[100] = {};
    std::snprintf(path, sizeof path, "%s%s", GPS_MODULE_TRACE_DIRECTORY, name);
    lib_GPS_Trace(7, "lib_GPS_LogModuleTraces: file name = [%s].", name);
    int fd = -1;
    if (const auto real = gps::platform::SystemPath(GPS_MODULE_TRACE_DIRECTORY)) {
      gps::platform::MakeDirectories(*real);
      const std::string file = *real + name;
      fd = open(file.c_str(), O_WRONLY | O_CREAT | O_DSYNC | O_CLOEXEC, 0666);
    }
    infos->module_trace_fd = fd;
    if (fd == -1) {
      lib_GPS_Trace(7, "lib_GPS_LogModuleTraces: file creation failed.");
      lib_GPS_SetLoggingEnabled(infos, 0);
    } else {
      lib_GPS_Trace(7, "lib_GPS_LogModuleTraces: file creation successful.");
      PublishTracePath(infos, path);
    }
  }
  if (infos->module_trace_fd != 0) {
    if (lib_GPS_WriteIfSpaceLeft(data, length, infos->module_trace_fd) == -1) {
      lib_GPS_Trace(7, "lib_GPS_LogModuleTraces: stop module traces logging.");
      lib_GPS_StopModuleTraces(infos);
      lib_GPS_SetLoggingEnabled(infos, 0);
      return -1;
    }
  }
  return 0;
}
