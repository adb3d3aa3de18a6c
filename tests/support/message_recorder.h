// Records every message the framer completes, as (type, bytes), through the
// engine's message observer.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "nmea/gps_framer.h"

namespace gps::test {

class MessageRecorder {
 public:
  MessageRecorder() { lib_GPS_SetMessageObserver(&MessageRecorder::Observe, this); }
  ~MessageRecorder() { lib_GPS_SetMessageObserver(nullptr, nullptr); }
  MessageRecorder(const MessageRecorder&) = delete;
  MessageRecorder& operator=(const MessageRecorder&) = delete;

  struct Message {
    uint32_t type;
    std::string bytes;  // as framed; NMEA commas are already cut by the parser
    uint32_t length;
  };
  const std::vector<Message>& messages() const { return messages_; }
  void clear() { messages_.clear(); }

 private:
  static void Observe(void* context, const gps_private_info_t*, const gps_message_t* message) {
    const uint32_t stored = message->length < GPS_FRAME_BUFFER_BYTES ? message->length : GPS_FRAME_BUFFER_BYTES;
    static_cast<MessageRecorder*>(context)->messages_.push_back(
        {message->type, std::string(reinterpret_cast<const char*>(message->buffer), stored), message->length});
  }
  std::vector<Message> messages_;
};

// A UBX frame with its checksum.
std::string UbxFrame(uint8_t cls, uint8_t id, const std::string& payload);

}  // namespace gps::test
