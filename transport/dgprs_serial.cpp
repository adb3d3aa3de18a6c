#include "transport/dgprs_serial.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "transport/gps_trace.h"

namespace {

// Settings found on the port at the last open; put back at close. One port
// is handled at a time, by the engine thread only.
termios g_savedSettings{};

}  // namespace

void DgprsSerInit(int32_t* handle) {
  if (handle) *handle = -1;
}

int32_t DgprsSerOpen(const char* path) {
  lib_GPS_Trace(7, "SER Ser Open");
  if (!path || !*path) {
    lib_GPS_Trace(7, "SER get_periph_name()=>NULL");
    return -1;
  }
  lib_GPS_Trace(7, "SER get_periph_name()=>\"%s\"", path);
  const int fd = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  tcgetattr(fd, &g_savedSettings);
  termios raw{};
  raw.c_iflag = IGNPAR;
  raw.c_cflag = CS8 | CREAD | CLOCAL;
  cfsetispeed(&raw, B115200);
  cfsetospeed(&raw, B115200);
  raw.c_cc[VMIN] = 0;
  raw.c_cc[VTIME] = 0;
  const int result = tcsetattr(fd, TCSANOW, &raw);
  lib_GPS_Trace(7, "SER tcsetattr return:%d", result);
  return fd;
}

void DgprsSerRead(uint8_t* buffer, int32_t* count, int32_t handle) {
  if (!count) return;
  if (handle == -1 || !buffer) {
    *count = 0;
    return;
  }
  const int32_t wanted = *count;
  int32_t total = 0;
  while (total < wanted) {
    errno = 0;
    const ssize_t n = read(handle, buffer + total, static_cast<size_t>(wanted - total));
    if (n > 0) {
      total += static_cast<int32_t>(n);
      continue;
    }
    if (n < 0) lib_GPS_Trace(3, "SER DgprsSerRead() retry because of errno=%d [%s]", errno, std::strerror(errno));
    break;
  }
  *count = total;
  lib_GPS_Trace(4, "SER DgprsSerRead(%d) ==> %d", handle, *count);
}

void DgprsSerWrite(const uint8_t* buffer, int32_t* count, int32_t handle) {
  if (!count) return;
  if (handle == -1) {
    lib_GPS_Trace(7, "SER Not started yet !");
    *count = 0;
    return;
  }
  *count = static_cast<int32_t>(write(handle, buffer, static_cast<size_t>(*count)));
  lib_GPS_Trace(7, "SER we wrote:%d on handle:%d", *count, handle);
  lib_GPS_Trace(7, "SER DgprsSerWrite, Nb = %d", *count);
}

void DgprsSerClose(int32_t* handle) {
  if (!handle || *handle == -1) return;
  lib_GPS_Trace(7, "SER Ser Close");
  tcsetattr(*handle, TCSANOW, &g_savedSettings);
  close(*handle);
  *handle = -1;
}
