// Log configuration shared by settings.cpp (which loads it) and log.cpp (which
// reads it on every line). Internal to the platform library.
#pragma once

#include <atomic>

namespace gps::platform::detail {

inline constexpr int kUnsetThreshold = -1000;
inline std::atomic<int> logThreshold{kUnsetThreshold};
inline std::atomic<int> logTarget{0};  // a LogTarget value

struct SinkBinding {
  void (*sink)(void*, int, const char*);
  void* context;
};
inline std::atomic<const SinkBinding*> logSink{nullptr};

// True when stderr is the stream systemd connected to the journal
// (JOURNAL_STREAM names its device and inode), so a "<N>" prefix sets each
// line's priority.
bool StderrIsJournal();

}  // namespace gps::platform::detail
