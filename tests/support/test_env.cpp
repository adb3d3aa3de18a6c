#include "tests/support/test_env.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "platform/root.h"
#include "platform/settings.h"

namespace gps::test {

TempRoot::TempRoot() {
  std::string pattern = (std::filesystem::temp_directory_path() / "gps-test.XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
  setenv("GPS_PLATFORM_ROOT", path_.c_str(), 1);
  platform::ReloadRoot();
}

TempRoot::~TempRoot() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

LogCapture::LogCapture() {
  platform::SetLogThreshold(7);
  platform::SetLogSink(&LogCapture::Sink, this);
}

LogCapture::~LogCapture() {
  platform::SetLogSink(nullptr, nullptr);
  platform::SetLogThreshold(6);
}

void LogCapture::Sink(void* context, int level, const char* text) {
  auto* self = static_cast<LogCapture*>(context);
  std::lock_guard lock(self->mutex_);
  self->lines_.emplace_back(level, text);
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [level, text] : lines_) out.push_back(text);
  return out;
}

std::vector<std::string> LogCapture::linesAt(int wanted) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [level, text] : lines_)
    if (level == wanted) out.push_back(text);
  return out;
}

int LogCapture::count(std::string_view line) const {
  std::lock_guard lock(mutex_);
  int n = 0;
  for (const auto& [level, text] : lines_) n += text == line;
  return n;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

ManualTicks::ManualTicks(uint32_t start) {
  now_.store(start);
  platform::SetTickSource(&ManualTicks::Read);
}

ManualTicks::~ManualTicks() { platform::SetTickSource(nullptr); }

void ResetEngine(uint32_t moduleType) {
  std::memset(&gps_private_info, 0, sizeof gps_private_info);
  std::memset(&gps_parameters, 0, sizeof gps_parameters);
  gps_private_info.module_type = moduleType;
  gps_private_info.com_gps = GPS_INVALID_HANDLE;
  gps_private_info.com_transp_handle = -1;
  gps_private_info.fix_update_period_ms = 1000;
  lib_GPS_ResetInfos(&gps_private_info);
}

void FeedReceiver(std::string_view bytes) {
  static gps_message_t frame;
  static bool initialised = false;
  if (!initialised) {
    gps_message_init(&frame);
    initialised = true;
  }
  analyze_gps(&gps_private_info, &frame, reinterpret_cast<const uint8_t*>(bytes.data()),
              static_cast<uint32_t>(bytes.size()));
}

}  // namespace gps::test
