// Helpers shared by the simulator tests: a receiver on a fixed clock and
// position, a host-side reader of its output that does not reuse the
// simulator's own code, and the simulator tools run as child processes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "sim/receiver.h"
#include "tests/support/child_process.h"

namespace gps::sim::testing {

using Bytes = std::vector<uint8_t>;

// 2024-03-18 12:00:00 UTC.
inline constexpr int64_t kStartUtcMs = 1710763200000;

// Standing at 48.8566 N 2.3522 E, 35 m above sea level.
inline Receiver MakeTestReceiver(ReceiverConfig config = {}) {
  config.utcAtStartMs = kStartUtcMs;
  return Receiver(config, Scenario::FixedPoint({48.8566, 2.3522, 35}));
}

struct UbxOut {
  uint8_t cls, id;
  Bytes payload;
};

struct Output {
  std::vector<std::string> nmea;  // without CR LF
  std::vector<UbxOut> ubx;
  bool wellFormed = true;  // whole messages only, every checksum right

  std::vector<std::string> Sentences(const std::string& type) const {  // e.g. "GGA"
    std::vector<std::string> out;
    std::copy_if(nmea.begin(), nmea.end(), std::back_inserter(out), [&](auto& s) { return s.find(type) == 3; });
    return out;
  }
  std::vector<UbxOut> Frames(uint8_t c, uint8_t i) const {
    std::vector<UbxOut> out;
    std::copy_if(ubx.begin(), ubx.end(), std::back_inserter(out), [&](auto& f) { return f.cls == c && f.id == i; });
    return out;
  }
  Bytes Last(uint8_t c, uint8_t i) const {  // payload of the last such frame
    const std::vector<UbxOut> all = Frames(c, i);
    return all.empty() ? Bytes{} : all.back().payload;
  }
};

// Splits a receiver stream into NMEA sentences and UBX frames, verifying
// every checksum and that nothing lies between them.
inline Output Parse(const std::string& bytes) {
  Output out;
  for (size_t i = 0; i < bytes.size();) {
    const auto at = [&](size_t k) { return static_cast<uint8_t>(bytes[i + k]); };
    if (bytes[i] == '$') {
      const size_t end = bytes.find("\r\n", i);
      const std::string line = bytes.substr(i, end == std::string::npos ? std::string::npos : end - i);
      const size_t star = line.rfind('*');
      unsigned sum = 0, stated = 0x100;
      for (size_t k = 1; star != std::string::npos && k < star; ++k) sum ^= static_cast<uint8_t>(line[k]);
      if (star != std::string::npos) std::sscanf(line.c_str() + star + 1, "%2X", &stated);
      if (end == std::string::npos || sum != stated || line.size() != star + 3) out.wellFormed = false;
      out.nmea.push_back(line);
      i = end == std::string::npos ? bytes.size() : end + 2;
    } else if (at(0) == 0xB5 && i + 8 <= bytes.size()) {
      const size_t length = at(4) | (at(5) << 8);
      if (i + 8 + length > bytes.size()) return out.wellFormed = false, out;
      uint8_t a = 0, b = 0;
      for (size_t k = 2; k < 6 + length; ++k) a = static_cast<uint8_t>(a + at(k)), b = static_cast<uint8_t>(b + a);
      if (at(1) != 0x62 || a != at(6 + length) || b != at(7 + length)) out.wellFormed = false;
      const auto payload = bytes.begin() + static_cast<long>(i + 6);
      out.ubx.push_back({at(2), at(3), Bytes(payload, payload + static_cast<long>(length))});
      i += length + 8;
    } else {
      out.wellFormed = false;  // a byte outside any sentence or frame
      ++i;
    }
  }
  return out;
}

// The field `index` of a sentence (0 is the address, e.g. "GNGGA").
inline std::string Field(const std::string& sentence, size_t index) {
  const std::string body = sentence.substr(1, sentence.rfind('*') - 1);
  size_t start = 0;
  for (size_t k = 0; k < index; ++k) {
    start = body.find(',', start);
    if (start == std::string::npos) return "<none>";
    ++start;
  }
  return body.substr(start, body.find(',', start) - start);
}

inline uint32_t U32(const Bytes& p, size_t at) {
  return p.at(at) | (p.at(at + 1) << 8) | (p.at(at + 2) << 16) | (static_cast<uint32_t>(p.at(at + 3)) << 24);
}
inline uint16_t U16(const Bytes& p, size_t at) { return static_cast<uint16_t>(p.at(at) | (p.at(at + 1) << 8)); }

inline Bytes Frame(uint8_t cls, uint8_t id, const Bytes& payload) { return ubx::EncodeFrame(cls, id, payload); }

// Runs the receiver until `untilMs` and returns what it wrote meanwhile.
inline Output RunUntil(Receiver& r, uint64_t untilMs, uint64_t stepMs = 100) {
  std::string bytes;
  for (uint64_t t = r.nowMs(); t <= untilMs; t += stepMs) {
    r.Advance(t);
    bytes += r.TakeOutputBytes();
  }
  return Parse(bytes);
}

inline Output Send(Receiver& r, const Bytes& bytes) {
  r.Receive(bytes);
  return Parse(r.TakeOutputBytes());
}

// Reads from `fd` for `timeout`, or until `enough` holds for what came.
inline std::string ReadFor(int fd, std::chrono::milliseconds timeout,
                           const std::function<bool(const std::string&)>& enough = {}) {
  std::string got;
  for (const auto end = std::chrono::steady_clock::now() + timeout;
       std::chrono::steady_clock::now() < end && !(enough && enough(got));) {
    pollfd p{fd, POLLIN, 0};
    char buffer[4096];
    if (poll(&p, 1, 20) <= 0) continue;
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    got.append(buffer, static_cast<size_t>(n));
  }
  return got;
}

// The simulator tools run as child processes, killed with their process group
// however the test ends.
using gps::test::ChildProcess;

}  // namespace gps::sim::testing
