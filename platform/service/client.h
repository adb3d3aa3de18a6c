// The client side of the service link: resolve a service class through the
// directory, connect, and exchange frames. One request at a time per
// connection; not shared between threads.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/service/error.h"
#include "platform/service/frame.h"

namespace google::protobuf {
class Message;
}

namespace halvorda::service {

class ClientConnection {
 public:
  ClientConnection() = default;
  ~ClientConnection() { close(); }
  ClientConnection(ClientConnection&& other) noexcept;
  ClientConnection& operator=(ClientConnection&& other) noexcept;
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  // Resolves the class in the directory (empty: the default one) and
  // connects, retrying until the timeout while the class is not registered
  // yet or its socket does not answer. ERROR_NOT_FOUND or ERROR_TIMEOUT
  // when it never does.
  os::Error connect(const std::string& serviceClass, uint32_t timeoutMs, const std::string& directory = {});
  // Connects to a socket path directly.
  os::Error connectTo(const std::string& socketPath, uint32_t timeoutMs);
  void close();
  bool isConnected() const { return fd_ >= 0; }
  int descriptor() const { return fd_; }

  // Sends the request and waits for its answer: 0 with the response filled,
  // the code of an error frame (the handler's result, or the framework's:
  // ERROR_PERMISSION_DENIED, ERROR_NO_BINDING, ERROR_RESERVED, ...),
  // ERROR_TIMEOUT, ERROR_DISCONNECTED when the service closed the connection,
  // ERROR_DECODE when the response is not of the expected class.
  os::Error request(const google::protobuf::Message& request, google::protobuf::Message& response,
                    uint32_t timeoutMs);
  // Sends an event; no answer comes back.
  os::Error sendEvent(const google::protobuf::Message& event, uint32_t timeoutMs);
  // Takes or gives back exclusive use of the service. 0 when the outcome is
  // the one asked for.
  os::Error reserve(bool reserve, uint32_t timeoutMs);

  // Frame-level access, for tools and tests.
  os::Error sendBytes(std::span<const uint8_t> bytes, uint32_t timeoutMs);
  os::Error receiveFrame(FrameHeader& header, std::vector<uint8_t>& payload, uint32_t timeoutMs);

 private:
  int fd_ = -1;
  uint32_t nextRequestId_ = 1;
  FrameReader reader_;
};

}  // namespace halvorda::service
