// The gpsd JSON protocol, version 3 as gpsd 3.22 speaks it: the command
// reader and the report objects.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "export/record_view.h"

namespace gps::exporter {

inline constexpr int kProtoMajor = 3;
inline constexpr int kProtoMinor = 14;
// Longest command accepted; a longer one is answered with an ERROR and
// passed over up to its end.
inline constexpr size_t kMaxCommandBytes = 4096;

enum class CommandKind { Version, Devices, Watch, Poll, Device, Error };

struct WatchRequest {
  std::optional<bool> enable, json, nmea, scaled;
  std::optional<int> raw;
  std::optional<std::string> device;
};

struct Command {
  CommandKind kind = CommandKind::Error;
  WatchRequest watch;         // Watch
  bool changesDevice = false; // Device with settings: refused, read-only
  std::string error;          // Error: the ERROR object's message
};

// Cuts a client's byte stream into commands: "?NAME;" or "?NAME={...};",
// ended by ';' outside the object or by a line end. Bytes of an unfinished
// command wait for the next call.
class CommandReader {
 public:
  std::vector<Command> feed(std::string_view bytes);

 private:
  void finish(std::vector<Command>& out);
  std::string pending_;
  int depth_ = 0;
  bool inString_ = false;
  bool escaped_ = false;
  bool skipping_ = false;  // passing over an overlong command
};

// One command's text without its terminator.
Command ParseCommand(std::string_view text);

// Watch state of one client.
struct WatchState {
  bool enable = false;
  bool json = false;
  bool nmea = false;
  int raw = 0;
  bool scaled = false;
  std::string device;  // empty: every device
};

struct DeviceDescription {
  std::string path;
  int bps = 9600;
  std::optional<int64_t> activatedMs;
};

// Report objects, each a line ending in "\r\n" as gpsd writes them.
std::string VersionObject();
std::string WatchObject(const WatchState& watch);
std::string DeviceObject(const DeviceDescription& device, const DeviceView& view, bool alone);
std::string DevicesObject(const DeviceDescription& device, const DeviceView& view);
std::string TpvObject(const std::string& path, const FixView& fix);
std::string SkyObject(const std::string& path, const SkyView& sky, std::optional<int64_t> timeMs);
std::string PollObject(const std::string& path, const RecordView& view, int64_t nowMs, bool active);
// The same in two steps: the TPV and SKY arrays of a POLL, which change only
// with the record, then the object around them.
struct PollReports {
  std::string tpv, sky;
};
PollReports PollContent(const std::string& path, const RecordView& view, bool active);
std::string PollObject(const PollReports& reports, int64_t nowMs, bool active);
std::string ErrorObject(std::string_view message);

// "2026-11-23T12:00:00.000Z"
std::string IsoTime(int64_t utcMs);

}  // namespace gps::exporter
