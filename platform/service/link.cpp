#include "platform/service/link.h"

#include <google/protobuf/message.h>

#include "platform/service/message_type.h"

namespace halvorda::service {

os::Error Link::decode(google::protobuf::Message& message) {
  if (MessageTypeOf(message) != messageType_ ||
      !message.ParseFromArray(payload_.data(), static_cast<int>(payload_.size()))) {
    decodeFailed_ = true;
    return ERROR_DECODE;
  }
  return os::ERROR_NONE;
}

os::Error Link::answer(std::span<const uint8_t> frame) {
  if (kind_ != FrameKind::Request || answered_ || !replier_) return ERROR_SEND;
  const os::Error result = replier_->reply(frame);
  // A request gets one answer even when queueing it failed: the connection
  // is then being closed, which ends the caller's wait.
  answered_ = true;
  return result;
}

os::Error Link::send(const google::protobuf::Message& response) {
  std::vector<uint8_t> frame;
  if (!AppendMessageFrame(frame, FrameKind::Response, requestId_, response)) return ERROR_SEND;
  return answer(frame);
}

os::Error Link::sendError(os::Error code) {
  std::vector<uint8_t> frame;
  AppendErrorFrame(frame, messageType_, requestId_, code);
  return answer(frame);
}

}  // namespace halvorda::service
