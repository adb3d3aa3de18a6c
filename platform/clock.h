// Replaceable time sources. Production code always reads time through these;
// tests install their own source instead of sleeping.
#pragma once

#include <cstdint>
#include <ctime>

namespace gps::platform {

using TickSource = uint32_t (*)();
using WallClock = std::time_t (*)();

// nullptr restores the monotonic clock.
void SetTickSource(TickSource source);
// nullptr restores time(2).
void SetWallClock(WallClock clock);
std::time_t WallClockNow();

// The monotonic clock in 10 ms ticks, ignoring any installed source.
uint32_t MonotonicTicks();

}  // namespace gps::platform
