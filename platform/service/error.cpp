#include "platform/service/error.h"

#include <google/protobuf/message.h>

#include "platform/service/message_type.h"

namespace halvorda::service {

const char* ErrorName(os::Error code) {
  switch (code) {
    case os::ERROR_NONE: return "success";
    case ERROR_PERMISSION_DENIED: return "permission denied";
    case ERROR_NO_BINDING: return "no handler for this message";
    case ERROR_DECODE: return "undecodable message";
    case ERROR_TIMEOUT: return "timed out";
    case ERROR_DISCONNECTED: return "not connected";
    case ERROR_SEND: return "cannot send";
    case ERROR_RESERVED: return "reserved by another client";
    case ERROR_NOT_FOUND: return "not found";
    case ERROR_INVALID: return "invalid";
    case ERROR_IO: return "system error";
    case ERROR_PROTOCOL: return "protocol error";
    case ERROR_NO_ANSWER: return "handler sent no answer";
    case ERROR_IN_USE: return "in use by a running process";
    default: return "unknown";
  }
}

uint64_t MessageTypeOf(const google::protobuf::Message& message) {
  return Fnv1a64(message.GetDescriptor()->full_name());
}

}  // namespace halvorda::service
