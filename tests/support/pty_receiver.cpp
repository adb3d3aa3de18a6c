#include "tests/support/pty_receiver.h"

#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include "platform/root.h"

namespace gps::test {

RawPty OpenRawPty() {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) throw std::runtime_error("no pty");
  termios raw{};
  tcgetattr(master, &raw);
  cfmakeraw(&raw);
  tcsetattr(master, TCSANOW, &raw);
  return {master, ptsname(master)};
}

PtyReceiver::PtyReceiver(const TempRoot& root, int moduleType) {
  const RawPty pty = OpenRawPty();
  master_ = pty.master;
  slave_ = pty.slave;
  std::ofstream(root / "platform.ini") << "[platform]\nmodule_type = " << moduleType << "\n[gps]\ndevice = " << slave_
                                       << "\nbaud = 9600\n";
  platform::ReloadRoot();
}

PtyReceiver::~PtyReceiver() {
  if (master_ >= 0) close(master_);
}

std::string PtyReceiver::Drain(int quietMs) {
  std::string bytes;
  for (;;) {
    pollfd p{master_, POLLIN, 0};
    if (poll(&p, 1, quietMs) <= 0 || !(p.revents & POLLIN)) break;
    char buffer[4096];
    const ssize_t n = read(master_, buffer, sizeof buffer);
    if (n <= 0) break;
    bytes.append(buffer, static_cast<size_t>(n));
  }
  return bytes;
}

std::vector<std::string> PtyReceiver::DrainFrames(int quietMs) { return SplitUbxFrames(Drain(quietMs)); }

void PtyReceiver::Send(const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(master_, bytes.data() + done, bytes.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
}

std::vector<std::string> SplitUbxFrames(const std::string& bytes) {
  std::vector<std::string> frames;
  size_t at = 0;
  while (at + 8 <= bytes.size()) {
    if (static_cast<uint8_t>(bytes[at]) != 0xB5 || static_cast<uint8_t>(bytes[at + 1]) != 0x62) {
      ++at;
      continue;
    }
    const size_t length = static_cast<uint8_t>(bytes[at + 4]) | static_cast<uint8_t>(bytes[at + 5]) << 8;
    if (at + length + 8 > bytes.size()) break;
    frames.push_back(bytes.substr(at, length + 8));
    at += length + 8;
  }
  return frames;
}

}  // namespace gps::test
