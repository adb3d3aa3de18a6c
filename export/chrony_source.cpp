#include "export/chrony_source.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/os.h"

namespace gps::exporter {

namespace {
// Between two epochs a receiver's line is quiet for most of the fix period;
// inside an epoch its messages follow each other closely.
constexpr int64_t kEpochGapNs = 100'000'000;
}  // namespace

void EpochClock::observe(const LoggedMessage& m) {
  const int64_t firstByteNs = m.receivedNs - static_cast<int64_t>(m.lineBytes) * nsPerByte_;
  const int64_t lastByteNs = firstByteNs + static_cast<int64_t>(m.length) * nsPerByte_;
  if (!epochStartNs_ || firstByteNs - lastByteNs_ > kEpochGapNs) epochStartNs_ = firstByteNs;
  lastByteNs_ = lastByteNs;
}

std::optional<SockSample> MakeSample(const RecordView& view, std::optional<int64_t> epochStartNs) {
  if (!view.device.powered || !view.fix.current || !view.fix.utcMs || !epochStartNs) return std::nullopt;
  int64_t trueNs = *view.fix.utcMs * 1000000;
  if (view.pvtTime) {
    // The receiver says whether its time is resolved and confirmed.
    if (!view.pvtTime->valid || !view.pvtTime->confirmed) return std::nullopt;
    if (view.pvtTime->utcMs / 1000 == *view.fix.utcMs / 1000)
      trueNs = view.pvtTime->utcMs * 1000000 + view.pvtTime->nanoRemainder;
  }
  SockSample s{};
  s.tv.tv_sec = static_cast<time_t>(*epochStartNs / 1000000000);
  s.tv.tv_usec = static_cast<suseconds_t>((*epochStartNs % 1000000000) / 1000);
  s.offset = static_cast<double>(trueNs - (static_cast<int64_t>(s.tv.tv_sec) * 1000000000 + s.tv.tv_usec * 1000)) / 1e9;
  s.pulse = 0;
  s.leap = view.leap.change;  // an announced leap second at the end of this UTC day
  s.magic = kSockSampleMagic;
  return s;
}

ChronySource::~ChronySource() {
  if (fd_ >= 0) ::close(fd_);
}

void ChronySource::send(const SockSample& sample) {
  if (fd_ < 0) fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  bool sent = false;
  int error = ENAMETOOLONG;
  if (fd_ >= 0 && path_.size() < sizeof address.sun_path) {
    std::memcpy(address.sun_path, path_.c_str(), path_.size());
    sent = ::sendto(fd_, &sample, sizeof sample, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) == static_cast<ssize_t>(sizeof sample);
    error = errno;
  }
  if (sent) {
    ++sent_;
    if (failing_) Sys_log(6, "chrony: samples reach %s again.", path_.c_str());
    failing_ = false;
    return;
  }
  if (!failing_)
    Sys_log(4, "chrony: no time source socket at %s (%s); samples resume when chronyd listens there.", path_.c_str(),
            std::strerror(error));
  failing_ = true;
}

}  // namespace gps::exporter
