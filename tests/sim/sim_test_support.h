// Helpers shared by the simulator tests: a receiver on a fixed clock and
// position, and a host-side reader of its output that does not reuse the
// simulator's own code.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "sim/receiver.h"

namespace gps::sim::testing {

// 2024-03-18 12:00:00 UTC.
inline constexpr int64_t kStartUtcMs = 1710763200000;
inline const Waypoint kHere{48.8566, 2.3522, 35.0};

inline Receiver MakeTestReceiver(ReceiverConfig config = {}, Scenario scenario = Scenario::FixedPoint(kHere)) {
  config.utcAtStartMs = kStartUtcMs;
  return Receiver(config, std::move(scenario));
}

struct UbxOut {
  uint8_t cls;
  uint8_t id;
  std::vector<uint8_t> payload;
  std::vector<uint8_t> whole;
};

struct Output {
  std::vector<std::string> nmea;  // without CR LF
  std::vector<UbxOut> ubx;
  bool allChecksumsOk = true;
  bool allLinesEndCrLf = true;

  std::vector<std::string> Sentences(const std::string& type) const {  // e.g. "GGA"
    std::vector<std::string> out;
    for (const std::string& s : nmea)
      if (s.size() > 6 && s.compare(3, 3, type) == 0) out.push_back(s);
    return out;
  }
  std::vector<UbxOut> Frames(uint8_t c, uint8_t i) const {
    std::vector<UbxOut> out;
    for (const UbxOut& f : ubx)
      if (f.cls == c && f.id == i) out.push_back(f);
    return out;
  }
};

// Splits a receiver stream into NMEA sentences and UBX frames, verifying
// every checksum on the way.
inline Output Parse(const std::string& bytes) {
  Output out;
  size_t i = 0;
  while (i < bytes.size()) {
    if (bytes[i] == '$') {
      const size_t end = bytes.find("\r\n", i);
      const size_t stop = end == std::string::npos ? bytes.find('\n', i) : end;
      const std::string line = bytes.substr(i, (stop == std::string::npos ? bytes.size() : stop) - i);
      if (end == std::string::npos) out.allLinesEndCrLf = false;
      const size_t star = line.rfind('*');
      unsigned sum = 0, stated = 0x100;
      if (star != std::string::npos) {
        for (size_t k = 1; k < star; ++k) sum ^= static_cast<uint8_t>(line[k]);
        std::sscanf(line.c_str() + star + 1, "%2X", &stated);
      }
      if (sum != stated || line.size() != star + 3) out.allChecksumsOk = false;
      out.nmea.push_back(line);
      i = stop == std::string::npos ? bytes.size() : stop + (end == stop ? 2 : 1);
    } else if (static_cast<uint8_t>(bytes[i]) == 0xB5 && i + 8 <= bytes.size()) {
      const auto at = [&](size_t k) { return static_cast<uint8_t>(bytes[i + k]); };
      const size_t length = at(4) | (at(5) << 8);
      uint8_t a = 0, b = 0;
      for (size_t k = 2; k < 6 + length; ++k) {
        a = static_cast<uint8_t>(a + at(k));
        b = static_cast<uint8_t>(b + a);
      }
      if (at(1) != 0x62 || a != at(6 + length) || b != at(7 + length)) out.allChecksumsOk = false;
      UbxOut f{at(2), at(3), {}, {}};
      for (size_t k = 0; k < length + 8; ++k) f.whole.push_back(at(k));
      f.payload.assign(f.whole.begin() + 6, f.whole.end() - 2);
      out.ubx.push_back(f);
      i += length + 8;
    } else {
      ++i;
    }
  }
  return out;
}

// The field `index` of a sentence (0 is the address, e.g. "GNGGA").
inline std::string Field(const std::string& sentence, size_t index) {
  std::string body = sentence.substr(1, sentence.rfind('*') - 1);
  size_t start = 0;
  for (size_t k = 0; k < index; ++k) {
    start = body.find(',', start);
    if (start == std::string::npos) return "<none>";
    ++start;
  }
  return body.substr(start, body.find(',', start) - start);
}

inline uint32_t U32(const std::vector<uint8_t>& p, size_t at) {
  return p[at] | (p[at + 1] << 8) | (p[at + 2] << 16) | (static_cast<uint32_t>(p[at + 3]) << 24);
}
inline uint16_t U16(const std::vector<uint8_t>& p, size_t at) { return static_cast<uint16_t>(p[at] | (p[at + 1] << 8)); }

inline std::vector<uint8_t> Frame(uint8_t cls, uint8_t id, const std::vector<uint8_t>& payload) {
  return ubx::EncodeFrame(cls, id, payload);
}

// Runs the receiver until `untilMs` and returns what it wrote meanwhile.
inline Output RunUntil(Receiver& r, uint64_t untilMs, uint64_t stepMs = 100) {
  std::string bytes;
  for (uint64_t t = r.nowMs(); t <= untilMs; t += stepMs) {
    r.Advance(t);
    bytes += r.TakeOutputBytes();
  }
  return Parse(bytes);
}

inline Output Send(Receiver& r, const std::vector<uint8_t>& bytes) {
  r.Receive(bytes);
  return Parse(r.TakeOutputBytes());
}

}  // namespace gps::sim::testing
