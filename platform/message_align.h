// Message-aligned delivery of a receiver byte stream. The engine restarts its
// framer at every chunk it reads from a u-blox receiver, so whoever hands it
// chunks must cut the stream only between messages: after the line feed of an
// NMEA sentence, after the checksum of a UBX frame, or around bytes that belong
// to no message.
#pragma once

#include <chrono>
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

// Messages removed from the stream because a line lost or flipped bytes.
struct DroppedMessages {
  uint32_t nmea = 0;
  uint32_t ubx = 0;
  uint32_t total() const { return nmea + ubx; }
};

// Removes, in place, the corrupt messages of a chunk that ends on message
// boundaries (a WholeMessagesPrefix), so the engine never analyses them:
//   - an NMEA sentence whose "*hh" does not match the exclusive-or of the bytes
//     between "$" and "*", or whose "*" is not followed by two hexadecimal
//     digits and the line end. A sentence without "*" passes: older receivers
//     send no checksum;
//   - the part of a sentence up to a second "$": a sentence that lost its line
//     end and ran into the next one, which is then checked on its own;
//   - a GGA or RMC sentence holding a value no receiver measures: a latitude
//     over 90 degrees or a longitude over 180, minutes of 60 or more, a sign
//     or any character but digits and a point in a coordinate, a hemisphere
//     other than N/S (latitude) or E/W (longitude), a time beyond 23:59:60, a
//     date that is no day of the calendar. Empty fields pass;
//   - a UBX frame whose two checksum bytes do not match its class, id, length
//     and payload.
// A message passed on in pieces (longer than any chunk) cannot be checked and
// passes, as do bytes that belong to no message, including binary data of
// other protocols that holds a "$" (see LooksLikeSentence in the source).
// Returns the chunk's new length; adds what it removed to `dropped`.
size_t DropCorruptMessages(std::span<uint8_t> chunk, DroppedMessages& dropped, size_t limit = kMaxDeviceChunk);

// Says at level 4 how many corrupt messages were dropped, at most once a
// minute: the first drop at once, later ones summed until a minute has passed
// since the last report.
class DropReport {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr auto kInterval = std::chrono::minutes(1);

  void Add(const DroppedMessages& dropped, Clock::time_point now = Clock::now());

 private:
  DroppedMessages unreported_;
  bool reported_ = false;
  Clock::time_point lastReport_{};
};

}  // namespace gps::platform
