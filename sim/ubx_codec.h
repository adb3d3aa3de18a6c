// The simulated receiver's own UBX codec: little-endian field access, frame
// building with the Fletcher checksum, and a reader that cuts whole frames out
// of the host's byte stream. Kept apart from the engine's codec on purpose, so
// that the two sides check each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace gps::sim::ubx {

inline constexpr uint8_t kSync1 = 0xB5;
inline constexpr uint8_t kSync2 = 0x62;
inline constexpr size_t kHeaderBytes = 6;    // sync, class, id, length
inline constexpr size_t kOverheadBytes = 8;  // header and the two checksum bytes

namespace cls {
inline constexpr uint8_t kNav = 0x01;
inline constexpr uint8_t kRxm = 0x02;
inline constexpr uint8_t kAck = 0x05;
inline constexpr uint8_t kCfg = 0x06;
inline constexpr uint8_t kMon = 0x0A;
inline constexpr uint8_t kAid = 0x0B;
inline constexpr uint8_t kNmea = 0xF0;
}  // namespace cls

// Fletcher-8 over class, id, length and payload: {CK_A, CK_B}.
struct Checksum {
  uint8_t a = 0;
  uint8_t b = 0;
  bool operator==(const Checksum&) const = default;
};
Checksum ComputeChecksum(std::span<const uint8_t> classToPayloadEnd);

// A complete frame: sync, class, id, length, payload, checksum.
std::vector<uint8_t> EncodeFrame(uint8_t messageClass, uint8_t messageId, std::span<const uint8_t> payload);

inline uint16_t GetU16(std::span<const uint8_t> p, size_t at) {
  return static_cast<uint16_t>(p[at] | (p[at + 1] << 8));
}
inline uint32_t GetU32(std::span<const uint8_t> p, size_t at) {
  return static_cast<uint32_t>(p[at]) | (static_cast<uint32_t>(p[at + 1]) << 8) |
         (static_cast<uint32_t>(p[at + 2]) << 16) | (static_cast<uint32_t>(p[at + 3]) << 24);
}
inline int32_t GetI32(std::span<const uint8_t> p, size_t at) { return static_cast<int32_t>(GetU32(p, at)); }

inline void PutU8(std::vector<uint8_t>& p, size_t at, uint8_t v) { p[at] = v; }
inline void PutU16(std::vector<uint8_t>& p, size_t at, uint16_t v) {
  p[at] = static_cast<uint8_t>(v);
  p[at + 1] = static_cast<uint8_t>(v >> 8);
}
inline void PutU32(std::vector<uint8_t>& p, size_t at, uint32_t v) {
  for (size_t i = 0; i < 4; ++i) p[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void PutI16(std::vector<uint8_t>& p, size_t at, int16_t v) { PutU16(p, at, static_cast<uint16_t>(v)); }
inline void PutI32(std::vector<uint8_t>& p, size_t at, int32_t v) { PutU32(p, at, static_cast<uint32_t>(v)); }

// One frame as it arrived from the host, whole, checksum verified.
struct Frame {
  std::vector<uint8_t> bytes;
  bool checksumOk = false;

  uint8_t messageClass() const { return bytes[2]; }
  uint8_t messageId() const { return bytes[3]; }
  std::span<const uint8_t> payload() const {
    return std::span<const uint8_t>(bytes).subspan(kHeaderBytes, bytes.size() - kOverheadBytes);
  }
};

// Cuts UBX frames out of an arbitrary byte stream. Bytes outside frames
// (NMEA commands, line noise) are dropped. A header announcing more than
// kMaxPayloadBytes is taken for noise and the search resumes after its sync.
class FrameReader {
 public:
  static constexpr size_t kMaxPayloadBytes = 4096;

  // Appends complete frames, in order, to `frames`.
  void Push(std::span<const uint8_t> bytes, std::vector<Frame>& frames);
  void Reset() { pending_.clear(); }

 private:
  std::vector<uint8_t> pending_;
};

}  // namespace gps::sim::ubx
