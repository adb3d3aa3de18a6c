#include "service/lifecycle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <string>

namespace gps::service {
namespace {

constexpr uint64_t kMinStallMs = 3000;

}  // namespace

int ExitStatusForCreate(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS:
    case EAGAIN:
      return kExitOsError;
    default:
      return kExitCantCreate;
  }
}

InstanceLock::~InstanceLock() {
  if (fd_ >= 0) ::close(fd_);
}

InstanceLock::Outcome InstanceLock::take(const std::string& path) {
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd_ < 0) {
    error_ = errno;
    return Outcome::Failed;
  }
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    error_ = errno;
    if (error_ != EWOULDBLOCK) return Outcome::Failed;
    char text[32] = {};
    const ssize_t n = ::pread(fd_, text, sizeof text - 1, 0);
    if (n > 0) std::from_chars(text, text + n, holder_);
    ::close(fd_);
    fd_ = -1;
    return Outcome::HeldByOther;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    error_ = errno;
    return Outcome::Failed;
  }
  return Outcome::Taken;
}

Watchdog::Watchdog(uint64_t intervalMs, uint64_t nowMs)
    : intervalMs_(intervalMs), stallMs_(std::max(intervalMs, kMinStallMs)), lastProgressMs_(nowMs) {}

Watchdog Watchdog::FromEnvironment(uint64_t nowMs) {
  const char* usec = std::getenv("WATCHDOG_USEC");
  const char* pid = std::getenv("WATCHDOG_PID");
  uint64_t value = 0;
  if (!usec || std::from_chars(usec, usec + std::char_traits<char>::length(usec), value).ec != std::errc{})
    return Watchdog(0, nowMs);
  if (pid && *pid && std::atol(pid) != ::getpid()) return Watchdog(0, nowMs);
  // Half the period systemd allows, at least 1 ms.
  return Watchdog(std::max<uint64_t>(value / 2000, value ? 1 : 0), nowMs);
}

bool Watchdog::due(uint64_t nowMs, uint32_t enginePasses) {
  if (!enabled()) return false;
  if (!sawPasses_ || enginePasses != lastPasses_) {
    if (sawPasses_) lastProgressMs_ = nowMs;
    lastPasses_ = enginePasses;
    sawPasses_ = true;
  }
  if (sentOnce_ && nowMs - lastSentMs_ < intervalMs_) return false;
  if (nowMs - lastProgressMs_ > stallMs_) return false;
  lastSentMs_ = nowMs;
  sentOnce_ = true;
  return true;
}

uint64_t MonotonicMs() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

}  // namespace gps::service
