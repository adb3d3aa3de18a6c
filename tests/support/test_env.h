// Test fixtures: a fresh platform root, captured log lines, a hand-driven tick
// counter and a clean engine record.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace gps::test {

// A new platform root in a temporary directory, active for the object's life;
// the root that was active before comes back when it ends. Tests that make no
// root of their own share one made for the whole test binary.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(std::string_view relative) const { return path_ + "/" + std::string(relative); }

 private:
  std::string path_;
  std::string previous_;
};

// Collects every log line (threshold 7) while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  std::vector<std::string> linesAt(int level) const;
  int count(std::string_view line) const;  // exact matches
  bool contains(std::string_view line) const { return count(line) > 0; }
  void clear();

 private:
  static void Sink(void* context, int level, const char* text);
  mutable std::mutex mutex_;
  std::vector<std::pair<int, std::string>> lines_;
};

// Replaces the platform tick counter while alive.
class ManualTicks {
 public:
  explicit ManualTicks(uint32_t start = 100000);
  ~ManualTicks();
  ManualTicks(const ManualTicks&) = delete;
  ManualTicks& operator=(const ManualTicks&) = delete;
  void set(uint32_t tick) { now_.store(tick); }
  void advance(uint32_t ticks) { now_.fetch_add(ticks); }
  uint32_t now() const { return now_.load(); }

 private:
  static uint32_t Read() { return now_.load(); }
  static inline std::atomic<uint32_t> now_{0};
};

// Zeroes the engine record and the parameters record and sets what engine
// start-up would (module type, closed handles, reset fix state), and starts
// a new receiver frame record for FeedReceiver.
void ResetEngine(uint32_t moduleType = 2);

// Feeds text to the engine as one chunk from the receiver.
void FeedReceiver(std::string_view bytes);

}  // namespace gps::test
