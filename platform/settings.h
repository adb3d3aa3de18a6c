// What the terminal's firmware would report, read from $ROOT/platform.ini.
#pragma once

#include <string>

namespace gps::platform {

// Syslog; stderr (lines with a time stamp, or with "<N>" priority prefixes
// and no time stamp when stderr is connected to the journal); journal
// (stderr with "<N>" prefixes always, for a daemon whose stderr is the
// journal's stream).
enum class LogTarget { Syslog, Stderr, Journal };

struct Settings {
  int startupMode = 0;            // 0 service mode; see the service's start-up
  int moduleType = 2;             // 1 UBX-G7020, 2 UBX-M8030, other: GPRS modem
  std::string device = "auto";    // "auto" (find a u-blox receiver), "sim" or a serial device path
  int baud = 0;                   // 0: "auto", found on the line
  std::string port;               // "usb", "uart1", "uart2"; empty: from the device
  std::string powerOff;           // "gnss-stop", "backup"; empty: by port
  int logThreshold = 6;
  LogTarget logTarget = LogTarget::Syslog;
  std::string simScenario;        // empty: the simulator's built-in route
  // Why platform.ini cannot be used (unreadable, a line that does not parse),
  // naming the file and line; empty when it can. When set, the other fields
  // hold their defaults and the service refuses to start.
  std::string unusable;
  std::string gpsdListen;         // [gpsd] listen: TCP addresses of the JSON endpoint; empty: none
  std::string gpsdSocket;         // [gpsd] socket: its Unix socket below the root; empty: none
  std::string chronySocket;       // [chrony] socket: chronyd's SOCK refclock socket; empty: none
  int maxConnectionsPerUser = 64; // service connections one ordinary uid may hold
};

// Settings of the current root, loaded once (iniparser). A missing file gives
// the defaults above. An unknown section or key and a bad value are warned
// about on stderr (the value keeps its default); a line that does not parse
// makes the file unusable.
const Settings& CurrentSettings();

// Reads platform.ini now, warning as above, without touching the settings
// in use.
Settings ReadSettings();

// Puts the [log] settings read by ReadSettings in use (threshold and target),
// except where a program has overridden them.
void ApplyLogSettings(const Settings& settings);

// Drops the cached settings so the next call reads platform.ini again.
void ReloadSettings();

// Overrides for programs that decide their own logging (tools, tests).
void SetLogThreshold(int level);
void SetLogTarget(LogTarget target);

// A line about the process itself (its settings, why it does not start) on
// stderr whatever the log target, so that it is seen where the process was
// started; "<N>" first when stderr is the journal.
void ProcessLine(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// While set, every line that passes the threshold goes to the sink instead of
// the configured target (the text is the formatted line without time stamp).
using LogSink = void (*)(void* context, int level, const char* text);
void SetLogSink(LogSink sink, void* context);

}  // namespace gps::platform
