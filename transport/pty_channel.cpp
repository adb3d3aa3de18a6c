#include "transport/pty_channel.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include "engine/gps_private_info.h"
#include "platform/root.h"
#include "transport/gps_trace.h"

namespace {

pthread_mutex_t pty_lock = PTHREAD_MUTEX_INITIALIZER;

bool WriteAll(int fd, const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, bytes, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads and drops `length` answer bytes; an answer longer than any modem
// sends means the two ends are out of step, and the line is flushed instead.
void DiscardResponse(int fd, uint32_t length) {
  constexpr uint32_t kLongestAnswer = 64 * 1024;
  if (length > kLongestAnswer) {
    tcflush(fd, TCIFLUSH);
    return;
  }
  uint8_t scrap[256];
  while (length > 0) {
    const uint32_t part = length < sizeof scrap ? length : sizeof scrap;
    if (data_read(fd, scrap, part) != 0) return;
    length -= part;
  }
}

}  // namespace

int PTY_OpenDevice(const char* path) {
  // One attempt: the modem software may be away for long (it exits, it
  // restarts), and the engine thread that opens the channel must keep serving
  // its requests meanwhile; it tries again once a second.
  const int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    lib_GPS_Trace(7, "PTY_OpenDevice: %s not available (%s)", path, std::strerror(errno));
    return -1;
  }
  termios settings{};
  if (tcgetattr(fd, &settings) == 0) {
    cfmakeraw(&settings);
    tcsetattr(fd, TCSANOW, &settings);
  }
  return fd;
}

int PTY_Open(const char* path) {
  if (path) return PTY_OpenDevice(path);
  const auto channel = gps::platform::SystemPath(PTY_DEFAULT_DEVICE);
  return PTY_OpenDevice(channel ? channel->c_str() : PTY_DEFAULT_DEVICE);
}

// Each wait for the next bytes ends after PTY_RESPONSE_TIMEOUT_MS (5 s) with
// -1: a modem that never answers must not hold the engine thread forever.
int data_read(int descriptor, uint8_t* buffer, uint32_t n) {
  uint32_t got = 0;
  while (got < n) {
    pollfd p{descriptor, POLLIN, 0};
    const int ready = poll(&p, 1, PTY_RESPONSE_TIMEOUT_MS);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      if (ready == 0) lib_GPS_Trace(3, "data_read: no answer within %d ms.", PTY_RESPONSE_TIMEOUT_MS);
      return -1;
    }
    const ssize_t r = read(descriptor, buffer + got, n - got);
    if (r == 0) {
      lib_GPS_Trace(3, "data_read EOF!!!");
      return -1;
    }
    if (r < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      lib_GPS_Trace(3, "data_read error=0x%x %s!!!", errno, std::strerror(errno));
      return -1;
    }
    got += static_cast<uint32_t>(r);
  }
  return 0;
}

// Two steps keep the channel in step with the modem: unread receiver sentences
// are flushed before the command goes out (they would be read as its answer),
// and an answer too large for the buffer is read and dropped, not left on the
// line where the next exchange would start in the middle of it.
int PTY_SendCommand(uint32_t command, uint8_t* buffer, int32_t bufferSize, uint32_t dataLength) {
  pthread_mutex_lock(&pty_lock);
  int result = 0;
  const int fd = static_cast<int>(gps_private_info.com_gps);
  if (gps_private_info.com_gps == GPS_INVALID_HANDLE) {
    lib_GPS_Trace(3, "PTY_SendCommand error opening virtual term command !");
    pthread_mutex_unlock(&pty_lock);
    return -1;
  }
  lib_GPS_Trace(7, "PTY_SendCommand cmd=0x%x length=%d handle=%d", command, bufferSize, fd);
  if (dataLength != 0 && !buffer) {
    lib_GPS_Trace(7, "PTY_SendCommand -1");
    pthread_mutex_unlock(&pty_lock);
    return -1;
  }
  // The line also carries the receiver's sentences: whatever of them is still
  // unread would be taken for the answer. The receiver is being started or
  // stopped, so dropping them loses nothing that matters.
  tcflush(fd, TCIFLUSH);
  uint32_t header[2] = {command, dataLength};
  uint32_t first = 0;
  uint32_t status = 0;
  uint32_t length = 0;
  if (!WriteAll(fd, header, sizeof header) || (dataLength != 0 && !WriteAll(fd, buffer, dataLength)) ||
      data_read(fd, reinterpret_cast<uint8_t*>(&first), 4) != 0 ||
      data_read(fd, reinterpret_cast<uint8_t*>(&status), 4) != 0 ||
      data_read(fd, reinterpret_cast<uint8_t*>(&length), 4) != 0) {
    // A failed header leaves nothing to trust in the answer.
    pthread_mutex_unlock(&pty_lock);
    return -1;
  }
  result = static_cast<int>(status);
  if (length != 0) {
    if (static_cast<int32_t>(length) > bufferSize || static_cast<int32_t>(length) < 0) {
      lib_GPS_Trace(3, "PTY_SendCommand: Not enough space to store response (%d < %d)!", bufferSize,
                    static_cast<int32_t>(length));
      // Read the answer to its end all the same, so that the next exchange
      // does not start in the middle of this one.
      DiscardResponse(fd, length);
      result = -1;
    } else if (!buffer) {
      lib_GPS_Trace(3, "PTY_SendCommand: No buffer to store response!");
      result = -1;
    } else if (data_read(fd, buffer, length) != 0) {
      lib_GPS_Trace(3, "PTY_SendCommand: read failed!");
      result = -1;
    } else {
      lib_GPS_Trace(7, "PTY_SendCommand: read buffer (limited to 128 bytes):");
      lib_GPS_TraceHex(7, length < 128 ? length : 128, buffer, 1);
    }
  }
  pthread_mutex_unlock(&pty_lock);
  return result;
}
