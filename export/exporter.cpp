#include "export/exporter.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <thread>

#include "engine/gps_geolocating.h"
#include "export/chrony_source.h"
#include "export/gpsd_protocol.h"
#include "export/record_view.h"
#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/admission.h"
#include "platform/settings.h"

namespace gps::exporter {

namespace {

constexpr uint64_t kStopTag = 0;
constexpr uint64_t kNotifyTag = 1;
constexpr uint64_t kFirstListenerTag = 2;
constexpr uint64_t kFirstClientTag = 1024;
// A client whose unread output grows past this is dropped, as the service
// drops a stalled caller.
constexpr size_t kMaxQueuedBytes = 256 * 1024;
constexpr size_t kMaxClients = 512;
// Of kMaxClients, the slots only root and the daemon's own user may take.
constexpr size_t kReservedClients = 64;
constexpr int64_t kRefusalLogPeriodMs = 60'000;
constexpr size_t kReadBytes = 4096;
// GSV groups of several constellations arrive back to back: one SKY once the
// burst has settled.
constexpr int kSkySettleMs = 30;

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  int get() const { return fd_; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::optional<Fd> ListenTcp(const std::string& address, std::string& bound) {
  std::string host = address;
  std::string port;
  if (!host.empty() && host.front() == '[') {
    const size_t close = host.find(']');
    if (close == std::string::npos || close + 1 >= host.size() || host[close + 1] != ':') return std::nullopt;
    port = host.substr(close + 2);
    host = host.substr(1, close - 1);
  } else {
    const size_t colon = host.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    port = host.substr(colon + 1);
    host = host.substr(0, colon);
  }
  char* end = nullptr;
  const long portNumber = std::strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || portNumber < 0 || portNumber > 65535) return std::nullopt;
  sockaddr_storage storage{};
  socklen_t length = 0;
  int family = AF_INET;
  if (auto* v4 = reinterpret_cast<sockaddr_in*>(&storage); inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(portNumber));
    length = sizeof *v4;
  } else if (auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
             inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(portNumber));
    length = sizeof *v6;
    family = AF_INET6;
  } else {
    return std::nullopt;
  }
  Fd fd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (family == AF_INET6) ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (fd.get() < 0 || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
      ::listen(fd.get(), SOMAXCONN) != 0) {
    Sys_log(3, "gpsd endpoint: cannot listen on %s: %s; set [gpsd] listen in platform.ini to a free address.",
            address.c_str(), std::strerror(errno));
    return Fd();
  }
  sockaddr_storage actual{};
  socklen_t actualLength = sizeof actual;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&actual), &actualLength);
  const int actualPort = family == AF_INET ? ntohs(reinterpret_cast<sockaddr_in*>(&actual)->sin_port)
                                           : ntohs(reinterpret_cast<sockaddr_in6*>(&actual)->sin6_port);
  bound = (family == AF_INET6 ? "[" + host + "]" : host) + ":" + std::to_string(actualPort);
  return fd;
}

Fd ListenUnix(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    Sys_log(3, "gpsd endpoint: socket path %s is too long; choose a shorter [gpsd] socket.", path.c_str());
    return Fd();
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) platform::MakeDirectories(path.substr(0, slash));
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const auto* sa = reinterpret_cast<const sockaddr*>(&address);
  int bound = ::bind(fd.get(), sa, sizeof address);
  if (bound != 0 && errno == EADDRINUSE) {
    // A socket file left by a process that died is taken over.
    Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct stat st{};
    if (::connect(probe.get(), sa, sizeof address) != 0 && ::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
      ::unlink(path.c_str());
      bound = ::bind(fd.get(), sa, sizeof address);
    }
  }
  if (bound != 0 || ::chmod(path.c_str(), 0666) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
    Sys_log(3, "gpsd endpoint: cannot listen on %s: %s.", path.c_str(), std::strerror(errno));
    return Fd();
  }
  return fd;
}

bool IsLoopback(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET)
    return (ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24) == 127;
  return address.ss_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
}

// The port (network order) and address bytes of an IPv4 or IPv6 address.
std::pair<uint16_t, std::span<const uint8_t>> PortAndAddress(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    return {v4.sin_port, {reinterpret_cast<const uint8_t*>(&v4.sin_addr), sizeof v4.sin_addr}};
  }
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
  return {v6.sin6_port, {reinterpret_cast<const uint8_t*>(&v6.sin6_addr), sizeof v6.sin6_addr}};
}

// The owner of the client's own socket of a loopback TCP connection, from the
// kernel's socket table (sock_diag): its source is our peer, its destination
// our local address.
std::optional<uid_t> LoopbackPeerUid(const sockaddr_storage& peer, const sockaddr_storage& local) {
  Fd netlink(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (netlink.get() < 0) return std::nullopt;
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST;
  inet_diag_req_v2& r = message.request;
  r.sdiag_family = static_cast<uint8_t>(peer.ss_family);
  r.sdiag_protocol = IPPROTO_TCP;
  r.idiag_states = ~0u;
  r.id.idiag_cookie[0] = r.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  const auto [peerPort, peerAddress] = PortAndAddress(peer);
  const auto [localPort, localAddress] = PortAndAddress(local);
  r.id.idiag_sport = peerPort;
  r.id.idiag_dport = localPort;
  std::memcpy(r.id.idiag_src, peerAddress.data(), peerAddress.size());
  std::memcpy(r.id.idiag_dst, localAddress.data(), localAddress.size());
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(netlink.get(), &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) !=
      static_cast<ssize_t>(sizeof message))
    return std::nullopt;
  // The kernel answers while sendto runs; the wait only guards against a kernel that does not.
  alignas(nlmsghdr) char answer[8192];
  const ssize_t n = ::recv(netlink.get(), answer, sizeof answer, MSG_DONTWAIT);
  int length = static_cast<int>(n);
  for (auto* h = reinterpret_cast<nlmsghdr*>(answer); n > 0 && NLMSG_OK(h, length); h = NLMSG_NEXT(h, length)) {
    if (h->nlmsg_type != SOCK_DIAG_BY_FAMILY || h->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) continue;
    const auto* d = static_cast<const inet_diag_msg*>(NLMSG_DATA(h));
    if (d->id.idiag_sport == r.id.idiag_sport && d->id.idiag_dport == r.id.idiag_dport) return d->idiag_uid;
  }
  return std::nullopt;
}

struct Client {
  Fd fd;
  std::string peer;  // whose admission it counts against
  CommandReader reader;
  WatchState watch;
  std::string out;
  bool writing = false;  // EPOLLOUT armed
  bool dropped = false;  // closing: nothing more is queued
};

class ExporterImpl final : public Exporter {
 public:
  explicit ExporterImpl(const ExportSettings& settings)
      : settings_(settings), epochClock_(settings.lineDelay && settings.bps > 0 ? 10'000'000'000LL / settings.bps : 0) {
    device_.path = settings.devicePath;
    device_.bps = settings.bps;
  }

  bool open() {
    epoll_ = Fd(::epoll_create1(EPOLL_CLOEXEC));
    stop_ = Fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    notify_ = Fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (epoll_.get() < 0 || stop_.get() < 0 || notify_.get() < 0 || notify_.get() > 0xFFFF) return false;
    add(stop_.get(), kStopTag, EPOLLIN);
    add(notify_.get(), kNotifyTag, EPOLLIN);
    std::string list = settings_.gpsdListen;
    for (char& c : list)
      if (c == ',') c = ' ';
    size_t at = 0;
    while ((at = list.find_first_not_of(' ', at)) != std::string::npos) {
      const size_t end = list.find(' ', at);
      const std::string address = list.substr(at, end == std::string::npos ? std::string::npos : end - at);
      at = end;
      std::string bound;
      std::optional<Fd> fd = ListenTcp(address, bound);
      if (!fd) {
        Sys_log(3, "gpsd endpoint: [gpsd] listen = %s is not an address such as 127.0.0.1:2947 or [::1]:2947.",
                address.c_str());
        continue;
      }
      if (fd->get() < 0) continue;
      Sys_log(6, "gpsd endpoint: listening on %s.", bound.c_str());
      endpoints_.push_back(bound);
      listeners_.push_back(std::move(*fd));
    }
    if (!settings_.gpsdSocket.empty()) {
      const std::string& p = settings_.gpsdSocket;
      const std::optional<std::string> path =
          p.front() == '/' ? platform::SystemPath(p) : platform::SystemPath("/" + p);
      if (!path) {
        Sys_log(3, "gpsd endpoint: [gpsd] socket = %s must stay below the platform root.", p.c_str());
      } else if (Fd fd = ListenUnix(*path); fd.get() >= 0) {
        Sys_log(6, "gpsd endpoint: listening on %s.", path->c_str());
        socketPath_ = *path;
        endpoints_.push_back(*path);
        listeners_.push_back(std::move(fd));
      }
    }
    for (size_t i = 0; i < listeners_.size(); ++i) add(listeners_[i].get(), kFirstListenerTag + i, EPOLLIN);
    if (!settings_.chronySocket.empty()) chrony_.emplace(settings_.chronySocket);
    if (listeners_.empty() && !chrony_) return false;
    updateListener();
    thread_ = std::thread([this] { run(); });
    return true;
  }

  ~ExporterImpl() override {
    if (thread_.joinable()) {
      const uint64_t one = 1;
      [[maybe_unused]] ssize_t ignored = ::write(stop_.get(), &one, sizeof one);
      thread_.join();
    }
    if (listening_) lib_GPS_Geolocating_GPS_RemoveEventListener(static_cast<uint16_t>(notify_.get()), GPS_EVENT_MESSAGE);
    if (!socketPath_.empty()) ::unlink(socketPath_.c_str());
  }

  std::vector<std::string> endpoints() const override { return endpoints_; }

 private:
  void add(int fd, uint64_t tag, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
  }

  // The engine signals us only while someone waits for reports.
  void updateListener() {
    bool wanted = chrony_.has_value();
    for (const auto& [id, client] : clients_) wanted = wanted || client.watch.enable;
    if (wanted == listening_) return;
    const auto fd = static_cast<uint16_t>(notify_.get());
    if (wanted) {
      lastSequence_ = ReadRecord(0, false).messageSequence;
      if (lib_GPS_Geolocating_GPS_AddEventListener(fd, GPS_EVENT_MESSAGE) != GEOLOCATING_GPS_ERROR_SUCCESS) {
        Sys_log(3, "gpsd endpoint: the engine's listener table is full; no reports are pushed.");
        return;
      }
    } else {
      lib_GPS_Geolocating_GPS_RemoveEventListener(fd, GPS_EVENT_MESSAGE);
    }
    listening_ = wanted;
  }

  void run() {
    epoll_event events[64];
    for (;;) {
      int timeoutMs = -1;
      if (skyDueMs_) timeoutMs = static_cast<int>(std::max<int64_t>(0, *skyDueMs_ - NowMs()));
      const int n = ::epoll_wait(epoll_.get(), events, 64, timeoutMs);
      if (n < 0 && errno != EINTR) {
        Sys_log(3, "gpsd endpoint: epoll_wait: %s.", std::strerror(errno));
        return;
      }
      for (int i = 0; i < n; ++i) {
        const uint64_t tag = events[i].data.u64;
        if (tag == kStopTag) return;
        if (tag == kNotifyTag) onNotify();
        else if (tag < kFirstClientTag) accept(listeners_[tag - kFirstListenerTag].get());
        else onClient(tag, events[i].events);
      }
      if (skyDueMs_ && NowMs() >= *skyDueMs_) {
        skyDueMs_.reset();
        const RecordView view = ReadRecord(0, false);
        broadcastJson(SkyObject(device_.path, view.sky, view.fix.utcMs));
      }
      for (const uint64_t id : closing_) {
        if (const auto it = clients_.find(id); it != clients_.end()) {
          admission_.release(it->second.peer);
          clients_.erase(it);
        }
      }
      if (!closing_.empty()) updateListener();
      closing_.clear();
    }
  }

  void accept(int listener) {
    for (;;) {
      sockaddr_storage address{};
      socklen_t length = sizeof address;
      Fd fd(::accept4(listener, reinterpret_cast<sockaddr*>(&address), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (fd.get() < 0) return;
      const Peer peer = identify(fd.get(), address);
      if (!admit(peer)) continue;
      const int on = 1;
      if (address.ss_family != AF_UNIX) ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      const uint64_t id = nextClient_++;
      add(fd.get(), id, EPOLLIN | EPOLLRDHUP);
      Client& client = clients_[id];
      client.fd = std::move(fd);
      client.peer = peer.key;
      send(id, client, VersionObject());
    }
  }

  // Who a connection counts against: its uid on the Unix socket and on
  // loopback TCP (every local user arrives from the same address), its
  // address from elsewhere.
  struct Peer {
    std::string key;          // "uid 1000" or "address 192.0.2.7"
    bool privileged = false;  // root or the daemon's own user
  };

  Peer identify(int fd, const sockaddr_storage& address) {
    std::optional<uid_t> uid;
    if (address.ss_family == AF_UNIX) {
      ucred credentials{};
      socklen_t size = sizeof credentials;
      if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) uid = credentials.uid;
    } else if (IsLoopback(address)) {
      sockaddr_storage local{};
      socklen_t size = sizeof local;
      if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0) uid = LoopbackPeerUid(address, local);
      if (!uid && !uidLookupFailed_) {
        uidLookupFailed_ = true;
        Sys_log(4, "gpsd endpoint: the owner of a loopback connection cannot be found (sock_diag: %s); such "
                "connections count against their address until it can.", std::strerror(errno));
      }
    }
    if (uid) {
      uidLookupFailed_ = false;
      return {"uid " + std::to_string(*uid), *uid == 0 || *uid == ::geteuid()};
    }
    char text[INET6_ADDRSTRLEN] = "?";
    inet_ntop(address.ss_family, PortAndAddress(address).second.data(), text, sizeof text);
    return {std::string("address ") + text, false};
  }

  // As the service admits its callers: an ordinary peer holds at most its
  // share and never the last slots.
  bool admit(const Peer& peer) {
    const size_t perPeer = settings_.maxConnectionsPerUser > 0 ? static_cast<size_t>(settings_.maxConnectionsPerUser)
                                                               : kMaxClients;
    const halvorda::service::AdmissionLimits limits{kMaxClients, peer.privileged ? kMaxClients : perPeer,
                                                    peer.privileged ? 0 : kReservedClients};
    const halvorda::service::Admission admitted = admission_.admit(peer.key, limits);
    if (admitted == halvorda::service::Admission::Admitted) return true;
    const int64_t now = NowMs();
    if (admitted == halvorda::service::Admission::PeerFull) {
      if (admission_.shouldLogRefusal(peer.key, static_cast<uint64_t>(now), kRefusalLogPeriodMs))
        Sys_log(4, "gpsd endpoint: %s holds %zu connections, the most one user may; refusing more (logged once a "
                "minute).", peer.key.c_str(), admission_.openOf(peer.key));
    } else if (lastReserveLogMs_ == 0 || now - lastReserveLogMs_ >= kRefusalLogPeriodMs) {
      lastReserveLogMs_ = now;
      Sys_log(4, "gpsd endpoint: %zu clients connected, the rest kept for root and the service; refusing %s (logged "
              "once a minute).", admission_.open(), peer.key.c_str());
    }
    return false;
  }

  void onClient(uint64_t id, uint32_t events) {
    const auto it = clients_.find(id);
    if (it == clients_.end()) return;
    Client& client = it->second;
    if (events & EPOLLOUT) flush(id, client);
    if (client.dropped || !(events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP))) return;
    char buffer[kReadBytes];
    const ssize_t n = ::read(client.fd.get(), buffer, sizeof buffer);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
      drop(id, client);
      return;
    }
    if (n < 0) return;
    for (const Command& command : client.reader.feed(std::string_view(buffer, static_cast<size_t>(n))))
      answer(id, client, command);
  }

  void answer(uint64_t id, Client& client, const Command& command) {
    switch (command.kind) {
      case CommandKind::Version:
        send(id, client, VersionObject());
        break;
      case CommandKind::Devices:
        send(id, client, DevicesObject(device_, ReadRecord(0, false).device));
        break;
      case CommandKind::Device:
        if (command.changesDevice) send(id, client, ErrorObject("Device settings are read-only here"));
        else send(id, client, DeviceObject(device_, ReadRecord(0, false).device, true));
        break;
      case CommandKind::Poll:
        send(id, client, pollReply());
        break;
      case CommandKind::Watch: {
        const WatchRequest& w = command.watch;
        if (w.device && !w.device->empty() && *w.device != device_.path) {
          send(id, client, ErrorObject("No such device as " + *w.device));
          break;
        }
        WatchState& state = client.watch;
        const bool wasEnabled = state.enable;
        state.enable = w.enable.value_or(true);
        if (w.json) state.json = *w.json;
        if (w.nmea) state.nmea = *w.nmea;
        if (w.raw) state.raw = *w.raw;
        if (w.scaled) state.scaled = *w.scaled;
        if (w.device) state.device = *w.device;
        // Watching with no format named means JSON, as gpsd does.
        if (state.enable && !w.json && !w.nmea && !w.raw && !state.nmea && state.raw == 0) state.json = true;
        if (state.enable && !wasEnabled) send(id, client, DevicesObject(device_, ReadRecord(0, false).device));
        send(id, client, WatchObject(state));
        updateListener();
        break;
      }
      case CommandKind::Error:
        send(id, client, ErrorObject(command.error));
        break;
    }
  }

  // Polls between two receiver messages within one tick read and convert
  // the record once: its reports change only with a message, the power
  // state, or a tick passing (a fix growing old). A message is logged before
  // the engine analyses it, so a reply may lag that analysis by one tick.
  std::string pollReply() {
    const bool active = device_.activatedMs.has_value();
    lib_GPS_Lock();
    const uint32_t sequence = gps_private_info.message_sequence;
    const uint32_t power = gps_private_info.power_state;
    lib_GPS_Unlock();
    const uint32_t tick = OS_rtc_GetTickCounter();
    if (!pollCache_ || pollCache_->sequence != sequence || pollCache_->tick != tick || pollCache_->power != power ||
        pollCache_->active != active)
      pollCache_ = PollCache{sequence, tick, power, active, PollContent(device_.path, ReadRecord(0, false), active)};
    return PollObject(pollCache_->reports, NowMs(), active);
  }

  void onNotify() {
    uint64_t count = 0;
    [[maybe_unused]] ssize_t ignored = ::read(notify_.get(), &count, sizeof count);
    const RecordView view = ReadRecord(lastSequence_);
    lastSequence_ = view.messageSequence;
    if (!view.device.powered) device_.activatedMs.reset();
    else if (!view.messages.empty() && !device_.activatedMs) device_.activatedMs = NowMs();
    for (const LoggedMessage& m : view.messages) {
      epochClock_.observe(m);
      forwardMessage(m);
    }
    if (view.fix.ggaTick != lastGgaTick_) {
      lastGgaTick_ = view.fix.ggaTick;
      if (view.fix.ggaTick != 0) {
        broadcastJson(TpvObject(device_.path, view.fix));
        if (chrony_) {
          if (const auto sample = MakeSample(view, epochClock_.epochStartNs())) chrony_->send(*sample);
        }
      }
    }
    if (view.sky.satViewTick != lastSatViewTick_) {
      lastSatViewTick_ = view.sky.satViewTick;
      if (view.sky.satViewTick != 0 && !skyDueMs_) skyDueMs_ = NowMs() + kSkySettleMs;
    }
  }

  void forwardMessage(const LoggedMessage& m) {
    std::string hex;
    for (auto& [id, client] : clients_) {
      const WatchState& w = client.watch;
      if (!w.enable) continue;
      if (m.type == 1 && (w.nmea || w.raw >= 1)) {
        send(id, client, m.bytes);
      } else if (m.type == 2 && w.raw == 2) {
        send(id, client, m.bytes);
      } else if (m.type == 2 && w.raw == 1) {
        if (hex.empty()) {
          static constexpr char kDigits[] = "0123456789abcdef";
          for (const unsigned char c : m.bytes) {
            hex += kDigits[c >> 4];
            hex += kDigits[c & 15];
          }
          hex += "\r\n";
        }
        send(id, client, hex);
      }
    }
  }

  void broadcastJson(const std::string& object) {
    for (auto& [id, client] : clients_)
      if (client.watch.enable && client.watch.json) send(id, client, object);
  }

  void send(uint64_t id, Client& client, std::string_view bytes) {
    if (client.dropped) return;
    if (client.out.size() + bytes.size() > kMaxQueuedBytes) {
      Sys_log(4, "gpsd endpoint: a client read too slowly (%zu bytes waiting); it is disconnected.",
              client.out.size());
      drop(id, client);
      return;
    }
    client.out.append(bytes);
    if (!client.writing) flush(id, client);
  }

  void drop(uint64_t id, Client& client) {
    if (client.dropped) return;
    client.dropped = true;
    client.out.clear();
    closing_.push_back(id);
  }

  void flush(uint64_t id, Client& client) {
    if (client.dropped) return;
    while (!client.out.empty()) {
      const ssize_t n = ::send(client.fd.get(), client.out.data(), client.out.size(), MSG_NOSIGNAL);
      if (n > 0) {
        client.out.erase(0, static_cast<size_t>(n));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      drop(id, client);
      return;
    }
    const bool wantWrite = !client.out.empty();
    if (wantWrite == client.writing) return;
    client.writing = wantWrite;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | (wantWrite ? static_cast<uint32_t>(EPOLLOUT) : 0u);
    event.data.u64 = id;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, client.fd.get(), &event);
  }

  ExportSettings settings_;
  DeviceDescription device_;
  EpochClock epochClock_;
  Fd epoll_, stop_, notify_;
  std::vector<Fd> listeners_;
  std::vector<std::string> endpoints_;
  std::string socketPath_;
  std::optional<ChronySource> chrony_;
  std::map<uint64_t, Client> clients_;
  halvorda::service::PeerAdmission<std::string> admission_;
  int64_t lastReserveLogMs_ = 0;
  bool uidLookupFailed_ = false;
  std::vector<uint64_t> closing_;
  uint64_t nextClient_ = kFirstClientTag;
  bool listening_ = false;
  uint32_t lastSequence_ = 0;
  uint32_t lastGgaTick_ = 0;
  uint32_t lastSatViewTick_ = 0;
  std::optional<int64_t> skyDueMs_;
  struct PollCache {
    uint32_t sequence, tick, power;
    bool active;
    PollReports reports;
  };
  std::optional<PollCache> pollCache_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Exporter> Exporter::Start(const ExportSettings& settings) {
  if (settings.gpsdListen.empty() && settings.gpsdSocket.empty() && settings.chronySocket.empty()) return nullptr;
  auto exporter = std::make_unique<ExporterImpl>(settings);
  if (!exporter->open()) return nullptr;
  return exporter;
}

std::unique_ptr<Exporter> Exporter::StartConfigured() {
  const platform::Settings& s = platform::CurrentSettings();
  ExportSettings e;
  e.gpsdListen = s.gpsdListen;
  e.gpsdSocket = s.gpsdSocket;
  e.chronySocket = s.chronySocket;
  e.bps = s.baud;
  e.maxConnectionsPerUser = s.maxConnectionsPerUser;
  const bool ubx = s.moduleType == GPS_MODULE_TYPE_UBX_G7020 || s.moduleType == GPS_MODULE_TYPE_UBX_M8030;
  if (!ubx) {
    e.devicePath = platform::SystemPath("/tmp/gps_dgprs").value_or("/tmp/gps_dgprs");
  } else {
    // A fix of the simulator carries its name, so no client takes it for a receiver.
    e.devicePath = s.device;
    e.lineDelay = s.device != "sim";
  }
  return Start(e);
}

}  // namespace gps::exporter
