#include "export/gpsd_protocol.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <utility>

#include <nlohmann/json.hpp>

namespace gps::exporter {

namespace {

constexpr const char* kRelease = "3.22";
constexpr const char* kRevision = "gps-service";

// A JSON string with the quotes and the escapes JSON needs.
std::string Quoted(std::string_view text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

class ObjectWriter {
 public:
  explicit ObjectWriter(std::string_view className) { text_ = "{\"class\":" + Quoted(className); }
  ObjectWriter& text(std::string_view key, std::string_view value) {
    return raw(key, Quoted(value));
  }
  ObjectWriter& integer(std::string_view key, int64_t value) { return raw(key, std::to_string(value)); }
  ObjectWriter& boolean(std::string_view key, bool value) { return raw(key, value ? "true" : "false"); }
  ObjectWriter& number(std::string_view key, std::optional<double> value, int decimals) {
    if (!value || !std::isfinite(*value)) return *this;
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, *value);
    return raw(key, buffer);
  }
  ObjectWriter& raw(std::string_view key, std::string_view json) {
    text_ += ",\"";
    text_ += key;
    text_ += "\":";
    text_ += json;
    return *this;
  }
  std::string object() const { return text_ + "}"; }
  std::string line() const { return text_ + "}\r\n"; }

 private:
  std::string text_;
};

bool ReadBool(const nlohmann::json& body, const char* key, std::optional<bool>& out, std::string& error) {
  const auto it = body.find(key);
  if (it == body.end()) return true;
  if (!it->is_boolean()) {
    error = std::string("Invalid WATCH: \"") + key + "\" must be true or false";
    return false;
  }
  out = it->get<bool>();
  return true;
}

Command Failure(std::string message) {
  Command c;
  c.kind = CommandKind::Error;
  c.error = std::move(message);
  return c;
}

Command ParseWatch(std::string_view body) {
  Command c;
  c.kind = CommandKind::Watch;
  if (body.empty()) return c;
  const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
  if (json.is_discarded() || !json.is_object()) return Failure("Invalid WATCH: the argument is not a JSON object");
  WatchRequest& w = c.watch;
  std::string error;
  if (!ReadBool(json, "enable", w.enable, error) || !ReadBool(json, "json", w.json, error) ||
      !ReadBool(json, "nmea", w.nmea, error) || !ReadBool(json, "scaled", w.scaled, error))
    return Failure(error);
  if (const auto it = json.find("raw"); it != json.end()) {
    if (!it->is_number_integer() || it->get<int64_t>() < 0 || it->get<int64_t>() > 2)
      return Failure("Invalid WATCH: \"raw\" must be 0, 1 or 2");
    w.raw = static_cast<int>(it->get<int64_t>());
  }
  if (const auto it = json.find("device"); it != json.end()) {
    if (!it->is_string()) return Failure("Invalid WATCH: \"device\" must be a path");
    w.device = it->get<std::string>();
  }
  return c;
}

}  // namespace

Command ParseCommand(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
  if (text.empty() || text.front() != '?') return Failure("Unrecognized request: a command starts with '?'");
  text.remove_prefix(1);
  const size_t equals = text.find('=');
  const std::string_view name = text.substr(0, equals);
  const std::string_view body = equals == std::string_view::npos ? std::string_view{} : text.substr(equals + 1);
  const bool hasBody = equals != std::string_view::npos;
  if (name == "VERSION" && !hasBody) return Command{CommandKind::Version, {}, false, {}};
  if (name == "DEVICES" && !hasBody) return Command{CommandKind::Devices, {}, false, {}};
  if (name == "POLL" && !hasBody) return Command{CommandKind::Poll, {}, false, {}};
  if (name == "WATCH") return ParseWatch(body);
  if (name == "DEVICE") {
    Command c{CommandKind::Device, {}, false, {}};
    if (!hasBody) return c;
    const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_discarded() || !json.is_object()) return Failure("Invalid DEVICE: the argument is not a JSON object");
    // Anything besides the class and the path would change the device.
    for (const auto& [key, value] : json.items())
      if (key != "class" && key != "path") c.changesDevice = true;
    return c;
  }
  std::string shown(name.substr(0, 32));
  for (char& ch : shown)
    if (static_cast<unsigned char>(ch) < 0x20 || static_cast<unsigned char>(ch) >= 0x7F) ch = '?';
  return Failure("Unrecognized request '" + shown + "'");
}

void CommandReader::finish(std::vector<Command>& out) {
  const bool blank = pending_.find_first_not_of(" \t\r") == std::string::npos;
  if (!skipping_ && !blank) out.push_back(ParseCommand(pending_));
  pending_.clear();
  depth_ = 0;
  inString_ = escaped_ = false;
}

std::vector<Command> CommandReader::feed(std::string_view bytes) {
  std::vector<Command> out;
  for (const char c : bytes) {
    if (c == '\n') {
      finish(out);
      skipping_ = false;
      continue;
    }
    if (skipping_) continue;
    if (c == ';' && depth_ == 0 && !inString_) {
      finish(out);
      continue;
    }
    if (pending_.size() >= kMaxCommandBytes) {
      out.push_back(Failure("Request too long: at most " + std::to_string(kMaxCommandBytes) + " bytes"));
      pending_.clear();
      depth_ = 0;
      inString_ = escaped_ = false;
      skipping_ = true;
      continue;
    }
    pending_ += c;
    if (inString_) {
      if (escaped_) escaped_ = false;
      else if (c == '\\') escaped_ = true;
      else if (c == '"') inString_ = false;
    } else if (c == '"') {
      inString_ = true;
    } else if (c == '{') {
      ++depth_;
    } else if (c == '}' && depth_ > 0) {
      --depth_;
    }
  }
  return out;
}

std::string IsoTime(int64_t utcMs) {
  const int64_t seconds = utcMs >= 0 ? utcMs / 1000 : (utcMs - 999) / 1000;
  const auto ms = static_cast<int>(utcMs - seconds * 1000);
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
  return buffer;
}

std::string VersionObject() {
  return ObjectWriter("VERSION")
      .text("release", kRelease)
      .text("rev", kRevision)
      .integer("proto_major", kProtoMajor)
      .integer("proto_minor", kProtoMinor)
      .line();
}

std::string WatchObject(const WatchState& w) {
  ObjectWriter o("WATCH");
  o.boolean("enable", w.enable).boolean("json", w.json).boolean("nmea", w.nmea).integer("raw", w.raw);
  o.boolean("scaled", w.scaled).boolean("timing", false).boolean("split24", false).boolean("pps", false);
  if (!w.device.empty()) o.text("device", w.device);
  return o.line();
}

std::string DeviceObject(const DeviceDescription& device, const DeviceView& view, bool alone) {
  ObjectWriter o("DEVICE");
  o.text("path", device.path);
  if (device.activatedMs) {
    o.text("driver", view.ubx ? "u-blox" : "NMEA0183");
    if (!view.subtype.empty()) o.text("subtype", view.subtype);
    if (!view.subtype1.empty()) o.text("subtype1", view.subtype1);
    o.text("activated", IsoTime(*device.activatedMs));
    o.integer("flags", view.ubx ? 3 : 1);  // seen NMEA (1) and a binary protocol (2)
    o.integer("native", view.ubx ? 1 : 0);
    o.integer("bps", device.bps).text("parity", "N").integer("stopbits", 1).raw("cycle", "1.00");
  }
  return alone ? o.line() : o.object();
}

std::string DevicesObject(const DeviceDescription& device, const DeviceView& view) {
  return ObjectWriter("DEVICES").raw("devices", "[" + DeviceObject(device, view, false) + "]").line();
}

namespace {

// gpsd's constellation and number within it for an NMEA-numbered PRN.
std::pair<int, int> GnssOf(int prn) {
  if (prn >= 33 && prn <= 64) return {1, prn + 87};    // SBAS 120-151
  if (prn >= 65 && prn <= 96) return {6, prn - 64};    // GLONASS
  if (prn >= 193 && prn <= 200) return {5, prn - 192}; // QZSS
  if (prn >= 201 && prn <= 237) return {3, prn - 200}; // BeiDou
  if (prn >= 301 && prn <= 336) return {2, prn - 300}; // Galileo
  return {0, prn};                                     // GPS
}

std::string Tpv(const std::string& path, const FixView& f) {
  ObjectWriter o("TPV");
  o.text("device", path).integer("mode", f.mode);
  if (f.mode >= 2) o.integer("status", f.quality == 2 ? 2 : 1);
  if (f.utcMs) o.text("time", IsoTime(*f.utcMs));
  if (f.mode >= 2) {
    o.number("lat", f.latitudeDeg, 9).number("lon", f.longitudeDeg, 9);
    o.number("altHAE", f.altitudeHaeM, 3).number("altMSL", f.altitudeMslM, 3);
    o.number("alt", f.altitudeMslM, 3).number("geoidSep", f.geoidSeparationM, 3);
    o.number("eph", f.horizontalErrorM, 3).number("epv", f.verticalErrorM, 3);
    o.number("track", f.trackDeg, 4).number("speed", f.speedMps, 3).number("climb", f.climbMps, 3);
  }
  if (f.leapSeconds) o.integer("leapseconds", *f.leapSeconds);
  return o.object();
}

std::string Sky(const std::string& path, const SkyView& s, std::optional<int64_t> timeMs) {
  ObjectWriter o("SKY");
  o.text("device", path);
  if (timeMs) o.text("time", IsoTime(*timeMs));
  o.number("hdop", s.hdop, 2).number("vdop", s.vdop, 2).number("pdop", s.pdop, 2);
  o.integer("nSat", static_cast<int64_t>(s.satellites.size())).integer("uSat", s.usedCount);
  std::string list = "[";
  for (const SatelliteView& sat : s.satellites) {
    if (list.size() > 1) list += ',';
    const auto [gnssid, svid] = GnssOf(sat.prn);
    list += "{\"PRN\":" + std::to_string(sat.prn);
    // What the receiver did not report is left out, never filled in.
    for (const auto& [key, value] : {std::pair{"el", sat.elevationDeg}, {"az", sat.azimuthDeg}, {"ss", sat.signalDbHz}})
      if (value) list += std::string(",\"") + key + "\":" + std::to_string(*value) + ".0";
    list += std::string(",\"used\":") + (sat.used ? "true" : "false") + ",\"gnssid\":" + std::to_string(gnssid) +
            ",\"svid\":" + std::to_string(svid) + "}";
  }
  o.raw("satellites", list + "]");
  return o.object();
}

}  // namespace

std::string TpvObject(const std::string& path, const FixView& fix) { return Tpv(path, fix) + "\r\n"; }

std::string SkyObject(const std::string& path, const SkyView& sky, std::optional<int64_t> timeMs) {
  return Sky(path, sky, timeMs) + "\r\n";
}

PollReports PollContent(const std::string& path, const RecordView& view, bool active) {
  return {active ? "[" + Tpv(path, view.fix) + "]" : "[]",
          active && view.sky.satViewTick != 0 ? "[" + Sky(path, view.sky, view.fix.utcMs) + "]" : "[]"};
}

std::string PollObject(const PollReports& reports, int64_t nowMs, bool active) {
  ObjectWriter o("POLL");
  o.text("time", IsoTime(nowMs)).integer("active", active ? 1 : 0);
  return o.raw("tpv", reports.tpv).raw("sky", reports.sky).line();
}

std::string PollObject(const std::string& path, const RecordView& view, int64_t nowMs, bool active) {
  return PollObject(PollContent(path, view, active), nowMs, active);
}

std::string ErrorObject(std::string_view message) {
  return ObjectWriter("ERROR").text("message", message).line();
}

}  // namespace gps::exporter
