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

PtyReceiver::PtyReceiver(const TempRoot& root, int moduleType, bool answers, bool answersVersion)
    : answersVersion_(answersVersion) {
  const RawPty pty = OpenRawPty();
  master_ = pty.master;
  slave_ = pty.slave;
  std::ofstream(root / "platform.ini") << "[platform]\nmodule_type = " << moduleType << "\n[gps]\ndevice = " << slave_
                                       << "\nbaud = 9600\n";
  platform::ReloadRoot();
  if (answers) answerer_ = std::thread(&PtyReceiver::Answer, this);
}

PtyReceiver::~PtyReceiver() {
  stop_ = true;
  if (answerer_.joinable()) answerer_.join();
  if (master_ >= 0) close(master_);
}

void PtyReceiver::Answer() {
  static const std::string kMonVer = [] {
    std::string payload(40, '\0');
    payload.replace(0, 10, "ROM CORE 3");
    std::string frame = std::string("\xB5\x62\x0A\x04", 4) + char(40) + '\0' + payload;
    uint8_t a = 0, b = 0;
    for (size_t i = 2; i < frame.size(); ++i) b = static_cast<uint8_t>(b + (a = static_cast<uint8_t>(a + frame[i])));
    return frame + char(a) + char(b);
  }();
  static const std::string kPortAck("\xB5\x62\x05\x01\x02\x00\x06\x00\x0E\x37", 10);
  std::string unscanned;
  while (!stop_) {
    pollfd p{master_, POLLIN, 0};
    if (poll(&p, 1, 20) <= 0 || !(p.revents & POLLIN)) continue;
    char buffer[4096];
    const ssize_t n = read(master_, buffer, sizeof buffer);
    if (n <= 0) continue;
    {
      std::lock_guard lock(mutex_);
      inbox_.append(buffer, static_cast<size_t>(n));
    }
    unscanned.append(buffer, static_cast<size_t>(n));
    size_t consumed = 0;
    for (const auto& frame : SplitUbxFrames(unscanned)) {
      consumed = unscanned.find(frame, consumed) + frame.size();
      if (answersVersion_ && frame.compare(2, 2, "\x0A\x04") == 0) Send(kMonVer);
      if (frame.compare(2, 2, std::string("\x06\x00", 2)) == 0 && frame.size() == 28) Send(kPortAck);
    }
    unscanned.erase(0, consumed);
  }
}

std::string PtyReceiver::Drain(int quietMs) {
  if (answerer_.joinable()) {
    // The answering thread reads the line: wait until it has been quiet.
    std::string bytes;
    for (;;) {
      usleep(static_cast<useconds_t>(quietMs) * 1000);
      std::lock_guard lock(mutex_);
      if (inbox_.empty()) return bytes;
      bytes += inbox_;
      inbox_.clear();
    }
  }
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
