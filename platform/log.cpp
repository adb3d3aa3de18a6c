#include "platform/os.h"
#include "platform/log_state.h"
#include "platform/settings.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <syslog.h>
#include <unistd.h>


namespace {

std::once_flag g_syslogOpened;

void WriteStderr(int level, const char* text) {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  // The date and time change once a second; lines in between reuse them.
  thread_local time_t cachedSecond = -1;
  thread_local char cachedStamp[64];
  if (ts.tv_sec != cachedSecond) {
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    std::snprintf(cachedStamp, sizeof cachedStamp, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    cachedSecond = ts.tv_sec;
  }
  char line[1200];
  int n = std::snprintf(line, sizeof line - 1, "%s.%03ld <%d> %s", cachedStamp, ts.tv_nsec / 1'000'000, level, text);
  if (n > static_cast<int>(sizeof line) - 2) n = sizeof line - 2;
  line[n++] = '\n';
  // One stdio call per line keeps lines of the two threads whole; with the
  // default unbuffered stderr that is one write(2), and a program that makes
  // stderr buffered (a batch tool) gets its lines in few writes.
  std::fwrite(line, 1, static_cast<size_t>(n), stderr);
}

}  // namespace

bool Sys_log_IsEnabledSlow(int level) {
  using namespace gps::platform;
  int threshold = detail::logThreshold.load(std::memory_order_relaxed);
  if (threshold == detail::kUnsetThreshold) {
    CurrentSettings();  // loads platform.ini and publishes its threshold
    threshold = detail::logThreshold.load(std::memory_order_relaxed);
  }
  return level <= threshold;
}

void Sys_log(int level, const char* format, ...) {
  if (!Sys_log_IsEnabled(level)) return;
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (const auto* binding = gps::platform::detail::logSink.load(std::memory_order_acquire)) {
    binding->sink(binding->context, level, text);
    return;
  }
  if (gps::platform::detail::logTarget.load(std::memory_order_relaxed) == static_cast<int>(gps::platform::LogTarget::Stderr)) {
    WriteStderr(level, text);
    return;
  }
  std::call_once(g_syslogOpened, [] { openlog("gps-service", LOG_PID | LOG_NDELAY, LOG_DAEMON); });
  syslog(level, "%s", text);
}
