// The fuzz targets' platform: a throwaway root removed at exit, and every log
// line formatted in full (threshold 7) and then dropped.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/root.h"
#include "platform/settings.h"

namespace gps::fuzz {

inline std::string& ThrowawayRootPath() {
  static std::string path;
  return path;
}

inline void UseThrowawayRoot(const char* name) {
  std::string pattern = (std::filesystem::temp_directory_path() / (std::string(name) + ".XXXXXX")).string();
  if (!mkdtemp(pattern.data())) std::abort();
  ThrowawayRootPath() = pattern;
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(ThrowawayRootPath(), ignored);
  });
  setenv("GPS_PLATFORM_ROOT", pattern.c_str(), 1);
  gps::platform::ReloadRoot();
  gps::platform::SetLogThreshold(7);
  gps::platform::SetLogSink([](void*, int, const char*) {}, nullptr);
}

}  // namespace gps::fuzz
