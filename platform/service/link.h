// One incoming message as a handler sees it: its payload, its sender's
// certificate and the way back to the sender.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/service/certificate.h"
#include "platform/service/error.h"
#include "platform/service/frame.h"

namespace google::protobuf {
class Message;
}

namespace halvorda::service {

class Link {
 public:
  // How an interface is reached. Services on this platform are reached over
  // a Unix-domain stream socket (Stream); the other values name links this
  // framework does not provide.
  enum LinkType : int { LINK_TYPE_NONE = 0, LINK_TYPE_LOCAL = 1, LINK_TYPE_STREAM = 2 };

  // Where answers go: the connection the request came on.
  class Replier {
   public:
    virtual ~Replier() = default;
    // Queues one whole frame for the peer; 0 or ERROR_SEND.
    virtual os::Error reply(std::span<const uint8_t> frame) = 0;
  };

  Link(FrameKind kind, uint64_t messageType, uint32_t requestId, std::span<const uint8_t> payload,
       const os::Certificate& certificate, Replier* replier)
      : kind_(kind),
        messageType_(messageType),
        requestId_(requestId),
        payload_(payload),
        certificate_(certificate),
        replier_(replier) {}
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  // Fills the message from the payload. ERROR_DECODE when the payload is not
  // a valid encoding or the message's class is not the frame's type; the
  // framework then closes the connection the frame came on.
  os::Error decode(google::protobuf::Message& message);

  // Answers a request with a response frame carrying the message. One answer
  // per request: ERROR_SEND for a second answer, for an event (which has no
  // one waiting) or when the connection's send buffer is full.
  os::Error send(const google::protobuf::Message& response);
  // Answers a request with an error frame carrying the code.
  os::Error sendError(os::Error code);

  const os::Certificate& getCertificate() const { return certificate_; }
  uint64_t getMessageType() const { return messageType_; }
  FrameKind getKind() const { return kind_; }
  uint32_t getRequestId() const { return requestId_; }
  std::span<const uint8_t> getPayload() const { return payload_; }
  bool isAnswered() const { return answered_; }
  bool decodeFailed() const { return decodeFailed_; }

 private:
  os::Error answer(std::span<const uint8_t> frame);

  FrameKind kind_;
  uint64_t messageType_;
  uint32_t requestId_;
  std::span<const uint8_t> payload_;
  const os::Certificate& certificate_;
  Replier* replier_;
  bool answered_ = false;
  bool decodeFailed_ = false;
};

}  // namespace halvorda::service
