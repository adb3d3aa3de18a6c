// Cuts the receiver byte stream into NMEA sentences and UBX frames, one byte
// at a time, and hands every complete message to its analyser.
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"

inline constexpr uint32_t GPS_FRAME_BUFFER_BYTES = 1024;
inline constexpr uint32_t GPS_UBX_FRAME_OVERHEAD_BYTES = 8;
inline constexpr uint32_t GPS_UBX_MAX_PAYLOAD_BYTES = GPS_FRAME_BUFFER_BYTES - GPS_UBX_FRAME_OVERHEAD_BYTES;

enum gps_message_type_t : uint32_t {
  MESSAGE_TYPE_NONE = 0,
  MESSAGE_TYPE_NMEA = 1,
  MESSAGE_TYPE_UBLOX = 2,
};

enum gps_frame_state_t : uint32_t {
  FRAME_STATE_IDLE = 0,
  FRAME_STATE_NMEA = 1,
  FRAME_STATE_UBX_SYNC2 = 2,
  FRAME_STATE_UBX_CLASS = 3,
  FRAME_STATE_UBX_ID = 4,
  FRAME_STATE_UBX_LENGTH_LOW = 5,
  FRAME_STATE_UBX_LENGTH_HIGH = 6,
  FRAME_STATE_UBX_PAYLOAD = 7,
  FRAME_STATE_COUNT = 8,
};

struct gps_message_t;
// Feeds one byte; nonzero when that byte completed a message.
using gps_frame_handler_t = uint32_t (*)(gps_message_t* message, uint8_t byte);

struct gps_message_t {
  uint32_t state;
  gps_frame_handler_t handlers[FRAME_STATE_COUNT];
  uint8_t buffer[GPS_FRAME_BUFFER_BYTES];
  uint32_t type;
  uint32_t length;
  uint32_t ubx_class;
  uint32_t ubx_id;
  uint32_t ubx_length;  // payload bytes
  // Bytes of an oversized UBX frame (payload over GPS_UBX_MAX_PAYLOAD_BYTES)
  // still to be passed over: such a frame cannot be held, and its payload
  // must not be mistaken for messages.
  uint32_t skip_remaining;
};

// Zero-fills the frame record, installs the state handlers, state idle.
void gps_message_init(gps_message_t* message);

// Feeds one byte through the handler of the current state.
inline uint32_t gps_message_feed(gps_message_t* message, uint8_t byte) {
  return message->handlers[message->state](message, byte);
}

// Frames a chunk read from the receiver and analyses each complete message.
// Called on the engine thread without the engine lock.
void analyze_gps(gps_private_info_t* infos, gps_message_t* message, const uint8_t* data, uint32_t count);

// Tools that report what the engine learned (gps-replay) observe every
// message right after it was analysed. One observer per process; nullptr
// removes it.
using gps_message_observer_t = void (*)(void* context, const gps_private_info_t* infos, const gps_message_t* message);
void lib_GPS_SetMessageObserver(gps_message_observer_t observer, void* context);
