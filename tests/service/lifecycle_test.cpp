// The watchdog's keep-alives follow the engine thread's progress.
#include <gtest/gtest.h>

#include <cstdlib>

#include "service/lifecycle.h"

namespace gps::service {
namespace {

struct Turn {
  uint64_t nowMs;
  uint32_t passes;
  bool due;
};

TEST(Watchdog, KeepAlivesEveryIntervalOnlyWhileTheEngineMoves) {
  // Every 500 ms; an engine without a pass for 3 s is hung.
  Watchdog watchdog(500, 0);
  const Turn turns[] = {
      {0, 7, true},      // at start, within the first grace period
      {200, 8, false},   // before the interval
      {500, 9, true},
      {1000, 9, true},   // the pass at 500 is recent enough
      {3400, 9, true},
      {3900, 9, false},  // no pass since 500: hung, no keep-alive
      {4200, 9, false},
      {4300, 10, true},  // moving again
      {4500, 11, false},
  };
  for (const Turn& turn : turns) EXPECT_EQ(watchdog.due(turn.nowMs, turn.passes), turn.due) << turn.nowMs;

  Watchdog off(0, 0);
  EXPECT_FALSE(off.due(10'000, 1));
}

TEST(Watchdog, TakesHalfOfWatchdogUsecForThisProcessOnly) {
  setenv("WATCHDOG_USEC", "400000", 1);
  EXPECT_EQ(Watchdog::FromEnvironment(0).intervalMs(), 200u);
  setenv("WATCHDOG_PID", "1", 1);
  EXPECT_FALSE(Watchdog::FromEnvironment(0).enabled()) << "meant for another process";
  unsetenv("WATCHDOG_PID");
  unsetenv("WATCHDOG_USEC");
  EXPECT_FALSE(Watchdog::FromEnvironment(0).enabled());
}

}  // namespace
}  // namespace gps::service
