#include "platform/serial_port.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace gps::platform {
namespace {

struct Rate {
  int baud;
  speed_t speed;
};

constexpr std::array kRates{
    Rate{1200, B1200},     Rate{2400, B2400},     Rate{4800, B4800},     Rate{9600, B9600},
    Rate{19200, B19200},   Rate{38400, B38400},   Rate{57600, B57600},   Rate{115200, B115200},
    Rate{230400, B230400}, Rate{460800, B460800}, Rate{921600, B921600},
};

}  // namespace

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) {
    const int saved = errno;
    ::close(fd_);
    errno = saved;
  }
  fd_ = fd;
}

std::optional<speed_t> SerialSpeed(int baud) {
  for (const auto& rate : kRates)
    if (rate.baud == baud) return rate.speed;
  return std::nullopt;
}

const char* SerialSpeedList() { return "1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600"; }

UniqueFd OpenSerialPort(const std::string& path, speed_t speed) {
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return fd;
  termios tio{};
  if (tcgetattr(fd.get(), &tio) != 0) return {};  // errno ENOTTY for a file that is no line
  cfmakeraw(&tio);  // 8 data bits, no parity, no echo, no line editing or translation
  tio.c_cflag &= ~(CSTOPB | CRTSCTS);
  tio.c_cflag |= CLOCAL | CREAD;
  tio.c_iflag &= ~(IXON | IXOFF | IXANY);
  tio.c_cc[VMIN] = 1;  // with O_NONBLOCK an empty line reads as EAGAIN; 0 bytes then means hang-up
  tio.c_cc[VTIME] = 0;
  if (cfsetispeed(&tio, speed) != 0 || cfsetospeed(&tio, speed) != 0) return {};
  if (tcsetattr(fd.get(), TCSANOW, &tio) != 0) return {};
  tcflush(fd.get(), TCIFLUSH);  // bytes from before this open belong to nobody
  return fd;
}

bool SetSerialSpeed(int fd, speed_t speed) {
  termios tio{};
  if (tcgetattr(fd, &tio) != 0 || cfsetispeed(&tio, speed) != 0 || cfsetospeed(&tio, speed) != 0 ||
      tcsetattr(fd, TCSANOW, &tio) != 0)
    return false;
  tcflush(fd, TCIFLUSH);
  return true;
}

}  // namespace gps::platform
