#include "platform/os.h"
#include "platform/log_state.h"
#include "platform/settings.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <cstdlib>
#include <cstring>
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

void WriteTarget(int target, int level, const char* text) {
  if (target == static_cast<int>(gps::platform::LogTarget::Stderr)) return WriteStderr(level, text);
  if (target == static_cast<int>(gps::platform::LogTarget::Journal)) return WriteJournal(level, text);
  std::call_once(g_syslogOpened, [] { openlog("gps-service", LOG_PID | LOG_NDELAY, LOG_DAEMON); });
  syslog(level, "%s", text);
}

// A line identical to the one before it (text and level) is written at most
// once a second; the others are counted, and the count goes out at their
// level just before the next line written, so a client that floods the
// service with requests cannot flood the log with the same line.
constexpr int64_t kRepeatWindowNs = 1'000'000'000;

struct RepeatedLine {
  std::mutex mutex;
  int level = -1;
  char text[1024] = {};
  int64_t writtenNs = 0;
  unsigned count = 0;
};
RepeatedLine g_repeated;

int64_t MonotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void WriteFolded(int target, int level, const char* text) {
  std::lock_guard lock(g_repeated.mutex);
  const int64_t now = MonotonicNs();
  const bool same = level == g_repeated.level && std::strcmp(text, g_repeated.text) == 0;
  if (same && now - g_repeated.writtenNs < kRepeatWindowNs) {
    ++g_repeated.count;
    return;
  }
  if (g_repeated.count > 0) {
    char notice[64];
    std::snprintf(notice, sizeof notice, "last message repeated %u times", g_repeated.count);
    WriteTarget(target, g_repeated.level, notice);
    g_repeated.count = 0;
  }
  if (!same) {
    g_repeated.level = level;
    std::snprintf(g_repeated.text, sizeof g_repeated.text, "%s", text);
  }
  g_repeated.writtenNs = now;
  WriteTarget(target, level, text);
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
  WriteFolded(gps::platform::detail::logTarget.load(std::memory_order_relaxed), level, text);
}
