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

// Repeats are folded so that a client flooding the service with requests
// cannot flood the log. A line that repeats the one before it, or a cycle of
// up to four lines that repeats (each request writes the same two or three
// lines), is held back for up to a second after it first repeats; then the
// count goes out at the most urgent level of the held lines, before the next
// line written: "last message repeated N times" for one line, "last K
// messages repeated N times" for a cycle of K. Held lines that do not make a
// whole cycle are written as they were.
constexpr int64_t kRepeatWindowNs = 1'000'000'000;
constexpr int kLongestCycle = 4;

struct LoggedLine {
  int level = -1;
  char text[1024] = {};
  int64_t atNs = 0;
};

struct Folding {
  std::mutex mutex;
  LoggedLine recent[kLongestCycle];  // the last lines logged, newest first
  int period = 0;                    // length of the cycle being held back; 0: none
  unsigned held = 0;                 // lines held back since `sinceNs`
  int64_t sinceNs = 0;
};
Folding g_folding;

int64_t MonotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void Remember(int level, const char* text, int64_t now) {
  std::rotate(std::begin(g_folding.recent), std::end(g_folding.recent) - 1, std::end(g_folding.recent));
  LoggedLine& line = g_folding.recent[0];
  line.level = level;
  std::snprintf(line.text, sizeof line.text, "%s", text);
  line.atNs = now;
}

void WriteHeldBack(int target) {
  const int period = g_folding.period;
  const unsigned cycles = g_folding.held / period;
  const unsigned rest = g_folding.held % period;
  if (cycles > 0) {
    int level = g_folding.recent[0].level;
    for (int i = 1; i < period; ++i) level = std::min(level, g_folding.recent[i].level);
    char notice[64];
    if (period == 1)
      std::snprintf(notice, sizeof notice, "last message repeated %u times", cycles);
    else
      std::snprintf(notice, sizeof notice, "last %d messages repeated %u times", period, cycles);
    WriteTarget(target, level, notice);
  }
  for (unsigned i = rest; i > 0; --i) WriteTarget(target, g_folding.recent[i - 1].level, g_folding.recent[i - 1].text);
  g_folding.period = 0;
  g_folding.held = 0;
}

void WriteFolded(int target, int level, const char* text) {
  std::lock_guard lock(g_folding.mutex);
  const int64_t now = MonotonicNs();
  const auto repeats = [&](const LoggedLine& line) {
    return line.level == level && std::strcmp(line.text, text) == 0;
  };
  if (g_folding.period > 0) {
    if (repeats(g_folding.recent[g_folding.period - 1]) && now - g_folding.sinceNs < kRepeatWindowNs) {
      ++g_folding.held;
      return Remember(level, text, now);
    }
    WriteHeldBack(target);
  } else {
    for (int k = 1; k <= kLongestCycle; ++k) {
      if (repeats(g_folding.recent[k - 1]) && now - g_folding.recent[k - 1].atNs < kRepeatWindowNs) {
        g_folding.period = k;
        g_folding.held = 1;
        g_folding.sinceNs = now;
        return Remember(level, text, now);
      }
    }
  }
  WriteTarget(target, level, text);
  Remember(level, text, now);
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
