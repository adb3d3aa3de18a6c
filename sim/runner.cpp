#include "sim/runner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace gps::sim {

namespace {

// Longest wait in poll(): bounds how late a Stop or a power change is seen
// when the receiver has nothing due.
constexpr int kMaxWaitMs = 50;
// How often a pseudo-terminal without client is checked for a new one.
constexpr int kNoClientRecheckMs = 100;
constexpr size_t kReadChunkBytes = 4096;

speed_t SpeedOf(uint32_t baud) {
  switch (baud) {
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    case 230400: return B230400;
    case 460800: return B460800;
    case 921600: return B921600;
    default: return B0;
  }
}

uint64_t MonotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

Runner::Runner(int fd, Receiver receiver, RunnerOptions options)
    : fd_(fd), options_(std::move(options)), startNs_(MonotonicNs()), receiver_(std::move(receiver)) {
  struct stat st{};
  isSocket_ = fstat(fd_, &st) == 0 && S_ISSOCK(st.st_mode);
}

Runner::~Runner() {
  Stop();
  if (fd_ >= 0) close(fd_);
  for (int& end : stopPipe_)
    if (end >= 0) close(end);
}

uint64_t Runner::NowMs() const { return (MonotonicNs() - startNs_) / 1000000u; }

bool Runner::Start(std::string* error) {
  if (pipe2(stopPipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
    if (error) *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  try {
    thread_ = std::thread(&Runner::Loop, this);
  } catch (const std::system_error& e) {
    if (error) *error = std::string("thread: ") + e.what();
    return false;
  }
  return true;
}

void Runner::Stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  const char wake = 1;
  [[maybe_unused]] const ssize_t n = write(stopPipe_[1], &wake, 1);
  thread_.join();
}

void Runner::SetPowered(bool on) {
  std::lock_guard lock(mutex_);
  receiver_.Advance(NowMs());
  CollectOutput();
  receiver_.SetPowered(on);
  if (!on) DropBeyond(0);
}

std::vector<std::vector<uint8_t>> Runner::ReceivedFrames() const {
  std::lock_guard lock(mutex_);
  return receiver_.ReceivedFrames();
}

AlpStatus Runner::Alp() const {
  std::lock_guard lock(mutex_);
  return receiver_.alp();
}

bool Runner::LineSpeedMatches() const {
  if (options_.lineBaud == 0) return true;
  termios tio{};
  // On a pseudo-terminal master this reads the slave's settings: the host's.
  if (tcgetattr(fd_, &tio) != 0) return true;
  return cfgetospeed(&tio) == SpeedOf(options_.lineBaud);
}

void Runner::CollectOutput() {
  const bool matches = LineSpeedMatches();
  for (std::string& message : receiver_.TakeOutput()) {
    if (!matches)
      for (char& c : message) c = static_cast<char>(static_cast<uint8_t>(c) | 0x80);
    queuedBytes_ += message.size();
    queue_.push_back(std::move(message));
  }
  DropBeyond(options_.maxQueuedBytes);
}

void Runner::DropBeyond(size_t limit) {
  while (queuedBytes_ > limit) {
    // A message already partly on the line is finished, never cut.
    const size_t victim = frontWritten_ > 0 ? 1 : 0;
    if (victim >= queue_.size()) break;
    queuedBytes_ -= queue_[victim].size();
    queue_.erase(queue_.begin() + static_cast<std::ptrdiff_t>(victim));
  }
}

void Runner::Loop() {
  while (!stopping_) {
    int timeoutMs = kMaxWaitMs;
    bool pending = false;
    {
      std::lock_guard lock(mutex_);
      const uint64_t now = NowMs();
      receiver_.Advance(now);
      CollectOutput();
      if (peer_ != Peer::Present) {
        queue_.clear();
        queuedBytes_ = 0;
        frontWritten_ = 0;
      }
      if (const auto next = receiver_.NextEventMs())
        timeoutMs = static_cast<int>(std::min<uint64_t>(*next > now ? *next - now : 0, kMaxWaitMs));
    }
    if (peer_ == Peer::Present) {
      WriteOutput();
      std::lock_guard lock(mutex_);
      pending = !queue_.empty();
    }

    pollfd fds[2] = {{fd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (pending) fds[0].events |= POLLOUT;
    if (peer_ == Peer::Absent) {
      // Nobody on the slave side: look again now and then.
      if (poll(&fds[1], 1, kNoClientRecheckMs) > 0) break;
      pollfd master = {fd_, POLLIN, 0};
      if (poll(&master, 1, 0) >= 0 && (master.revents & POLLHUP) == 0) peer_ = Peer::Present;
      continue;
    }
    if (peer_ == Peer::Gone) {
      if (poll(&fds[1], 1, timeoutMs) > 0) break;
      continue;
    }
    if (poll(fds, 2, timeoutMs) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents != 0) break;
    const short revents = fds[0].revents;
    if (!options_.ptySlavePath.empty() && (revents & POLLHUP)) {
      peer_ = CheckPtyClient(revents);
      continue;
    }
    if (revents & (POLLIN | POLLHUP | POLLERR)) ReadInput();
    if (revents & POLLOUT) WriteOutput();
  }
}

Runner::Peer Runner::CheckPtyClient(short revents) {
  if ((revents & POLLHUP) == 0) return Peer::Present;
  // The last client closed the slave: what it left unread would reach the
  // next client first, stale, so it goes.
  FlushPtySlave();
  return Peer::Absent;
}

void Runner::FlushPtySlave() const {
  const int slave = open(options_.ptySlavePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (slave < 0) return;
  tcflush(slave, TCIFLUSH);
  close(slave);
}

void Runner::ReadInput() {
  uint8_t buffer[kReadChunkBytes];
  while (true) {
    const ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n > 0) {
      std::lock_guard lock(mutex_);
      receiver_.Advance(NowMs());
      if (LineSpeedMatches()) receiver_.Receive(std::span<const uint8_t>(buffer, static_cast<size_t>(n)));
      CollectOutput();
      if (static_cast<size_t>(n) < sizeof buffer) return;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    // End of file or a dead line. A pseudo-terminal master reads EIO while
    // no client has the slave open: it comes back when one opens it.
    if (!options_.ptySlavePath.empty()) {
      peer_ = CheckPtyClient(POLLHUP);
    } else {
      peer_ = Peer::Gone;
    }
    return;
  }
}

void Runner::WriteOutput() {
  std::lock_guard lock(mutex_);
  while (!queue_.empty()) {
    const std::string& message = queue_.front();
    const char* data = message.data() + frontWritten_;
    const size_t size = message.size() - frontWritten_;
    const ssize_t n = isSocket_ ? send(fd_, data, size, MSG_NOSIGNAL) : write(fd_, data, size);
    if (n > 0) {
      frontWritten_ += static_cast<size_t>(n);
      if (frontWritten_ == message.size()) {
        queuedBytes_ -= message.size();
        queue_.pop_front();
        frontWritten_ = 0;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    peer_ = options_.ptySlavePath.empty() ? Peer::Gone : Peer::Absent;
    if (peer_ == Peer::Absent) FlushPtySlave();
    queue_.clear();
    queuedBytes_ = 0;
    frontWritten_ = 0;
    return;
  }
}

}  // namespace gps::sim
