#include "nmea/gps_framer.h"

#include <cstring>
#include <ctime>
#include <unistd.h>

#include "nmea/nmea_parser.h"
#include "transport/gps_trace.h"
#include "ubx/ubx_analyze.h"

namespace {

gps_message_observer_t g_observer = nullptr;
void* g_observerContext = nullptr;

inline void Store(gps_message_t* m, uint8_t byte) {
  if (m->length < GPS_FRAME_BUFFER_BYTES) m->buffer[m->length++] = byte;
}

// The buffer reads as zeros behind every message. Bytes are only ever written
// below `length` (and at index 0 by the idle state), so clearing what the
// previous message wrote restores an all-zero buffer.
inline void Start(gps_message_t* m, uint32_t type, uint8_t byte) {
  const uint32_t written = m->length > GPS_FRAME_BUFFER_BYTES ? GPS_FRAME_BUFFER_BYTES : m->length;
  std::memset(m->buffer, 0, written > 0 ? written : 1);
  m->type = type;
  m->length = 1;
  m->buffer[0] = byte;
}

uint32_t HandleIdle(gps_message_t* m, uint8_t byte) {
  if (byte == '$') {
    Start(m, MESSAGE_TYPE_NMEA, byte);
    m->state = FRAME_STATE_NMEA;
  } else if (byte == 0xB5) {
    Start(m, MESSAGE_TYPE_UBLOX, byte);
    m->state = FRAME_STATE_UBX_SYNC2;
  } else {
    m->buffer[0] = byte;
  }
  return 0;
}

uint32_t HandleNmea(gps_message_t* m, uint8_t byte) {
  Store(m, byte);
  if (byte != '\n') return 0;
  m->state = FRAME_STATE_IDLE;
  return 1;
}

uint32_t HandleUbxSync2(gps_message_t* m, uint8_t byte) {
  Store(m, byte);
  if (byte == 0x62) {
    m->state = FRAME_STATE_UBX_CLASS;
  } else {
    m->type = MESSAGE_TYPE_NONE;
    m->state = FRAME_STATE_IDLE;
  }
  return 0;
}

uint32_t HandleUbxClass(gps_message_t* m, uint8_t byte) {
  Store(m, byte);
  m->ubx_class = byte;
  m->state = FRAME_STATE_UBX_ID;
  return 0;
}

uint32_t HandleUbxId(gps_message_t* m, uint8_t byte) {
  Store(m, byte);
  m->ubx_id = byte;
  m->state = FRAME_STATE_UBX_LENGTH_LOW;
  return 0;
}

uint32_t HandleUbxLengthLow(gps_message_t* m, uint8_t byte) {
  Store(m, byte);
  m->ubx_length = byte;
  m->state = FRAME_STATE_UBX_LENGTH_HIGH;
  return 0;
}

uint32_t HandleUbxLengthHigh(gps_message_t* m, uint8_t byte) {
  Store(m, byte);
  m->ubx_length += static_cast<uint32_t>(byte) * 256u;
  m->state = FRAME_STATE_UBX_PAYLOAD;
  if (m->ubx_length > GPS_UBX_MAX_PAYLOAD_BYTES) {
    lib_GPS_Trace(7, "analyze_gps: UBX frame 0x%02X 0x%02X of %u payload bytes is too long; passed over.",
                  m->ubx_class, m->ubx_id, m->ubx_length);
    m->type = MESSAGE_TYPE_NONE;
    m->skip_remaining = m->ubx_length + 2;  // payload and checksum
  }
  return 0;
}

uint32_t HandleUbxPayload(gps_message_t* m, uint8_t byte) {
  if (m->type == MESSAGE_TYPE_NONE) {
    if (--m->skip_remaining == 0) m->state = FRAME_STATE_IDLE;
    return 0;
  }
  Store(m, byte);
  if (m->length != m->ubx_length + GPS_UBX_FRAME_OVERHEAD_BYTES) return 0;
  m->state = FRAME_STATE_IDLE;
  return 1;
}

// When the chunk being framed was read, and how many of its bytes are left
// after the current position: a message's first byte came lineBytes before
// the chunk's end.
struct ChunkClock {
  int64_t receivedNs = 0;
  uint32_t bytesAfter = 0;
};

int64_t RealtimeNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void DispatchMessage(gps_private_info_t* infos, gps_message_t* m, const ChunkClock& clock) {
  if (lib_GPS_LoggingEnabled(infos)) {
    lib_GPS_Trace(3, "analyze_gps: record module traces (length = %i).", static_cast<int>(m->length));
    lib_GPS_LogModuleTraces(infos, m->buffer, m->length);
  }
  if (infos->com_transp_handle != -1) {
    [[maybe_unused]] ssize_t ignored = write(infos->com_transp_handle, m->buffer, m->length);
  }
  // Logged before analysis: the NMEA analyser cuts the sentence in place.
  const uint32_t kept = m->length < GPS_FRAME_BUFFER_BYTES ? m->length : GPS_FRAME_BUFFER_BYTES;
  lib_GPS_LogMessage(infos, m->type, m->buffer, kept, clock.receivedNs, clock.bytesAfter + kept);
  if (m->type == MESSAGE_TYPE_NMEA) {
    lib_GPS_Trace(7, "MESSAGE_TYPE_NMEA");
    analyze_gps_nmea_message(infos, m);
  } else if (m->type == MESSAGE_TYPE_UBLOX) {
    lib_GPS_Trace(7, "MESSAGE_TYPE_UBLOX");
    lib_GPS_TraceHex(7, m->length, m->buffer, 1);
    lib_GPS_ubx_AnalyzeMessage(infos, m, "RX");
  } else {
    lib_GPS_Trace(7, "Unknown message type");
  }
  lib_GPS_NotifyListeners(infos, GPS_EVENT_MESSAGE);
  if (g_observer) g_observer(g_observerContext, infos, m);
}

}  // namespace

void gps_message_init(gps_message_t* message) {
  std::memset(message, 0, sizeof *message);
  message->handlers[FRAME_STATE_IDLE] = HandleIdle;
  message->handlers[FRAME_STATE_NMEA] = HandleNmea;
  message->handlers[FRAME_STATE_UBX_SYNC2] = HandleUbxSync2;
  message->handlers[FRAME_STATE_UBX_CLASS] = HandleUbxClass;
  message->handlers[FRAME_STATE_UBX_ID] = HandleUbxId;
  message->handlers[FRAME_STATE_UBX_LENGTH_LOW] = HandleUbxLengthLow;
  message->handlers[FRAME_STATE_UBX_LENGTH_HIGH] = HandleUbxLengthHigh;
  message->handlers[FRAME_STATE_UBX_PAYLOAD] = HandleUbxPayload;
  message->state = FRAME_STATE_IDLE;
}

void analyze_gps(gps_private_info_t* infos, gps_message_t* message, const uint8_t* data, uint32_t count) {
  if (!data || count == 0) return;
  lib_GPS_TraceHex(7, count, data, 1);
  // The u-blox driver delivers whole messages, so each chunk starts framing
  // afresh; the modem's stream is cut anywhere and carries over.
  if (infos->module_type == GPS_MODULE_TYPE_UBX_G7020 || infos->module_type == GPS_MODULE_TYPE_UBX_M8030)
    message->state = FRAME_STATE_IDLE;
  ChunkClock clock{RealtimeNs(), 0};
  uint32_t i = 0;
  while (i < count) {
    if (message->state == FRAME_STATE_NMEA) {
      // Inside a sentence every byte up to the line feed is stored (as long as
      // the buffer has room), so the body is taken in one step rather than
      // through the handler byte by byte.
      const uint8_t* lf = static_cast<const uint8_t*>(std::memchr(data + i, '\n', count - i));
      const uint32_t end = lf ? static_cast<uint32_t>(lf - data) + 1 : count;
      const uint32_t room = GPS_FRAME_BUFFER_BYTES - message->length;
      const uint32_t take = end - i < room ? end - i : room;
      std::memcpy(message->buffer + message->length, data + i, take);
      message->length += take;
      i = end;
      if (lf) {
        message->state = FRAME_STATE_IDLE;
        clock.bytesAfter = count - i;
        DispatchMessage(infos, message, clock);
      }
      continue;
    }
    if (gps_message_feed(message, data[i++])) {
      clock.bytesAfter = count - i;
      DispatchMessage(infos, message, clock);
    }
  }
}

void lib_GPS_SetMessageObserver(gps_message_observer_t observer, void* context) {
  g_observer = observer;
  g_observerContext = context;
}
