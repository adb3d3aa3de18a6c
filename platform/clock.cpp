#include "platform/clock.h"
#include "platform/os.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace gps::platform {
namespace {
std::atomic<TickSource> g_tickSource{nullptr};
std::atomic<WallClock> g_wallClock{nullptr};
}  // namespace

uint32_t MonotonicTicks() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t ticks = static_cast<uint64_t>(ts.tv_sec) * 100u + static_cast<uint64_t>(ts.tv_nsec) / 10'000'000u;
  return static_cast<uint32_t>(ticks);
}

void SetTickSource(TickSource source) { g_tickSource.store(source, std::memory_order_release); }
void SetWallClock(WallClock clock) { g_wallClock.store(clock, std::memory_order_release); }

std::time_t WallClockNow() {
  if (const WallClock clock = g_wallClock.load(std::memory_order_acquire)) return clock();
  return std::time(nullptr);
}

std::time_t BuildTime() {
  // "Nov 23 2026": the compiler's date, which reproducible builds pin to the
  // source's date.
  static const std::time_t built = [] {
    constexpr const char* kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const char* date = __DATE__;
    unsigned month = 1;
    while (month < 12 && std::strncmp(kMonths + 3 * (month - 1), date, 3) != 0) ++month;
    const unsigned day = static_cast<unsigned>(std::atoi(date + 4));
    const int64_t year = std::atoi(date + 7);
    return static_cast<std::time_t>(DaysFromCivil(year, month, day) * 86400);
  }();
  return built;
}

}  // namespace gps::platform

uint32_t OS_rtc_GetTickCounter(void) {
  using namespace gps::platform;
  if (const TickSource source = g_tickSource.load(std::memory_order_acquire)) return source();
  return MonotonicTicks();
}
