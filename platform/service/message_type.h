// Message types: the 64-bit FNV-1a hash of a message's full protobuf name
// ("halvorda.device.gps.SetGetStateRequest"). Generated classes carry the
// same value as kMessageType; these compute it from the name or descriptor.
#pragma once

#include <cstdint>
#include <string_view>

namespace google::protobuf {
class Message;
}

namespace halvorda::service {

constexpr uint64_t Fnv1a64(std::string_view text) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

// The type of a message object of any class, from its descriptor.
uint64_t MessageTypeOf(const google::protobuf::Message& message);

}  // namespace halvorda::service
