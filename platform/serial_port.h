// Descriptors and serial lines for the receiver driver.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include <termios.h>

namespace gps::platform {

// An owned file descriptor, closed when the owner goes.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1);  // keeps errno, so a failure can be reported after cleaning up

 private:
  int fd_ = -1;
};

// The line speed for a baud rate; nothing for a rate the terminal driver has
// no constant for.
std::optional<speed_t> SerialSpeed(int baud);

// The rates SerialSpeed knows, for messages: "1200, 2400, ... 921600".
const char* SerialSpeedList();

// Opens a serial device as the receiver's line: read-write, non-blocking, not
// the controlling terminal, raw 8N1 at `speed`, modem lines ignored, no flow
// control. An empty descriptor with errno set when the device cannot be opened
// or is not a terminal.
UniqueFd OpenSerialPort(const std::string& path, speed_t speed);

// Changes an open line's speed and drops what arrived at the old one.
bool SetSerialSpeed(int fd, speed_t speed);

}  // namespace gps::platform
