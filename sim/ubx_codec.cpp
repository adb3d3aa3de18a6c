#include "sim/ubx_codec.h"

#include <algorithm>

namespace gps::sim::ubx {

Checksum ComputeChecksum(std::span<const uint8_t> classToPayloadEnd) {
  Checksum ck;
  for (uint8_t byte : classToPayloadEnd) {
    ck.a = static_cast<uint8_t>(ck.a + byte);
    ck.b = static_cast<uint8_t>(ck.b + ck.a);
  }
  return ck;
}

std::vector<uint8_t> EncodeFrame(uint8_t messageClass, uint8_t messageId, std::span<const uint8_t> payload) {
  std::vector<uint8_t> frame;
  frame.reserve(payload.size() + kOverheadBytes);
  frame.push_back(kSync1);
  frame.push_back(kSync2);
  frame.push_back(messageClass);
  frame.push_back(messageId);
  frame.push_back(static_cast<uint8_t>(payload.size()));
  frame.push_back(static_cast<uint8_t>(payload.size() >> 8));
  frame.insert(frame.end(), payload.begin(), payload.end());
  const Checksum ck = ComputeChecksum(std::span<const uint8_t>(frame).subspan(2));
  frame.push_back(ck.a);
  frame.push_back(ck.b);
  return frame;
}

void FrameReader::Push(std::span<const uint8_t> bytes, std::vector<Frame>& frames) {
  pending_.insert(pending_.end(), bytes.begin(), bytes.end());
  size_t pos = 0;
  while (true) {
    // Find the next sync pair; a lone 0xB5 at the very end may be the start of one.
    while (pos < pending_.size() && pending_[pos] != kSync1) ++pos;
    if (pos + 1 >= pending_.size()) break;
    if (pending_[pos + 1] != kSync2) {
      ++pos;
      continue;
    }
    if (pending_.size() - pos < kHeaderBytes) break;
    const size_t length = static_cast<size_t>(pending_[pos + 4]) | (static_cast<size_t>(pending_[pos + 5]) << 8);
    if (length > kMaxPayloadBytes) {
      ++pos;
      continue;
    }
    const size_t total = length + kOverheadBytes;
    if (pending_.size() - pos < total) break;
    Frame frame;
    frame.bytes.assign(pending_.begin() + static_cast<std::ptrdiff_t>(pos),
                       pending_.begin() + static_cast<std::ptrdiff_t>(pos + total));
    const Checksum ck = ComputeChecksum(std::span<const uint8_t>(frame.bytes).subspan(2, length + 4));
    frame.checksumOk = ck.a == frame.bytes[total - 2] && ck.b == frame.bytes[total - 1];
    frames.push_back(std::move(frame));
    pos += total;
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(std::min(pos, pending_.size())));
}

}  // namespace gps::sim::ubx
