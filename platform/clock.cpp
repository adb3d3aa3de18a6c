#include "platform/clock.h"
#include "platform/os.h"

#include <atomic>
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

}  // namespace gps::platform

uint32_t OS_rtc_GetTickCounter(void) {
  using namespace gps::platform;
  if (const TickSource source = g_tickSource.load(std::memory_order_acquire)) return source();
  return MonotonicTicks();
}
