// Operating-system services the engine and the service call by their platform
// names: the 10 ms tick counter and the system log.
#pragma once

#include <cstdint>

#include "platform/log_state.h"

// Ticks of 10 ms since an arbitrary origin; wraps at 32 bits.
uint32_t OS_rtc_GetTickCounter(void);

// Syslog-style levels: 3 error, 4 warning/notable event, 6 info, 7 debug.
// A line whose level is above the configured threshold is dropped before any
// formatting happens.
void Sys_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// True when a line of this level would be written. Callers with expensive
// output (hex dumps, record dumps) test this first. Inline: it guards every
// trace line of the stream path.
bool Sys_log_IsEnabledSlow(int level);
inline bool Sys_log_IsEnabled(int level) {
  const int threshold = gps::platform::detail::logThreshold.load(std::memory_order_relaxed);
  if (threshold == gps::platform::detail::kUnsetThreshold) return Sys_log_IsEnabledSlow(level);
  return level <= threshold;
}
