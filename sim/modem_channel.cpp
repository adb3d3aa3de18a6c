#include "sim/modem_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace gps::sim {

namespace {

// Longest wait while the GPS is stopped; a command or Stop wakes the loop
// earlier.
constexpr int kIdleWaitMs = 1000;
// How often a pseudo-terminal without host is checked for a new one: a
// master reports hang-up continuously while no slave is open, so it cannot
// be waited on.
constexpr int kNoHostRecheckMs = 100;
constexpr size_t kReadChunkBytes = 4096;

uint64_t MonotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

ModemChannel::ModemChannel(int ptyMaster, ModemGps modem, size_t maxQueuedBytes)
    : fd_(ptyMaster), maxQueuedBytes_(maxQueuedBytes), startNs_(MonotonicNs()), modem_(std::move(modem)) {
  fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  char name[128];
  if (ptsname_r(fd_, name, sizeof name) == 0) slavePath_ = name;
}

ModemChannel::~ModemChannel() {
  Stop();
  if (fd_ >= 0) close(fd_);
  for (int& end : stopPipe_)
    if (end >= 0) close(end);
}

bool ModemChannel::Start(std::string* error) {
  if (pipe2(stopPipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
    if (error) *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  try {
    thread_ = std::thread(&ModemChannel::Loop, this);
  } catch (const std::system_error& e) {
    if (error) *error = std::string("thread: ") + e.what();
    return false;
  }
  return true;
}

void ModemChannel::Stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  const char wake = 1;
  [[maybe_unused]] const ssize_t n = write(stopPipe_[1], &wake, 1);
  thread_.join();
}

bool ModemChannel::running() const {
  std::lock_guard lock(mutex_);
  return modem_.running();
}

size_t ModemChannel::commandCount() const {
  std::lock_guard lock(mutex_);
  return modem_.commands().size();
}

std::vector<uint32_t> ModemChannel::ReceivedCommands() const {
  std::lock_guard lock(mutex_);
  return modem_.commands();
}

uint64_t ModemChannel::NowMs() const { return (MonotonicNs() - startNs_) / 1000000u; }

void ModemChannel::CollectOutput() {
  // The host reads the answer right after writing its command: a sentence
  // queued before the answer would be taken for the answer's header. Only a
  // sentence already partly on the line is finished first.
  auto at = queue_.begin() + (frontWritten_ > 0 ? 1 : 0);
  while (at != queue_.end() && at->response) ++at;
  for (std::string& response : modem_.TakeResponses()) {
    at = queue_.insert(at, Outgoing{std::move(response), true});
    ++at;
  }
  if (!modem_.running()) DropSentencesBeyond(0);
  for (std::string& sentence : modem_.TakeSentences()) {
    queuedSentenceBytes_ += sentence.size();
    queue_.push_back(Outgoing{std::move(sentence), false});
  }
  DropSentencesBeyond(maxQueuedBytes_);
}

void ModemChannel::DropSentencesBeyond(size_t limit) {
  auto it = queue_.begin() + (frontWritten_ > 0 ? 1 : 0);
  while (it != queue_.end() && queuedSentenceBytes_ > limit) {
    if (it->response) {
      ++it;
      continue;
    }
    queuedSentenceBytes_ -= it->bytes.size();
    it = queue_.erase(it);
  }
}

void ModemChannel::Loop() {
  while (!stopping_) {
    int timeoutMs = kIdleWaitMs;
    {
      std::lock_guard lock(mutex_);
      const uint64_t now = NowMs();
      modem_.Advance(now);
      CollectOutput();
      if (!hostPresent_) {
        queue_.clear();
        queuedSentenceBytes_ = 0;
        frontWritten_ = 0;
      }
      if (const auto next = modem_.NextEpochMs())
        timeoutMs = static_cast<int>(std::min<uint64_t>(*next > now ? *next - now : 0, kIdleWaitMs));
    }

    if (!hostPresent_) {
      pollfd stop{stopPipe_[0], POLLIN, 0};
      if (poll(&stop, 1, kNoHostRecheckMs) > 0) break;
      pollfd master{fd_, POLLIN, 0};
      if (poll(&master, 1, 0) >= 0 && (master.revents & POLLHUP) == 0) hostPresent_ = true;
      continue;
    }

    WriteOutput();
    pollfd fds[2] = {{fd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (!queue_.empty()) fds[0].events |= POLLOUT;
    if (poll(fds, 2, timeoutMs) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents != 0) break;
    const short revents = fds[0].revents;
    // Commands the host wrote just before closing are still carried out.
    if (revents & (POLLIN | POLLHUP | POLLERR)) ReadInput();
    if (hostPresent_ && (revents & (POLLHUP | POLLERR))) HostGone();
    if (hostPresent_ && (revents & POLLOUT)) WriteOutput();
  }
}

void ModemChannel::ReadInput() {
  uint8_t buffer[kReadChunkBytes];
  while (true) {
    const ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n > 0) {
      std::lock_guard lock(mutex_);
      const uint64_t now = NowMs();
      modem_.Advance(now);
      modem_.Receive(std::span<const uint8_t>(buffer, static_cast<size_t>(n)), now);
      CollectOutput();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    // End of file, or EIO: a pseudo-terminal master reads EIO once no host
    // has the slave open.
    HostGone();
    return;
  }
}

void ModemChannel::WriteOutput() {
  while (!queue_.empty()) {
    const Outgoing& front = queue_.front();
    const ssize_t n = write(fd_, front.bytes.data() + frontWritten_, front.bytes.size() - frontWritten_);
    if (n > 0) {
      frontWritten_ += static_cast<size_t>(n);
      if (frontWritten_ == front.bytes.size()) {
        if (!front.response) queuedSentenceBytes_ -= front.bytes.size();
        queue_.pop_front();
        frontWritten_ = 0;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    HostGone();
    return;
  }
}

void ModemChannel::HostGone() {
  hostPresent_ = false;
  queue_.clear();
  queuedSentenceBytes_ = 0;
  frontWritten_ = 0;
  {
    std::lock_guard lock(mutex_);
    modem_.DiscardPartialCommand();
  }
  if (slavePath_.empty()) return;
  // What the host left unread would reach the next host first, stale.
  const int slave = open(slavePath_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (slave < 0) return;
  tcflush(slave, TCIFLUSH);
  close(slave);
}

}  // namespace gps::sim
