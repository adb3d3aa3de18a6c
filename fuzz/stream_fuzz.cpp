// Fuzz target for the receive path: arbitrary receiver bytes, cut into chunks
// the way a driver might deliver them, go through analyze_gps (framer, NMEA
// parser, UBX analysis) of a freshly reset engine record. The message-aligned
// splitter that the u-blox driver uses is checked on the same bytes, and its
// message-aligned chunks go through the driver's corruption check before the
// engine sees them, as they do in the driver.
//
// Input layout (missing header bytes count as zero):
//   [0]     bit 0, module type: 0 -> 2 (u-blox UBX-M8030, framing restarts
//           at every chunk), 1 -> 3 (GPRS modem, framing carries over);
//           bit 1, expert mode; bits 2-3, the assistance mode (0 to 3), which
//           a version answer in the stream puts to work
// Every input has assistance data loaded (AID-ALPSRV requests of any offset
// and size are served from it); the receiver itself stays closed, so answers
// and configuration frames are built but not written anywhere.
//   [1]     chunk plan, modulo 3: 0 fixed size, 1 pseudo-random sizes up to
//           the limit, 2 message-aligned (WholeMessagesPrefix, then
//           DropCorruptMessages, as the u-blox driver reads)
//   [2..3]  little-endian; chunk limit = 1 + value % 2176
//   [4]     clock step: every read of the tick counter moves it on by 4 x
//           this many ticks, so large steps reach the once-a-minute store of
//           the last fix (a parameters-file write with fsync) after a few
//           sentences, and small ones never do
//   [5...]  the receiver stream
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz/fuzz_root.h"
#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "platform/message_align.h"
#include "platform/root.h"
#include "platform/settings.h"
#include "assist/assistnow.h"
#include "transport/gps_trace.h"

namespace {

constexpr size_t kHeaderBytes = 5;
constexpr uint32_t kGprsModuleType = 3;
constexpr uint32_t kTickStepScale = 4;

gps_parameters_t g_restoredParameters;
gps_message_t g_frame;

uint32_t g_tick = 0;
uint32_t g_tickStep = 0;
uint32_t AdvancingTicks() {
  g_tick += g_tickStep;
  return g_tick;
}



// Names the broken rule before the trap, which libFuzzer reports as a crash.
[[noreturn]] void Fail(const char* rule, size_t size, size_t limit, size_t prefix) {
  std::fprintf(stderr, "WholeMessagesPrefix: %s (size %zu, limit %zu, prefix %zu)\n", rule, size, limit, prefix);
  __builtin_trap();
}

// True when `bytes` begins with a message that more bytes could still
// complete within `limit`: the only case in which the splitter may take
// nothing.
bool StartsWithIncompleteMessage(std::span<const uint8_t> bytes, size_t limit) {
  if (bytes.empty()) return false;
  if (bytes[0] == '$') return bytes.size() < limit && std::memchr(bytes.data(), '\n', bytes.size()) == nullptr;
  if (bytes[0] == 0xB5) {
    if (bytes.size() < 2) return true;
    if (bytes[1] != 0x62) return false;
    if (bytes.size() < 6) return true;
    const size_t frame = 8 + (bytes[4] | (static_cast<size_t>(bytes[5]) << 8));
    return bytes.size() < (frame < limit ? frame : limit);
  }
  return false;
}

// Runs the splitter and checks what any caller relies on: the prefix fits
// both the input and the limit, nothing is held back unless a message may
// still complete, and the prefix is itself whole messages, so cutting it again
// changes nothing. Two cuts depend on bytes after them: a final 0xB5 that
// the next byte showed to start no frame (seen alone it may still be a sync
// byte), and, with a limit below the 6 bytes that reach a frame's length
// field, a piece of a UBX frame.
size_t CheckedPrefix(std::span<const uint8_t> bytes, size_t limit) {
  const size_t prefix = gps::platform::WholeMessagesPrefix(bytes, limit);
  if (prefix > limit || prefix > bytes.size()) Fail("prefix beyond the input or the limit", bytes.size(), limit, prefix);
  if (prefix == 0 && !bytes.empty() && !StartsWithIncompleteMessage(bytes, limit))
    Fail("nothing taken although no message is pending", bytes.size(), limit, prefix);
  if (prefix > 0 && limit >= 6) {
    const size_t again = gps::platform::WholeMessagesPrefix(bytes.first(prefix), limit);
    if (again != prefix && !(bytes[prefix - 1] == 0xB5 && again == prefix - 1))
      Fail("prefix is not whole messages", bytes.size(), limit, prefix);
  }
  return prefix;
}

// A little more than the 131072 bytes the served-block bitmaps cover.
constexpr uint32_t kAssistanceBytes = 136 * 1024;

void ResetEngine(uint32_t moduleType) {
  lib_GPS_FreeAssistanceData(&gps_private_info);
  lib_GPS_ClearRecord(&gps_private_info);
  gps_private_info.module_type = moduleType;
  // The parser records each fix into the parameters record; every input
  // starts from the file as it was read at start-up.
  std::memcpy(&gps_parameters, &g_restoredParameters, sizeof gps_parameters);
  gps_message_init(&g_frame);
  // Owned by the record, as the loaders leave it: the engine frees it itself
  // when the stream switches assistance off.
  static const std::vector<uint8_t> pattern = [] {
    std::vector<uint8_t> bytes(kAssistanceBytes);
    for (uint32_t i = 0; i < kAssistanceBytes; ++i) bytes[i] = static_cast<uint8_t>(i * 31);
    return bytes;
  }();
  gps_private_info.alp_data = new uint8_t[kAssistanceBytes];
  std::memcpy(gps_private_info.alp_data, pattern.data(), kAssistanceBytes);
  gps_private_info.alp_size = kAssistanceBytes;
  gps_private_info.alp_file_id = 0xFECA;
}

void Feed(std::span<const uint8_t> chunk) {
  analyze_gps(&gps_private_info, &g_frame, chunk.data(), static_cast<uint32_t>(chunk.size()));
}

// The driver's check on a chunk: what it keeps is never more than it got, and
// every byte removed belongs to a message it counted.
void FeedChecked(std::span<const uint8_t> chunk, size_t limit) {
  static uint8_t copy[gps::platform::kMaxDeviceChunk];
  std::memcpy(copy, chunk.data(), chunk.size());
  gps::platform::DroppedMessages dropped;
  const size_t kept = gps::platform::DropCorruptMessages({copy, chunk.size()}, dropped, limit);
  if (kept > chunk.size() || (kept < chunk.size()) != (dropped.total() > 0)) {
    std::fprintf(stderr, "DropCorruptMessages: kept %zu of %zu bytes, dropped %u\n", kept, chunk.size(),
                 dropped.total());
    __builtin_trap();
  }
  Feed({copy, kept});
}

// Reads back what an application would ask for after the stream, with each
// stale-fix policy, so the fields the parser filled are copied out too.
void QueryFix() {
  char a[16];
  char b[16];
  uint32_t age = 0;
  uint8_t status[16];
  uint32_t tick = 0;
  for (uint32_t flags = 1; flags <= 3; ++flags) {
    lib_GPS_Geolocating_GPS_GetPosition(a, b, &age, flags);
    lib_GPS_Geolocating_GPS_GetDateAndTime(a, b, &age, flags);
    lib_GPS_Geolocating_GPS_GetAltitude(a, &age, flags);
    lib_GPS_Geolocating_GPS_GetHDOP(a, &age, flags);
    lib_GPS_Geolocating_GPS_GetSpeedKMH(a, &age, flags);
    lib_GPS_Geolocating_GPS_GetSpeedKnot(a, &age, flags);
    lib_GPS_Geolocating_GPS_GetHeading(a, &age, flags);
  }
  lib_GPS_Geolocating_GPS_GetTTFF(status, &tick);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gps::fuzz::UseThrowawayRoot("gps-fuzz");
  lib_GPS_TraceInit(1);
  lib_GPS_param_RestorePersistentStorage();
  std::memcpy(&g_restoredParameters, &gps_parameters, sizeof g_restoredParameters);
  gps::platform::SetTickSource(AdvancingTicks);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  uint8_t header[kHeaderBytes] = {};
  const size_t headerBytes = size < kHeaderBytes ? size : kHeaderBytes;
  if (headerBytes > 0) std::memcpy(header, data, headerBytes);
  const std::span<const uint8_t> stream(data + headerBytes, size - headerBytes);

  const uint32_t moduleType = (header[0] & 1) ? kGprsModuleType : GPS_MODULE_TYPE_UBX_M8030;
  const uint32_t plan = header[1] % 3;
  const uint32_t limitField = header[2] | (static_cast<uint32_t>(header[3]) << 8);
  const size_t limit = 1 + limitField % gps::platform::kMaxDeviceChunk;
  g_tick = 0;
  g_tickStep = header[4] * kTickStepScale;

  ResetEngine(moduleType);
  gps_private_info.expertModeIsEnabled = (header[0] >> 1) & 1;
  gps_private_info.assistnow = (header[0] >> 2) & 3;
  CheckedPrefix(stream, limit);

  uint32_t random = (limitField << 8) ^ header[1] ^ 0x9E3779B9u;
  size_t used = 0;
  while (used < stream.size()) {
    const auto rest = stream.subspan(used);
    size_t n = 0;
    if (plan == 0) {
      n = limit;
    } else if (plan == 1) {
      random ^= random << 13;  // xorshift32
      random ^= random >> 17;
      random ^= random << 5;
      n = 1 + random % limit;
    } else {
      n = CheckedPrefix(rest, limit);
      if (n == 0) n = limit;  // the stream ends inside a message: deliver the rest
    }
    if (n > rest.size()) n = rest.size();
    if (plan == 2 && moduleType != kGprsModuleType) {
      FeedChecked(rest.first(n), limit);
    } else {
      Feed(rest.first(n));
    }
    used += n;
  }

  QueryFix();
  lib_GPS_FreeAssistanceData(&gps_private_info);
  return 0;
}
