// Message-aligned delivery of a receiver byte stream. The engine restarts its
// framer at every chunk it reads from a u-blox receiver, so whoever hands it
// chunks must cut the stream only between messages: after the line feed of an
// NMEA sentence, after the checksum of a UBX frame, or around bytes that belong
// to no message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace gps::platform {

// Largest chunk handed to the engine in one read.
inline constexpr size_t kMaxDeviceChunk = 2176;

// Length of the longest prefix of `bytes`, at most `limit` bytes, that ends on
// a message boundary. A message that can never fit in `limit` (a sentence
// without its line feed for `limit` bytes, a UBX frame declaring more than
// `limit` - 8 payload bytes) is passed on in pieces rather than held forever.
// Returns 0 only when `bytes` starts with an incomplete message that may still
// complete; the caller then waits for more bytes.
size_t WholeMessagesPrefix(std::span<const uint8_t> bytes, size_t limit = kMaxDeviceChunk);

}  // namespace gps::platform
