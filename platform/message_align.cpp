#include "platform/message_align.h"

#include <algorithm>
#include <cstring>

namespace gps::platform {
namespace {

constexpr uint8_t kNmeaStart = '$';
constexpr uint8_t kUbxSync1 = 0xB5;
constexpr uint8_t kUbxSync2 = 0x62;
constexpr size_t kUbxOverhead = 8;  // sync, class, id, length, checksum

enum class Unit { Complete, Incomplete };

// Length of the unit starting at bytes[0] within `window` (bytes the chunk may
// still take); Incomplete when it needs bytes that have not arrived yet.
Unit MeasureUnit(std::span<const uint8_t> bytes, size_t window, size_t& length) {
  const uint8_t first = bytes[0];
  if (first == kNmeaStart) {
    const size_t span = std::min(bytes.size(), window);
    const void* lf = std::memchr(bytes.data(), '\n', span);
    if (lf) {
      length = static_cast<size_t>(static_cast<const uint8_t*>(lf) - bytes.data()) + 1;
      return Unit::Complete;
    }
    if (bytes.size() >= window) {
      length = window;  // a sentence longer than any chunk: pass it on in pieces
      return Unit::Complete;
    }
    return Unit::Incomplete;
  }
  if (first == kUbxSync1) {
    if (bytes.size() < 2) return Unit::Incomplete;
    if (bytes[1] != kUbxSync2) {
      length = 1;
      return Unit::Complete;
    }
    if (bytes.size() < 6) return Unit::Incomplete;
    const size_t frame = kUbxOverhead + (bytes[4] | (static_cast<size_t>(bytes[5]) << 8));
    if (frame > window) {
      if (bytes.size() < window) return Unit::Incomplete;
      length = window;  // can never be delivered whole
      return Unit::Complete;
    }
    if (bytes.size() < frame) return Unit::Incomplete;
    length = frame;
    return Unit::Complete;
  }
  // A run of bytes that starts no message.
  size_t n = 1;
  const size_t span = std::min(bytes.size(), window);
  while (n < span && bytes[n] != kNmeaStart && bytes[n] != kUbxSync1) ++n;
  length = n;
  return Unit::Complete;
}

}  // namespace

size_t WholeMessagesPrefix(std::span<const uint8_t> bytes, size_t limit) {
  if (limit == 0) return 0;
  size_t taken = 0;
  while (taken < bytes.size() && taken < limit) {
    size_t length = 0;
    // A message that could fit a chunk of its own is measured against the
    // whole limit, so it is never cut just because this chunk is almost full.
    if (MeasureUnit(bytes.subspan(taken), limit, length) == Unit::Incomplete) break;
    if (taken + length > limit) break;
    taken += length;
  }
  return taken;
}

}  // namespace gps::platform
