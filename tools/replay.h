// Feeds recorded receiver streams through the real framer and analysers and
// reports what the engine learned, as JSON lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace gps::replay {

struct Options {
  uint32_t moduleType = 2;
  bool summary = false;
  bool quiet = false;  // only the summary
  std::vector<std::string> files;  // "-" is standard input
};

struct Totals {
  uint64_t bytes = 0;
  uint64_t nmea = 0;
  uint64_t ubx = 0;
  uint64_t fixes = 0;
};

// Runs one replay under the current platform root. Returns 0, or 2 when a
// file cannot be read (after printing one line naming it to `errors`).
int Run(const Options& options, std::FILE* out, std::FILE* errors, Totals* totals = nullptr);

// "4404.14063N" -> 44.0690105; "12118.85478W" -> -121.3142463333. False for
// a text that is not degrees and minutes followed by N, S, E or W.
bool NmeaCoordinateToDegrees(const char* text, double& degrees);

}  // namespace gps::replay
