#include "platform/settings.h"
#include "platform/fs.h"
#include "platform/log_state.h"
#include "platform/root.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

extern "C" {
#include <iniparser.h>
}

namespace gps::platform {

using detail::kUnsetThreshold;
using detail::logTarget;
using detail::logThreshold;

namespace {

// Every key platform.ini may hold. Anything else is warned about, so a typo
// ("devise") is seen instead of silently leaving the default in place.
struct KnownKey {
  std::string_view section;
  std::string_view key;
};
constexpr KnownKey kKnownKeys[] = {
    {"platform", "startup_mode"},
    {"platform", "module_type"},
    {"gps", "device"},
    {"gps", "baud"},
    {"gps", "port"},
    {"gps", "power_off"},
    {"sim", "scenario"},
    {"sim", "ttff_ms"},
    {"sim", "ant_off_polarity"},
    {"sim", "alp_file"},
    {"log", "threshold"},
    {"log", "target"},
    {"service", "max_connections_per_user"},
    {"gpsd", "listen"},
    {"gpsd", "socket"},
    {"chrony", "socket"},
};

// iniparser's own limit: a longer line is a syntax error to it.
constexpr size_t kMaxLineBytes = 1023;

std::mutex g_settingsMutex;
Settings g_settings;
bool g_loaded = false;
bool g_thresholdOverridden = false;
bool g_targetOverridden = false;

std::string_view Trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return text;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

bool KnownSection(std::string_view section) {
  for (const KnownKey& known : kKnownKeys)
    if (known.section == section) return true;
  return false;
}

// "platform, gps, sim, ..." or, for one section, "device, baud, ...".
std::string KnownNames(std::string_view section) {
  std::string names;
  std::string_view last;
  for (const KnownKey& known : kKnownKeys) {
    if (!section.empty() && known.section != section) continue;
    const std::string_view name = section.empty() ? known.section : known.key;
    if (name == last) continue;  // the table lists a section's keys together
    names += (names.empty() ? "" : ", ") + std::string(name);
    last = name;
  }
  return names;
}

// Goes through the file line by line with the rules iniparser applies: a
// comment (# or ;), a [section], key = value, a line continued by a final
// backslash. Unknown sections and keys are warned about with their line; the
// first line of any other form makes the file unusable.
std::string CheckLines(const std::string& file, const std::string& text) {
  std::string section;
  int number = 0;
  std::string line;
  int firstLine = 0;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string_view piece(text.data() + at, end - at);
    at = end + 1;
    ++number;
    if (line.empty()) firstLine = number;
    if (piece.size() > kMaxLineBytes)
      return file + ":" + std::to_string(number) + ": the line is longer than " + std::to_string(kMaxLineBytes) +
             " characters";
    piece = Trim(piece);
    if (!piece.empty() && piece.back() == '\\') {
      line += piece.substr(0, piece.size() - 1);
      continue;
    }
    line += piece;
    const std::string_view whole = Trim(line);
    const std::string where = file + ":" + std::to_string(firstLine);
    if (whole.empty() || whole.front() == '#' || whole.front() == ';') {
      // blank or comment
    } else if (whole.front() == '[' && whole.back() == ']') {
      section = Lower(Trim(whole.substr(1, whole.size() - 2)));
      if (!KnownSection(section))
        ProcessLine(4, "gps-service: %s: unknown section [%s] is ignored; known sections: %s", where.c_str(),
             section.c_str(), KnownNames({}).c_str());
    } else if (const size_t equals = whole.find('='); equals != std::string_view::npos &&
                                                     !Trim(whole.substr(0, equals)).empty()) {
      const std::string key = Lower(Trim(whole.substr(0, equals)));
      bool known = false;
      for (const KnownKey& k : kKnownKeys) known = known || (k.section == section && k.key == key);
      if (section.empty()) {
        ProcessLine(4, "gps-service: %s: key \"%s\" outside any section is ignored; known sections: %s", where.c_str(),
             key.c_str(), KnownNames({}).c_str());
      } else if (KnownSection(section) && !known) {
        ProcessLine(4, "gps-service: %s: unknown key \"%s\" in [%s] is ignored; known keys there: %s", where.c_str(),
             key.c_str(), section.c_str(), KnownNames(section).c_str());
      }
    } else {
      return where + ": cannot parse \"" + std::string(whole.substr(0, 80)) +
             "\"; a line is [section], key = value or a comment (# or ;)";
    }
    line.clear();
  }
  if (!line.empty()) return file + ":" + std::to_string(firstLine) + ": the last line ends in a continuation (\\)";
  return {};
}

int ReadInt(dictionary* ini, const char* key, int fallback, int lo, int hi, const std::string& file) {
  const char* text = iniparser_getstring(ini, key, nullptr);
  if (!text) return fallback;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 0);
  if (end == text || *end != '\0' || errno != 0 || value < lo || value > hi) {
    ProcessLine(4, "gps-service: %s: [%s] = \"%s\" is not a number from %d to %d; using %d", file.c_str(), key, text, lo, hi,
         fallback);
    return fallback;
  }
  return static_cast<int>(value);
}

// iniparser reports syntax errors on stderr in its own words; the line check
// before it has already named the file and line.
int QuietIniparser(const char*, ...) { return 0; }

Settings Load() {
  Settings s;
  const std::string file = Root() + "/platform.ini";
  std::string text;
  std::string refused;
  switch (ReadWholeFile(file, kMaxTextFileBytes, text, nullptr, &refused)) {
    case ReadStatus::Ok: break;
    case ReadStatus::Missing: return s;
    case ReadStatus::TooLarge:
    case ReadStatus::Failed: s.unusable = std::move(refused); return s;
  }
  if (std::string problem = CheckLines(file, text); !problem.empty()) {
    s.unusable = std::move(problem);
    return s;
  }
  iniparser_set_error_callback(QuietIniparser);
  const IniDictionary parsed = ParseIni(text);
  dictionary* ini = parsed.get();
  if (!ini) {
    s.unusable = file + " cannot be read: " + std::strerror(errno);
    return s;
  }
  s.startupMode = ReadInt(ini, "platform:startup_mode", s.startupMode, 0, 255, file);
  s.moduleType = ReadInt(ini, "platform:module_type", s.moduleType, 0, 255, file);
  s.device = iniparser_getstring(ini, "gps:device", s.device.c_str());
  if (std::string(iniparser_getstring(ini, "gps:baud", "auto")) != "auto")
    s.baud = ReadInt(ini, "gps:baud", s.baud, 1200, 4000000, file);
  s.port = iniparser_getstring(ini, "gps:port", "");
  s.powerOff = iniparser_getstring(ini, "gps:power_off", "");
  s.logThreshold = ReadInt(ini, "log:threshold", s.logThreshold, 0, 7, file);
  const std::string target = iniparser_getstring(ini, "log:target", "syslog");
  if (target == "stderr") {
    s.logTarget = LogTarget::Stderr;
  } else if (target == "journal") {
    s.logTarget = LogTarget::Journal;
  } else if (target != "syslog") {
    ProcessLine(4, "gps-service: %s: [log] target = \"%s\" is not syslog, stderr or journal; using syslog", file.c_str(),
         target.c_str());
  }
  s.simScenario = iniparser_getstring(ini, "sim:scenario", "");
  s.gpsdListen = iniparser_getstring(ini, "gpsd:listen", "");
  s.gpsdSocket = iniparser_getstring(ini, "gpsd:socket", "");
  s.chronySocket = iniparser_getstring(ini, "chrony:socket", "");
  s.maxConnectionsPerUser = ReadInt(ini, "service:max_connections_per_user", s.maxConnectionsPerUser, 1, 65536, file);
  return s;
}

void PublishLogSettings(const Settings& settings) {
  if (!g_thresholdOverridden) logThreshold.store(settings.logThreshold, std::memory_order_relaxed);
  if (!g_targetOverridden) logTarget.store(static_cast<int>(settings.logTarget), std::memory_order_relaxed);
}

}  // namespace

const Settings& CurrentSettings() {
  std::lock_guard lock(g_settingsMutex);
  if (!g_loaded) {
    g_settings = Load();
    g_loaded = true;
    PublishLogSettings(g_settings);
  }
  return g_settings;
}

Settings ReadSettings() { return Load(); }

void ApplyLogSettings(const Settings& settings) {
  std::lock_guard lock(g_settingsMutex);
  PublishLogSettings(settings);
}

void ReloadSettings() {
  std::lock_guard lock(g_settingsMutex);
  g_loaded = false;
  if (!g_thresholdOverridden) logThreshold.store(kUnsetThreshold, std::memory_order_relaxed);
}

void SetLogThreshold(int level) {
  std::lock_guard lock(g_settingsMutex);
  g_thresholdOverridden = true;
  logThreshold.store(level, std::memory_order_relaxed);
}

void SetLogTarget(LogTarget target) {
  std::lock_guard lock(g_settingsMutex);
  g_targetOverridden = true;
  logTarget.store(static_cast<int>(target), std::memory_order_relaxed);
}

void SetLogSink(LogSink sink, void* context) {
  // Bindings are few (a test sets and clears one at a time) and are kept for
  // the life of the process so a line being written never sees a freed one.
  static std::mutex bindingsMutex;
  static std::vector<std::unique_ptr<detail::SinkBinding>> bindings;
  if (!sink) {
    detail::logSink.store(nullptr, std::memory_order_release);
    return;
  }
  std::lock_guard lock(bindingsMutex);
  bindings.push_back(std::make_unique<detail::SinkBinding>(detail::SinkBinding{sink, context}));
  detail::logSink.store(bindings.back().get(), std::memory_order_release);
}

}  // namespace gps::platform
