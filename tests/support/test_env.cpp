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

namespace {

std::string MakeTemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "gps-test.XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

// The root of the whole test binary, so that nothing a test writes without a
// root of its own lands in a deleted one (or in the system's default root).
struct ProcessRoot {
  ProcessRoot() : path(MakeTemporaryDirectory()) {
    setenv("GPS_PLATFORM_ROOT", path.c_str(), 1);
    platform::ReloadRoot();
  }
  ~ProcessRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string path;
};
const ProcessRoot g_processRoot;

}  // namespace

TempRoot::TempRoot() : path_(MakeTemporaryDirectory()) {
  const char* current = std::getenv("GPS_PLATFORM_ROOT");
  previous_ = current ? current : g_processRoot.path;
  setenv("GPS_PLATFORM_ROOT", path_.c_str(), 1);
  platform::ReloadRoot();
}

TempRoot::~TempRoot() {
  setenv("GPS_PLATFORM_ROOT", previous_.c_str(), 1);
  platform::ReloadRoot();
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

namespace {
gps_message_t g_receiverFrame;
}  // namespace

void ResetEngine(uint32_t moduleType) {
  gps_message_init(&g_receiverFrame);
  lib_GPS_ClearRecord(&gps_private_info);
  gps_private_info.module_type = moduleType;
  std::memset(&gps_parameters, 0, sizeof gps_parameters);
}

void FeedReceiver(std::string_view bytes) {
  analyze_gps(&gps_private_info, &g_receiverFrame, reinterpret_cast<const uint8_t*>(bytes.data()),
              static_cast<uint32_t>(bytes.size()));
}

}  // namespace gps::test

#include "tests/support/message_recorder.h"

namespace gps::test {

std::string UbxFrame(uint8_t cls, uint8_t id, const std::string& payload) {
  std::string frame = {'\xB5', '\x62', static_cast<char>(cls), static_cast<char>(id),
                       static_cast<char>(payload.size() & 0xFF), static_cast<char>(payload.size() >> 8)};
  frame += payload;
  uint8_t a = 0, b = 0;
  for (size_t i = 2; i < frame.size(); ++i) {
    a = static_cast<uint8_t>(a + static_cast<uint8_t>(frame[i]));
    b = static_cast<uint8_t>(b + a);
  }
  frame += static_cast<char>(a);
  frame += static_cast<char>(b);
  return frame;
}

}  // namespace gps::test
