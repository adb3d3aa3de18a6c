// The chrony time source: one SOCK refclock sample per fix with a valid,
// confirmed time, sent to the datagram socket chronyd created.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/time.h>

#include "export/record_view.h"

namespace gps::exporter {

// chrony's refclock SOCK sample, field for field.
struct SockSample {
  timeval tv;     // system time of the measurement
  double offset;  // true time minus system time at tv [s]
  int pulse;
  int leap;       // 0 none, 1 insert, 2 delete
  int _pad;
  int magic;
};
inline constexpr int kSockSampleMagic = 0x534f434b;
static_assert(sizeof(SockSample) == 40, "chrony reads a 40-byte sample on 64-bit Linux");

// Finds where each receiver epoch began on the line: the first byte of the
// first message after a quiet gap.
class EpochClock {
 public:
  // nsPerByte: line time of one byte (0 for the in-process simulator).
  explicit EpochClock(int64_t nsPerByte) : nsPerByte_(nsPerByte) {}
  void observe(const LoggedMessage& message);
  std::optional<int64_t> epochStartNs() const { return epochStartNs_; }

 private:
  int64_t nsPerByte_;
  int64_t lastByteNs_ = 0;
  std::optional<int64_t> epochStartNs_;
};

// The sample for a fix, or nothing when its time must not steer a clock: the
// fix is not current, the date or time is missing or unconfirmed, the
// receiver is off.
std::optional<SockSample> MakeSample(const RecordView& view, std::optional<int64_t> epochStartNs);

class ChronySource {
 public:
  explicit ChronySource(std::string path) : path_(std::move(path)) {}
  ~ChronySource();
  ChronySource(const ChronySource&) = delete;
  ChronySource& operator=(const ChronySource&) = delete;

  // Sends without blocking. chronyd absent: one log line, then silence until
  // a sample goes through again.
  void send(const SockSample& sample);
  const std::string& path() const { return path_; }
  uint64_t sent() const { return sent_; }

 private:
  std::string path_;
  int fd_ = -1;
  bool failing_ = false;
  uint64_t sent_ = 0;
};

}  // namespace gps::exporter
