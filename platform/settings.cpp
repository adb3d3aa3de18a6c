#include "platform/settings.h"
#include "platform/log_state.h"
#include "platform/root.h"

#include <atomic>
#include <cstdio>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>
#include <unistd.h>

extern "C" {
#include <iniparser.h>
}

namespace gps::platform {

using detail::kUnsetThreshold;
using detail::logTarget;
using detail::logThreshold;

namespace {

std::mutex g_settingsMutex;
Settings g_settings;
bool g_loaded = false;
bool g_thresholdOverridden = false;
bool g_targetOverridden = false;

int ReadInt(dictionary* ini, const char* key, int fallback, int lo, int hi, const std::string& file) {
  const char* text = iniparser_getstring(ini, key, nullptr);
  if (!text) return fallback;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 0);
  if (end == text || *end != '\0' || errno != 0 || value < lo || value > hi) {
    std::fprintf(stderr, "gps-service: %s: [%s] = \"%s\" is not a number from %d to %d; using %d\n",
                 file.c_str(), key, text, lo, hi, fallback);
    return fallback;
  }
  return static_cast<int>(value);
}

Settings Load() {
  Settings s;
  const std::string file = Root() + "/platform.ini";
  if (access(file.c_str(), F_OK) != 0) return s;
  dictionary* ini = iniparser_load(file.c_str());
  if (!ini) {
    std::fprintf(stderr, "gps-service: %s cannot be read; using the default platform settings\n", file.c_str());
    return s;
  }
  s.startupMode = ReadInt(ini, "platform:startup_mode", s.startupMode, 0, 255, file);
  s.moduleType = ReadInt(ini, "platform:module_type", s.moduleType, 0, 255, file);
  s.device = iniparser_getstring(ini, "gps:device", s.device.c_str());
  s.baud = ReadInt(ini, "gps:baud", s.baud, 1200, 4000000, file);
  s.logThreshold = ReadInt(ini, "log:threshold", s.logThreshold, 0, 7, file);
  const std::string target = iniparser_getstring(ini, "log:target", "syslog");
  if (target == "stderr") {
    s.logTarget = LogTarget::Stderr;
  } else if (target != "syslog") {
    std::fprintf(stderr, "gps-service: %s: [log] target = \"%s\" is neither syslog nor stderr; using syslog\n",
                 file.c_str(), target.c_str());
  }
  s.simScenario = iniparser_getstring(ini, "sim:scenario", "");
  s.maxConnectionsPerUser = ReadInt(ini, "service:max_connections_per_user", s.maxConnectionsPerUser, 1, 65536, file);
  iniparser_freedict(ini);
  return s;
}

}  // namespace

const Settings& CurrentSettings() {
  std::lock_guard lock(g_settingsMutex);
  if (!g_loaded) {
    g_settings = Load();
    g_loaded = true;
    if (!g_thresholdOverridden) logThreshold.store(g_settings.logThreshold, std::memory_order_relaxed);
    if (!g_targetOverridden) logTarget.store(static_cast<int>(g_settings.logTarget), std::memory_order_relaxed);
  }
  return g_settings;
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
