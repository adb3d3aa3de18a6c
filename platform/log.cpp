#include "platform/os.h"
#include "platform/log_state.h"
#include "platform/settings.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <cstdlib>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

std::once_flag g_syslogOpened;

constexpr size_t kLineBytes = 1200;

// `n` is what snprintf answered for `line`: a longer text was cut.
void WriteLine(char (&line)[kLineBytes], int n) {
  size_t length = n < 0 ? 0 : std::min(static_cast<size_t>(n), kLineBytes - 2);
  line[length++] = '\n';
  // One stdio call per line keeps lines of the two threads whole; with the
  // default unbuffered stderr that is one write(2), and a program that makes
  // stderr buffered (a batch tool) gets its lines in few writes.
  std::fwrite(line, 1, length, stderr);
}

// The journal stamps each line itself and reads its priority from "<N>".
void WriteJournal(int level, const char* text) {
  char line[kLineBytes];
  WriteLine(line, std::snprintf(line, sizeof line - 1, "<%d>%s", level, text));
}

void WriteStderr(int level, const char* text) {
  if (gps::platform::detail::StderrIsJournal()) return WriteJournal(level, text);
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
  char line[kLineBytes];
  WriteLine(line, std::snprintf(line, sizeof line - 1, "%s.%03ld <%d> %s", cachedStamp, ts.tv_nsec / 1'000'000,
                                level, text));
}

}  // namespace

namespace gps::platform::detail {

bool StderrIsJournal() {
  // Decided once: the variable and the descriptor belong to the process's start.
  static const bool journal = [] {
    const char* stream = std::getenv("JOURNAL_STREAM");
    uintmax_t device = 0;
    uintmax_t inode = 0;
    struct stat st{};
    return stream && std::sscanf(stream, "%ju:%ju", &device, &inode) == 2 && ::fstat(STDERR_FILENO, &st) == 0 &&
           st.st_dev == device && st.st_ino == inode;
  }();
  return journal;
}

}  // namespace gps::platform::detail

void gps::platform::ProcessLine(int level, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (detail::StderrIsJournal()) return WriteJournal(level, text);
  char line[kLineBytes];
  WriteLine(line, std::snprintf(line, sizeof line - 1, "%s", text));
}

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
  const int target = gps::platform::detail::logTarget.load(std::memory_order_relaxed);
  if (target == static_cast<int>(gps::platform::LogTarget::Stderr)) return WriteStderr(level, text);
  if (target == static_cast<int>(gps::platform::LogTarget::Journal)) return WriteJournal(level, text);
  std::call_once(g_syslogOpened, [] { openlog("gps-service", LOG_PID | LOG_NDELAY, LOG_DAEMON); });
  syslog(level, "%s", text);
}
