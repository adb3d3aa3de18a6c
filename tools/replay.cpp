#include "tools/replay.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <span>
#include <unistd.h>

#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"
#include "nmea/nmea_parser.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "platform/message_align.h"
#include "transport/gps_trace.h"

namespace gps::replay {
namespace {

// The replay's clock advances one tick (10 ms) per analysed message, so each
// GGA has a tick of its own and the once-a-minute store of the last fix
// happens at the same place on every run. It starts past the first store
// period, as on a terminal that has been up for a while.
uint32_t g_virtualTick = GPS_LAST_DATA_STORE_PERIOD_TICKS;
uint32_t VirtualTicks() { return g_virtualTick; }

constexpr size_t kReadBytes = 64 * 1024;

class JsonLine {
 public:
  void Raw(const char* text) { line_ += text; }
  void Key(const char* key) {
    if (line_.size() > 1) line_ += ',';
    line_ += '"';
    line_ += key;
    line_ += "\":";
  }
  void String(const char* key, const char* value, size_t capacity) {
    Key(key);
    Quote(line_, value, capacity);
  }
  // Appends a JSON string of at most `capacity` characters of a C text.
  static void Quote(std::string& out, const char* value, size_t capacity) {
    out += '"';
    for (size_t i = 0; i < capacity && value[i] != '\0'; ++i) {
      const unsigned char c = static_cast<unsigned char>(value[i]);
      if (c == '"' || c == '\\') {
        out += '\\';
        out += static_cast<char>(c);
      } else if (c < 0x20 || c >= 0x7F) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
      } else {
        out += static_cast<char>(c);
      }
    }
    out += '"';
  }
  void Number(const char* key, uint64_t value) {
    Key(key);
    line_ += std::to_string(value);
  }
  void Decimal(const char* key, double value, int decimals) {
    Key(key);
    char number[40];
    int n = std::snprintf(number, sizeof number, "%.*f", decimals, value);
    while (n > 1 && number[n - 1] == '0' && number[n - 2] != '.') number[--n] = '\0';
    line_ += number;
  }
  void Degrees(const char* key, const char* text) {
    Key(key);
    double degrees = 0;
    if (!NmeaCoordinateToDegrees(text, degrees)) {
      line_ += "null";
      return;
    }
    char number[40];
    int n = std::snprintf(number, sizeof number, "%.10f", degrees);
    while (n > 1 && number[n - 1] == '0' && number[n - 2] != '.') number[--n] = '\0';
    line_ += number;
  }
  void Write(std::FILE* out) {
    line_ += "}\n";
    std::fwrite(line_.data(), 1, line_.size(), out);
    line_ = "{";
  }

 private:
  std::string line_ = "{";
};

struct Replay {
  Replay(const Options& replayOptions, std::FILE* output) : options(replayOptions), out(output) {}

  const Options& options;
  std::FILE* out;
  Totals totals{};
  JsonLine json;

  void OnMessage(const gps_private_info_t* infos, const gps_message_t* message) {
    ++g_virtualTick;
    if (message->type == MESSAGE_TYPE_UBLOX) {
      ++totals.ubx;
      ++ubxCounts[(message->ubx_class & 0xFF) << 8 | (message->ubx_id & 0xFF)];
      if (message->ubx_class == 0x01 && message->ubx_id == 0x07 && !options.quiet) WriteNavPvt(message);
      return;
    }
    if (message->type != MESSAGE_TYPE_NMEA) return;
    ++totals.nmea;
    // The parser has cut the sentence at its commas: bytes 3 to 5 are the type.
    if (message->length < 6 || std::memcmp(message->buffer + 3, "GGA", 3) != 0) return;
    // A GGA that carried a fix set fix_tick to its own reception tick.
    if (infos->fix_quality == 0 || infos->fix_tick != infos->gga_tick || infos->gga_tick != g_virtualTick - 1) return;
    ++totals.fixes;
    if (options.quiet) return;
    json.String("event", "fix", 3);
    json.String("time", infos->time, sizeof infos->time);
    json.String("date", infos->date, sizeof infos->date);
    json.String("latitude", infos->latitude, sizeof infos->latitude);
    json.String("longitude", infos->longitude, sizeof infos->longitude);
    json.String("altitude", infos->altitude, sizeof infos->altitude);
    json.String("hdop", infos->hdop, sizeof infos->hdop);
    json.Degrees("lat", infos->latitude);
    json.Degrees("lon", infos->longitude);
    json.Write(out);
  }

  // NAV-PVT: time of day, fix type, position [1e-7 deg] and height above
  // mean sea level [mm], from the frame's payload.
  void WriteNavPvt(const gps_message_t* message) {
    const uint8_t* p = message->buffer + 6;
    const auto i32 = [p](int at) {
      return static_cast<int32_t>(static_cast<uint32_t>(p[at]) | static_cast<uint32_t>(p[at + 1]) << 8 |
                                  static_cast<uint32_t>(p[at + 2]) << 16 | static_cast<uint32_t>(p[at + 3]) << 24);
    };
    char time[16];
    std::snprintf(time, sizeof time, "%02u:%02u:%02u", p[8] % 100u, p[9] % 100u, p[10] % 100u);
    json.String("event", "nav_pvt", 7);
    json.String("time", time, sizeof time);
    json.Number("fixType", p[20]);
    json.Decimal("lat", i32(28) * 1e-7, 7);
    json.Decimal("lon", i32(24) * 1e-7, 7);
    json.Decimal("hMSL", i32(36) / 1000.0, 3);
    json.Write(out);
  }

  static void Observe(void* context, const gps_private_info_t* infos, const gps_message_t* message) {
    static_cast<Replay*>(context)->OnMessage(infos, message);
  }

  void Feed(std::span<const uint8_t> chunk) {
    totals.bytes += chunk.size();
    analyze_gps(&gps_private_info, &frame, chunk.data(), static_cast<uint32_t>(chunk.size()));
  }

  // A message-aligned chunk goes through the driver's corruption check first.
  void FeedChecked(std::span<const uint8_t> chunk) {
    std::memcpy(checked.data(), chunk.data(), chunk.size());
    const size_t kept = platform::DropCorruptMessages({checked.data(), chunk.size()}, dropped);
    totals.bytes += chunk.size() - kept;
    Feed({checked.data(), kept});
  }

  // Hands the pending bytes to the engine as the driver would: whole messages
  // for the u-blox types, raw reads of at most one chunk for the modem.
  // Returns how many bytes were consumed.
  size_t Deliver(std::span<const uint8_t> pending, bool endOfInput) {
    const bool ublox =
        options.moduleType == GPS_MODULE_TYPE_UBX_G7020 || options.moduleType == GPS_MODULE_TYPE_UBX_M8030;
    size_t used = 0;
    while (used < pending.size()) {
      const auto rest = pending.subspan(used);
      size_t n = ublox ? platform::WholeMessagesPrefix(rest) : std::min(rest.size(), platform::kMaxDeviceChunk);
      if (n == 0 || (!ublox && n < platform::kMaxDeviceChunk && !endOfInput)) {
        if (!endOfInput) break;
        n = std::min(rest.size(), platform::kMaxDeviceChunk);  // the stream ends inside a message
      }
      if (ublox) {
        FeedChecked(rest.first(n));
      } else {
        Feed(rest.first(n));
      }
      used += n;
    }
    return used;
  }

  // Skips the leading lines that start with '#' (a capture's header); returns
  // how many bytes of `bytes` belong to it.
  size_t SkipHeader(std::span<const uint8_t> bytes) {
    size_t at = 0;
    while (inHeader && at < bytes.size()) {
      if (!skippingLine) {
        if (bytes[at] != '#') {
          inHeader = false;
          break;
        }
        skippingLine = true;
      }
      const void* lf = std::memchr(bytes.data() + at, '\n', bytes.size() - at);
      if (!lf) return bytes.size();
      at = static_cast<size_t>(static_cast<const uint8_t*>(lf) - bytes.data()) + 1;
      skippingLine = false;
    }
    return at;
  }

  int ReplayFile(const std::string& name, std::FILE* errors) {
    const bool isStdin = name == "-";
    const int fd = isStdin ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      std::fprintf(errors, "gps-replay: cannot open %s: %s\n", name.c_str(), std::strerror(errno));
      return 2;
    }
    // What Deliver leaves is at most one incomplete message, shorter than a chunk.
    std::vector<uint8_t> buffer(kReadBytes + platform::kMaxDeviceChunk);
    size_t pending = 0;
    inHeader = true;
    skippingLine = false;
    int result = 0;
    for (;;) {
      const ssize_t got = ::read(fd, buffer.data() + pending, kReadBytes);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        std::fprintf(errors, "gps-replay: cannot read %s: %s\n", name.c_str(), std::strerror(errno));
        result = 2;
        break;
      }
      if (got == 0) break;
      size_t begin = pending;
      begin += SkipHeader({buffer.data() + begin, static_cast<size_t>(got)});
      if (begin > pending) {
        std::memmove(buffer.data() + pending, buffer.data() + begin, pending + static_cast<size_t>(got) - begin);
      }
      const size_t filled = pending + static_cast<size_t>(got) - (begin - pending);
      const size_t used = Deliver({buffer.data(), filled}, false);
      pending = filled - used;
      std::memmove(buffer.data(), buffer.data() + used, pending);
    }
    if (result == 0) Deliver({buffer.data(), pending}, true);
    if (!isStdin) ::close(fd);
    return result;
  }

  void WriteSummary() {
    const gps_private_info_t& infos = gps_private_info;
    json.String("event", "summary", 7);
    json.Number("bytes", totals.bytes);
    json.Number("nmea", totals.nmea);
    json.Number("ubx", totals.ubx);
    json.Number("dropped_nmea", dropped.nmea);
    json.Number("dropped_ubx", dropped.ubx);
    json.Number("sat_view_count", infos.sat_view_count);
    json.Key("satellites");
    json.Raw("[");
    bool first = true;
    auto add = [&](const gps_satellite_t& sat) {
      if (sat.tick == 0) return;
      char item[128];
      std::snprintf(item, sizeof item, "%s{\"prn\":%u,\"elevation\":%u,\"azimuth\":%u,\"snr\":%u}", first ? "" : ",",
                    sat.prn, sat.elevation, sat.azimuth, sat.snr);
      json.Raw(item);
      first = false;
    };
    for (const auto& sat : infos.sat_prn_1_32) add(sat);
    for (const auto& sat : infos.sat_prn_33_64) add(sat);
    json.Raw("]");
    json.String("sw_version", infos.sw_version, sizeof infos.sw_version);
    json.String("hw_version", infos.hw_version, sizeof infos.hw_version);
    json.Key("ext_version");
    json.Raw("[");
    for (size_t k = 0; k < 4 && infos.ext_version[k][0] != '\0'; ++k) {
      if (k > 0) json.Raw(",");
      std::string text;
      JsonLine::Quote(text, infos.ext_version[k], sizeof infos.ext_version[k]);
      json.Raw(text.c_str());
    }
    json.Raw("]");
    if (infos.mon_hw_tick != 0) {
      json.Key("mon_hw");
      char hw[128];
      std::snprintf(hw, sizeof hw, "{\"noisePerMS\":%u,\"agcCnt\":%u,\"jamInd\":%u}", infos.noise_per_ms,
                    infos.agc_count, infos.jamming_indicator);
      json.Raw(hw);
    }
    json.Key("ubx_messages");
    json.Raw("{");
    bool firstCount = true;
    for (const auto& [key, count] : ubxCounts) {
      char item[48];
      std::snprintf(item, sizeof item, "%s\"0x%02X 0x%02X\":%llu", firstCount ? "" : ",", key >> 8, key & 0xFF,
                    static_cast<unsigned long long>(count));
      json.Raw(item);
      firstCount = false;
    }
    json.Raw("}");
    json.Write(out);
  }

  gps_message_t frame;
  std::array<uint8_t, platform::kMaxDeviceChunk> checked{};
  platform::DroppedMessages dropped;
  std::map<uint32_t, uint64_t> ubxCounts;  // (class << 8 | id) -> frames
  bool inHeader = true;      // still in the leading '#' lines of a file
  bool skippingLine = false; // inside one of them
};

}  // namespace

bool NmeaCoordinateToDegrees(const char* text, double& degrees) {
  if (!text || !*text) return false;
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || !std::isfinite(value) || value < 0) return false;
  double sign = 1;
  switch (*end) {
    case 'N': case 'E': break;
    case 'S': case 'W': sign = -1; break;
    default: return false;
  }
  if (end[1] != '\0') return false;
  const double whole = std::floor(value / 100.0);
  degrees = sign * (whole + (value - whole * 100.0) / 60.0);
  return true;
}

int Run(const Options& options, std::FILE* out, std::FILE* errors, Totals* totals) {
  Replay replay(options, out);
  gps_message_init(&replay.frame);

  lib_GPS_ClearRecord(&gps_private_info);

  gps_private_info.module_type = options.moduleType;
  g_virtualTick = GPS_LAST_DATA_STORE_PERIOD_TICKS;
  platform::SetTickSource(VirtualTicks);
  // A recording may be older than this build: every date since the first GPS
  // week stands as the receiver sent it.
  lib_GPS_SetEarliestReceiverDay(platform::DaysFromCivil(1980, 1, 6));
  lib_GPS_param_RestorePersistentStorage();
  lib_GPS_ResetInfosLocked(&gps_private_info);
  lib_GPS_TraceInit(1);
  lib_GPS_SetMessageObserver(&Replay::Observe, &replay);

  int result = 0;
  for (const auto& file : options.files) {
    if (replay.ReplayFile(file, errors) != 0) {
      result = 2;
      break;
    }
  }
  lib_GPS_SetMessageObserver(nullptr, nullptr);
  platform::SetTickSource(nullptr);
  if (result == 0 && (options.summary || options.quiet)) replay.WriteSummary();
  std::fflush(out);
  if (totals) *totals = replay.totals;
  return result;
}

}  // namespace gps::replay
