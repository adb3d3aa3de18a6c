#include "platform/service/client.h"

#include <google/protobuf/message.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "halvorda/service/service.pb.h"
#include "platform/service/directory.h"
#include "platform/service/message_type.h"

namespace halvorda::service {
namespace {

constexpr uint32_t kRetryMs = 20;

uint64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1'000'000u;
}

// Milliseconds left before the deadline, as poll wants them (-1: no limit).
int Remaining(uint64_t deadline) {
  if (deadline == UINT64_MAX) return -1;
  const uint64_t now = NowMs();
  return now >= deadline ? 0 : static_cast<int>(std::min<uint64_t>(deadline - now, INT_MAX));
}

uint64_t Deadline(uint32_t timeoutMs) { return timeoutMs == UINT32_MAX ? UINT64_MAX : NowMs() + timeoutMs; }

}  // namespace

ClientConnection::ClientConnection(ClientConnection&& other) noexcept
    : fd_(other.fd_), nextRequestId_(other.nextRequestId_), reader_(std::move(other.reader_)) {
  other.fd_ = -1;
}

ClientConnection& ClientConnection::operator=(ClientConnection&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = other.fd_;
    nextRequestId_ = other.nextRequestId_;
    reader_ = std::move(other.reader_);
    other.fd_ = -1;
  }
  return *this;
}

void ClientConnection::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  reader_ = FrameReader();
}

os::Error ClientConnection::connectTo(const std::string& socketPath, uint32_t timeoutMs) {
  close();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.empty() || socketPath.size() >= sizeof address.sun_path) return ERROR_INVALID;
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
  const uint64_t deadline = Deadline(timeoutMs);
  for (;;) {
    // Non-blocking from the start: a full backlog answers EAGAIN at once
    // instead of blocking past the timeout.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return ERROR_IO;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      fd_ = fd;
      return os::ERROR_NONE;
    }
    const int error = errno;
    ::close(fd);
    // Not there yet, or its backlog is full: try again while time is left.
    if (error != ENOENT && error != ECONNREFUSED && error != EAGAIN) return ERROR_IO;
    const int left = Remaining(deadline);
    if (left == 0) return ERROR_TIMEOUT;
    ::poll(nullptr, 0, left < 0 ? static_cast<int>(kRetryMs) : std::min<int>(left, kRetryMs));
  }
}

os::Error ClientConnection::connect(const std::string& serviceClass, uint32_t timeoutMs, const std::string& directory) {
  const uint64_t deadline = Deadline(timeoutMs);
  for (;;) {
    if (const auto path = Directory::Resolve(serviceClass, directory)) {
      const int left = Remaining(deadline);
      return connectTo(*path, left < 0 ? UINT32_MAX : static_cast<uint32_t>(left));
    }
    const int left = Remaining(deadline);
    if (left == 0) return ERROR_NOT_FOUND;
    ::poll(nullptr, 0, left < 0 ? static_cast<int>(kRetryMs) : std::min<int>(left, kRetryMs));
  }
}

os::Error ClientConnection::sendBytes(std::span<const uint8_t> bytes, uint32_t timeoutMs) {
  if (fd_ < 0) return ERROR_DISCONNECTED;
  const uint64_t deadline = Deadline(timeoutMs);
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n > 0) {
      bytes = bytes.subspan(static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd waiting{fd_, POLLOUT, 0};
      const int left = Remaining(deadline);
      if (left == 0 || ::poll(&waiting, 1, left) == 0) return ERROR_TIMEOUT;
      continue;
    }
    close();
    return ERROR_DISCONNECTED;
  }
  return os::ERROR_NONE;
}

os::Error ClientConnection::receiveFrame(FrameHeader& header, std::vector<uint8_t>& payload, uint32_t timeoutMs) {
  if (fd_ < 0) return ERROR_DISCONNECTED;
  const uint64_t deadline = Deadline(timeoutMs);
  for (;;) {
    std::span<const uint8_t> body;
    switch (reader_.next(header, body)) {
      case FrameReader::Result::Frame:
        payload.assign(body.begin(), body.end());
        return os::ERROR_NONE;
      case FrameReader::Result::Broken:
        close();
        return ERROR_PROTOCOL;
      case FrameReader::Result::NeedMore:
        break;
    }
    uint8_t chunk[16384];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n > 0) {
      reader_.append(std::span<const uint8_t>(chunk, static_cast<size_t>(n)));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd waiting{fd_, POLLIN, 0};
      const int left = Remaining(deadline);
      if (left == 0 || ::poll(&waiting, 1, left) == 0) return ERROR_TIMEOUT;
      continue;
    }
    close();
    return ERROR_DISCONNECTED;
  }
}

os::Error ClientConnection::request(const google::protobuf::Message& request, google::protobuf::Message& response,
                                    uint32_t timeoutMs) {
  if (fd_ < 0) return ERROR_DISCONNECTED;
  const uint64_t deadline = Deadline(timeoutMs);
  const uint32_t id = nextRequestId_++;
  if (nextRequestId_ == 0) nextRequestId_ = 1;
  std::vector<uint8_t> frame;
  if (!AppendMessageFrame(frame, FrameKind::Request, id, request)) return ERROR_SEND;
  if (const os::Error sent = sendBytes(frame, timeoutMs); sent != os::ERROR_NONE) return sent;
  for (;;) {
    FrameHeader header;
    std::vector<uint8_t> payload;
    const int left = Remaining(deadline);
    const os::Error received = receiveFrame(header, payload, left < 0 ? UINT32_MAX : static_cast<uint32_t>(left));
    if (received != os::ERROR_NONE) return received;
    // Answers to earlier requests that timed out are passed over.
    if (header.requestId != id) continue;
    if (header.kind == FrameKind::Error) return ErrorFrameCode(payload);
    if (header.kind != FrameKind::Response) continue;
    if (header.messageType != MessageTypeOf(response) ||
        !response.ParseFromArray(payload.data(), static_cast<int>(payload.size())))
      return ERROR_DECODE;
    return os::ERROR_NONE;
  }
}

os::Error ClientConnection::sendEvent(const google::protobuf::Message& event, uint32_t timeoutMs) {
  std::vector<uint8_t> frame;
  if (!AppendMessageFrame(frame, FrameKind::Event, 0, event)) return ERROR_SEND;
  return sendBytes(frame, timeoutMs);
}

os::Error ClientConnection::reserve(bool reserve, uint32_t timeoutMs) {
  ReservationRequest request;
  request.set_reserve(reserve);
  ReservationResponse response;
  const os::Error result = this->request(request, response, timeoutMs);
  if (result != os::ERROR_NONE) return result;
  return response.reserved() == reserve ? os::ERROR_NONE : ERROR_RESERVED;
}

}  // namespace halvorda::service
