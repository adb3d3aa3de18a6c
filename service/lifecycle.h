// The daemon's life as a Linux process: its start-up exit statuses, the lock
// that keeps one instance per platform root, and the systemd watchdog.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace gps::service {

// sysexits(3) statuses of a start that failed; systemd's unit does not
// restart after kExitConfig, which needs a person to fix a file.
inline constexpr int kExitOsError = 71;     // EX_OSERR: descriptors, memory, a system call
inline constexpr int kExitCantCreate = 73;  // EX_CANTCREAT: socket, directory entry, files
inline constexpr int kExitConfig = 78;      // EX_CONFIG: platform.ini, manifest, stored configuration

// kExitOsError for an errno that says the system ran out of something,
// kExitCantCreate for any other.
int ExitStatusForCreate(int error);

// An exclusive lock on a file under the platform root, held until the object
// ends (or the process does, however it ends). The file holds the holder's pid
// so a second instance can name it.
class InstanceLock {
 public:
  enum class Outcome { Taken, HeldByOther, Failed };
  InstanceLock() = default;
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

  Outcome take(const std::string& path);
  // After HeldByOther: the running instance's pid (0 if it wrote none yet).
  pid_t holder() const { return holder_; }
  // After Failed: the errno.
  int error() const { return error_; }

 private:
  int fd_ = -1;
  pid_t holder_ = 0;
  int error_ = 0;
};

// When to send systemd WATCHDOG=1: every interval (half of $WATCHDOG_USEC),
// and only while the engine thread shows progress, so that a hung engine
// stops the keep-alives and systemd restarts the service.
class Watchdog {
 public:
  // No watchdog when intervalMs is 0.
  Watchdog(uint64_t intervalMs, uint64_t nowMs);
  // From $WATCHDOG_USEC (and $WATCHDOG_PID, which must be this process).
  static Watchdog FromEnvironment(uint64_t nowMs);

  bool enabled() const { return intervalMs_ != 0; }
  uint64_t intervalMs() const { return intervalMs_; }
  // Called on every turn of the dispatch loop with the engine's pass count;
  // true when a keep-alive is due now.
  bool due(uint64_t nowMs, uint32_t enginePasses);

 private:
  uint64_t intervalMs_;
  // The engine passes at least once a second; a pass that configures the
  // receiver may take longer. No pass for this long is a hung engine.
  uint64_t stallMs_;
  uint64_t lastProgressMs_;
  uint64_t lastSentMs_ = 0;
  bool sentOnce_ = false;
  uint32_t lastPasses_ = 0;
  bool sawPasses_ = false;
};

// Monotonic milliseconds.
uint64_t MonotonicMs();

}  // namespace gps::service
