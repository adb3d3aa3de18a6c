// What the terminal's firmware would report, read from $ROOT/platform.ini.
#pragma once

#include <string>

namespace gps::platform {

enum class LogTarget { Syslog, Stderr };

struct Settings {
  int startupMode = 0;            // 0 service mode; see the service's start-up
  int moduleType = 2;             // 1 UBX-G7020, 2 UBX-M8030, other: GPRS modem
  std::string device = "sim";     // "sim" or a serial device path
  int baud = 9600;
  int logThreshold = 6;
  LogTarget logTarget = LogTarget::Syslog;
  std::string simScenario;        // empty: the simulator's built-in route
  int maxConnectionsPerUser = 64; // service connections one ordinary uid may hold
};

// Settings of the current root, loaded once (iniparser). A missing file gives
// the defaults above; a bad value is logged to stderr and its default kept.
const Settings& CurrentSettings();

// Drops the cached settings so the next call reads platform.ini again.
void ReloadSettings();

// Overrides for programs that decide their own logging (tools, tests).
void SetLogThreshold(int level);
void SetLogTarget(LogTarget target);

// While set, every line that passes the threshold goes to the sink instead of
// the configured target (the text is the formatted line without time stamp).
using LogSink = void (*)(void* context, int level, const char* text);
void SetLogSink(LogSink sink, void* context);

}  // namespace gps::platform
