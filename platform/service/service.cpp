#include "platform/service/service.h"

#include <fcntl.h>
#include <google/protobuf/message.h>
#include <google/protobuf/stubs/logging.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "halvorda/service/service.pb.h"
#include "platform/os.h"
#include "platform/root.h"
#include "platform/settings.h"
#include "platform/service/directory.h"
#include "platform/service/file_util.h"
#include "platform/service/message_type.h"

namespace halvorda::service {
namespace {

// epoll tags: connections get ids from kFirstConnectionId on.
constexpr uint64_t kListenerTag = 1;
constexpr uint64_t kConfigWatchTag = 2;
constexpr uint64_t kOutsideTag = 3;
constexpr uint64_t kFirstConnectionId = 16;

constexpr size_t kReadChunkBytes = kFrameHeaderBytes + kMaxPayloadBytes;
constexpr int kAcceptsPerRound = 64;
constexpr uint32_t kListenRetryMs = 1000;
// Without a descriptor for a new connection the listener stays readable; it
// leaves the wait this long so the loop does not spin, and says so once a minute.
constexpr uint64_t kExhaustionPauseMs = 100;
constexpr uint64_t kExhaustionLogMs = 60000;
// Connections never take the last descriptors of the limit: the rest of the
// daemon still needs some (saving the stored fix, reopening the log or the
// receiver) when clients crowd in.
constexpr rlim_t kSpareDescriptors = 8;
constexpr uint32_t kSweepPeriodMs = 1000;
// How often the socket file and the directory entry are checked to still be
// there: removed by hand or by a cleaning job, clients could not find the
// service again until it restarts.
constexpr uint64_t kSocketCheckMs = 1000;

constexpr uint64_t kRefusalLogPeriodMs = 60'000;

// Roles that may reserve a service for themselves; they also may take the
// connections kept in reserve.
constexpr uint32_t kReservingRoles = os::RoleBit(os::Role::QuillaPlatform) | os::RoleBit(os::Role::WebPlatform) |
                                     os::RoleBit(os::Role::Payment) | os::RoleBit(os::Role::QuillaP2PE) |
                                     os::RoleBit(os::Role::WebP2PE);

uint64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1'000'000u;
}

// The peer's supplementary groups; empty when the kernel cannot tell.
std::vector<gid_t> PeerGroups(int fd) {
  std::vector<gid_t> groups(32);
  for (int attempt = 0; attempt < 4; ++attempt) {
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
      groups.resize(size / sizeof(gid_t));
      return groups;
    }
    if (errno != ERANGE) break;
    groups.resize(size / sizeof(gid_t) + 1);
  }
  return {};
}

// Room for the descriptors the connection cap allows.
void RaiseDescriptorLimit(size_t wanted) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) return;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, wanted);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Whether a new descriptor would still leave kSpareDescriptors free. The
// lowest free number counts the descriptors open below it.
bool RoomForConnection(int anyOpenFd) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return true;
  const int lowestFree = ::fcntl(anyOpenFd, F_DUPFD_CLOEXEC, 0);
  if (lowestFree < 0) return false;
  ::close(lowestFree);
  return static_cast<rlim_t>(lowestFree) + kSpareDescriptors < limit.rlim_cur;
}

bool IsRequest(const FrameHeader& header) { return header.kind == FrameKind::Request; }

// Protobuf's own complaints (a string field that is not UTF-8, ...) go to the
// platform log with everything else instead of to stderr.
void LogProtobuf(google::protobuf::LogLevel level, const char* file, int line, const std::string& message) {
  const int sysLevel = level >= google::protobuf::LOGLEVEL_ERROR ? 3 : level == google::protobuf::LOGLEVEL_WARNING ? 4 : 7;
  Sys_log(sysLevel, "protobuf: %s (%s:%d).", message.c_str(), file, line);
}

}  // namespace

struct Service::Connection final : Link::Replier {
  Connection(Service& service, uint64_t id, int fd, os::Certificate certificate)
      : service(service), id(id), fd(fd), certificate(std::move(certificate)), lastActivityMs(NowMs()) {}
  ~Connection() override { ::close(fd); }

  os::Error reply(std::span<const uint8_t> frame) override {
    if (closing) return ERROR_DISCONNECTED;
    if (queuedBytes() + frame.size() > service.limits_.maxSendBufferBytes) {
      Sys_log(4, "service: connection %d (uid %u) does not read its answers; closing it.", fd,
              static_cast<unsigned>(certificate.uid()));
      closing = true;
      return ERROR_SEND;
    }
    if (queuedBytes() == 0) stalledSinceMs = NowMs();
    out.insert(out.end(), frame.begin(), frame.end());
    return os::ERROR_NONE;
  }
  size_t queuedBytes() const { return out.size() - outStart; }
  // Requests wait while answers pile up; they go on once half has drained.
  bool backlogged() const { return queuedBytes() > service.limits_.maxSendBufferBytes / 2; }

  Service& service;
  uint64_t id;
  int fd;
  os::Certificate certificate;
  FrameReader reader;
  std::vector<uint8_t> out;
  size_t outStart = 0;
  uint64_t lastActivityMs;
  uint64_t stalledSinceMs = 0;
  uint64_t frameBegunMs = 0;  // 0: no incomplete frame held
  uint32_t interest = 0;
  bool peerClosed = false;
  bool closing = false;
};

Service::Service(const std::string& manifest, os::Poller* poller)
    : permissionTable_(::geteuid()),
      ownCertificate_(::geteuid(), ::getegid(), ::getpid(), {}, os::kAllRoles),
      nextConnectionId_(kFirstConnectionId) {
  google::protobuf::SetLogHandler(LogProtobuf);
  limits_.maxConnectionsPerUser = static_cast<size_t>(gps::platform::CurrentSettings().maxConnectionsPerUser);
  if (poller) Sys_log(3, "service: an outside poller is not supported; the service runs its own loop.");
  manifestOk_ = LoadManifest(manifest, manifest_) == os::ERROR_NONE;
  socketPath_ = manifest_.address.empty() || manifest_.address.front() == '/'
                    ? manifest_.address
                    : gps::platform::Root() + "/" + manifest_.address;
  RaiseDescriptorLimit(limits_.maxConnections + 64);
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) Sys_log(3, "service: epoll_create1: %s.", std::strerror(errno));
  if (!manifestOk_) return;
  config_ = std::make_unique<ConfigStore>(manifest_.serviceClass);
  if (epoll_ >= 0 && config_->watchDescriptor() >= 0) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kConfigWatchTag;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, config_->watchDescriptor(), &event);
  }
  lastListenAttemptMs_ = NowMs();
  openListener();
}

Service::~Service() {
  for (Interfacable* interface : interfaces_) interface->service_ = nullptr;
  connections_.clear();
  connectionCount_ = 0;
  closeListener();
  if (epoll_ >= 0) ::close(epoll_);
}


bool Service::openListener() {
  if (epoll_ < 0 || !manifestOk_) return false;
  const std::string& path = socketPath_;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    Sys_log(3, "service: socket path %s is too long.", path.c_str());
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  if (!gps::platform::MakeDirectories(ParentDirectory(path))) {
    Sys_log(3, "service: cannot create the directory of %s: %s.", path.c_str(), std::strerror(errno));
    return false;
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const auto* socketAddress = reinterpret_cast<const sockaddr*>(&address);
  int bound = ::bind(fd, socketAddress, sizeof address);
  if (bound != 0 && errno == EADDRINUSE) {
    // A socket file left by a process that died is taken over; one that a
    // live service answers on is not.
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool alive = probe >= 0 && ::connect(probe, socketAddress, sizeof address) == 0;
    if (probe >= 0) ::close(probe);
    struct stat st{};
    if (alive || ::lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
      Sys_log(3, "service: %s is in use by another process.", path.c_str());
      ::close(fd);
      return false;
    }
    ::unlink(path.c_str());
    bound = ::bind(fd, socketAddress, sizeof address);
  }
  struct stat st{};
  // Any local user may connect; each message is admitted by its sender's
  // certificate.
  if (bound != 0 || ::lstat(path.c_str(), &st) != 0 || ::chmod(path.c_str(), 0666) != 0 ||
      ::listen(fd, SOMAXCONN) != 0) {
    Sys_log(3, "service: cannot listen on %s: %s.", path.c_str(), std::strerror(errno));
    ::close(fd);
    return false;
  }
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kListenerTag;
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
    ::close(fd);
    return false;
  }
  listener_ = fd;
  socketDevice_ = st.st_dev;
  socketInode_ = st.st_ino;
  return true;
}

void Service::closeListener() {
  if (listener_ < 0) return;
  ::close(listener_);
  listener_ = -1;
  // Only our own socket file: a newer instance may have replaced it.
  struct stat st{};
  const std::string& path = socketPath_;
  if (::lstat(path.c_str(), &st) == 0 && st.st_dev == socketDevice_ && st.st_ino == socketInode_)
    ::unlink(path.c_str());
}

os::Error Service::addInterface(Interfacable* interface) {
  if (!interface) return ERROR_INVALID;
  if (interface->service_ && interface->service_ != this) interface->service_->removeInterface(interface);
  if (std::find(interfaces_.begin(), interfaces_.end(), interface) == interfaces_.end())
    interfaces_.push_back(interface);
  interface->service_ = this;
  return os::ERROR_NONE;
}

os::Error Service::removeInterface(Interfacable* interface) {
  const auto found = std::find(interfaces_.begin(), interfaces_.end(), interface);
  if (found == interfaces_.end()) return ERROR_NOT_FOUND;
  interfaces_.erase(found);
  interface->service_ = nullptr;
  return os::ERROR_NONE;
}

os::Error Service::attachProxy(Proxyable* proxy, const std::string& address, uint32_t timeoutMs) {
  if (!proxy) return ERROR_INVALID;
  const os::Error connected = proxy->connect(address, timeoutMs);
  if (connected != os::ERROR_NONE) return connected;
  return addInterface(proxy);
}

os::Error Service::detachProxy(Proxyable* proxy) {
  if (!proxy) return ERROR_INVALID;
  proxy->disconnect();
  return removeInterface(proxy);
}

os::Error Service::attachConfig(google::protobuf::Message* config, bool saveDefaults) {
  if (!config_) return ERROR_INVALID;
  return config_->attach(config, saveDefaults);
}

os::Error Service::detachConfig() {
  if (!config_) return ERROR_INVALID;
  config_->detach();
  return os::ERROR_NONE;
}

os::Error Service::save() { return config_ ? config_->save() : ERROR_INVALID; }

os::Error Service::load(google::protobuf::Message& message) {
  return config_ ? config_->load(message) : ERROR_INVALID;
}

os::Error Service::acceptConfig() { return config_ ? config_->accept() : ERROR_INVALID; }

os::Error Service::watchDescriptor(int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kOutsideTag;
  return epoll_ >= 0 && ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0 ? os::ERROR_NONE : ERROR_IO;
}

int Service::configReadErrno() const { return config_ ? config_->readErrno() : 0; }

os::Error Service::adoptConnection(int fd) {
  if (fd < 0) return ERROR_INVALID;
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 || ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
    ::close(fd);
    return ERROR_IO;
  }
  return addConnection(fd);
}

os::Error Service::addConnection(int fd) {
  if (epoll_ < 0 || connections_.size() >= limits_.maxConnections) {
    const uint64_t now = NowMs();
    if (now - lastCapLogMs_ >= 1000) {
      Sys_log(4, "service: %zu connections open, the most allowed; refusing new ones.", connections_.size());
      lastCapLogMs_ = now;
    }
    ::close(fd);
    return ERROR_IO;
  }
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    Sys_log(3, "service: cannot read a peer's credentials: %s.", std::strerror(errno));
    ::close(fd);
    return ERROR_IO;
  }
  std::vector<gid_t> groups = PeerGroups(fd);
  const uint32_t roles = permissionTable_.rolesOf(credentials.uid, credentials.gid, groups);
  // Root and the service's own user are bound by the total alone; callers
  // that may reserve the service by their own share, and may take the
  // reserve; everyone else by their share and the total less the reserve.
  const bool ownOrRoot = credentials.uid == 0 || credentials.uid == ownCertificate_.uid();
  const bool mayTakeReserve = ownOrRoot || (roles & kReservingRoles) != 0;
  const AdmissionLimits admissionLimits{limits_.maxConnections,
                                        ownOrRoot ? limits_.maxConnections : limits_.maxConnectionsPerUser,
                                        mayTakeReserve ? 0 : limits_.reservedConnections};
  const Admission admitted = admission_.admit(credentials.uid, admissionLimits);
  if (admitted != Admission::Admitted) {
    const uint64_t now = NowMs();
    if (admitted == Admission::PeerFull) {
      if (admission_.shouldLogRefusal(credentials.uid, now, kRefusalLogPeriodMs))
        Sys_log(4, "service: uid %u holds %zu connections, the most one user may; refusing more (logged once a minute).",
                static_cast<unsigned>(credentials.uid), admission_.openOf(credentials.uid));
    } else if (lastReserveLogMs_ == 0 || now - lastReserveLogMs_ >= kRefusalLogPeriodMs) {
      lastReserveLogMs_ = now;
      Sys_log(4, "service: %zu connections open, the rest kept for privileged callers; refusing uid %u (logged once a minute).",
              admission_.open(), static_cast<unsigned>(credentials.uid));
    }
    ::close(fd);
    return ERROR_IO;
  }
  const uint64_t id = nextConnectionId_++;
  auto connection = std::make_unique<Connection>(
      *this, id, fd, os::Certificate(credentials.uid, credentials.gid, credentials.pid, std::move(groups), roles));
  connection->interest = EPOLLIN | EPOLLRDHUP;
  epoll_event event{};
  event.events = connection->interest;
  event.data.u64 = id;
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
    admission_.release(credentials.uid);
    return ERROR_IO;  // closed with the connection
  }
  Sys_log(7, "service: connection %d from pid %d uid %u, roles %02x.", fd, static_cast<int>(credentials.pid),
          static_cast<unsigned>(credentials.uid), roles);
  connections_.emplace(id, std::move(connection));
  connectionCount_ = connections_.size();
  return os::ERROR_NONE;
}

void Service::closeConnection(Connection& connection, const char* why) {
  if (why) Sys_log(4, "service: closing connection %d (uid %u): %s.", connection.fd,
                   static_cast<unsigned>(connection.certificate.uid()), why);
  if (reservedBy_ == connection.id) reservedBy_ = 0;
  admission_.release(connection.certificate.uid());
  ::epoll_ctl(epoll_, EPOLL_CTL_DEL, connection.fd, nullptr);
  const uint64_t id = connection.id;  // not a reference into what erase destroys
  connections_.erase(id);
  connectionCount_ = connections_.size();
}

void Service::updateInterest(Connection& connection) {
  // After the peer's end of file only answers remain to be written; the
  // level-triggered read and hang-up conditions would otherwise fire forever.
  uint32_t wanted = 0;
  if (!connection.peerClosed) wanted |= EPOLLRDHUP;
  if (!connection.backlogged() && !connection.peerClosed) wanted |= EPOLLIN;
  if (connection.queuedBytes() > 0) wanted |= EPOLLOUT;
  if (wanted == connection.interest) return;
  epoll_event event{};
  event.events = wanted;
  event.data.u64 = connection.id;
  if (::epoll_ctl(epoll_, EPOLL_CTL_MOD, connection.fd, &event) == 0) connection.interest = wanted;
}

void Service::flush(Connection& connection) {
  while (connection.queuedBytes() > 0) {
    const ssize_t n = ::send(connection.fd, connection.out.data() + connection.outStart, connection.queuedBytes(),
                             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) connection.closing = true;
      break;
    }
    connection.outStart += static_cast<size_t>(n);
    connection.lastActivityMs = connection.stalledSinceMs = NowMs();
  }
  if (connection.queuedBytes() == 0) {
    connection.out.clear();
    connection.outStart = 0;
  } else if (connection.outStart > connection.out.size() / 2) {
    connection.out.erase(connection.out.begin(), connection.out.begin() + static_cast<std::ptrdiff_t>(connection.outStart));
    connection.outStart = 0;
  }
}

void Service::readFrom(Connection& connection) {
  // One read per connection and round, so a busy client cannot starve the
  // others; level-triggered epoll brings the rest next round.
  static thread_local std::vector<uint8_t> chunk(kReadChunkBytes);
  const ssize_t n = ::recv(connection.fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
  if (n < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) connection.closing = true;
    return;
  }
  if (n == 0) {
    connection.peerClosed = true;
    return;
  }
  connection.lastActivityMs = NowMs();
  connection.reader.append(std::span<const uint8_t>(chunk.data(), static_cast<size_t>(n)));
}

void Service::processFrames(Connection& connection) {
  // Frames already received are handled until the reader runs dry; when
  // answers pile up the loop pauses, and writing some of them out lets it go
  // on, since no new data may ever arrive to wake this connection again.
  for (;;) {
    while (!connection.closing && !connection.backlogged()) {
      FrameHeader header;
      std::span<const uint8_t> payload;
      const FrameReader::Result result = connection.reader.next(header, payload);
      if (result == FrameReader::Result::NeedMore) return;
      if (result == FrameReader::Result::Broken) {
        Sys_log(4, "service: connection %d (uid %u) sent a broken frame (%s); closing it.", connection.fd,
                static_cast<unsigned>(connection.certificate.uid()),
                HeaderStatusText(connection.reader.brokenStatus()));
        connection.closing = true;
        return;
      }
      handleFrame(connection, header, payload);
    }
    if (connection.closing) return;
    flush(connection);
    if (connection.backlogged()) return;
  }
}

os::Error Service::deliver(Link& link) {
  for (Interfacable* interface : interfaces_)
    if (interface->findBinding(link.getMessageType())) return interface->raise(link);
  return ERROR_NO_BINDING;
}

void Service::handleFrame(Connection& connection, const FrameHeader& header, std::span<const uint8_t> payload) {
  const unsigned uid = static_cast<unsigned>(connection.certificate.uid());
  if (header.kind == FrameKind::Response || header.kind == FrameKind::Error) {
    Sys_log(4, "service: connection %d (uid %u) sent an answer frame to a service; closing it.", connection.fd, uid);
    connection.closing = true;
    return;
  }
  if (header.messageType == ReservationRequest::kMessageType && IsRequest(header)) {
    handleReservation(connection, header, payload);
    return;
  }
  Link link(header.kind, header.messageType, header.requestId, payload, connection.certificate, &connection);
  os::Error result;
  if (reservedBy_ != 0 && reservedBy_ != connection.id &&
      std::find(whiteList_.begin(), whiteList_.end(), header.messageType) == whiteList_.end()) {
    result = ERROR_RESERVED;
  } else {
    result = deliver(link);
  }
  if (link.decodeFailed()) {
    Sys_log(4, "service: connection %d (uid %u) sent an undecodable %016llx; closing it.", connection.fd, uid,
            static_cast<unsigned long long>(header.messageType));
    connection.closing = true;
    return;
  }
  if (result != os::ERROR_NONE)
    Sys_log(result == ERROR_PERMISSION_DENIED || result == ERROR_NO_BINDING ? 4 : 7,
            "service: %s %016llx from uid %u: %d (%s).", IsRequest(header) ? "request" : "event",
            static_cast<unsigned long long>(header.messageType), uid, result, ErrorName(result));
  if (IsRequest(header) && !link.isAnswered()) {
    // The caller waits for an answer: a handler that failed without one gets
    // its code sent, one that succeeded without one is reported as such.
    if (result == os::ERROR_NONE) {
      Sys_log(4, "service: request %016llx was not answered by its handler.",
              static_cast<unsigned long long>(header.messageType));
      result = ERROR_NO_ANSWER;
    }
    link.sendError(result);
  }
}

void Service::handleReservation(Connection& connection, const FrameHeader& header, std::span<const uint8_t> payload) {
  Link link(header.kind, header.messageType, header.requestId, payload, connection.certificate, &connection);
  ReservationRequest request;
  if (link.decode(request) != os::ERROR_NONE) {
    Sys_log(4, "service: connection %d sent an undecodable reservation request; closing it.", connection.fd);
    connection.closing = true;
    return;
  }
  if ((connection.certificate.roles() & kReservingRoles) == 0) {
    link.sendError(ERROR_PERMISSION_DENIED);
    return;
  }
  if (request.reserve()) {
    if (reservedBy_ != 0 && reservedBy_ != connection.id) {
      link.sendError(ERROR_RESERVED);
      return;
    }
    reservedBy_ = connection.id;
    Sys_log(7, "service: reserved by connection %d (uid %u).", connection.fd,
            static_cast<unsigned>(connection.certificate.uid()));
  } else if (reservedBy_ == connection.id) {
    reservedBy_ = 0;
  }
  ReservationResponse response;
  response.set_reserved(reservedBy_ == connection.id);
  link.send(response);
}

void Service::raiseConfigurationModified() {
  ConfigurationModifiedEvent event;
  event.set_serviceclass(manifest_.serviceClass);
  const std::string payload = event.SerializeAsString();
  Link link(FrameKind::Event, ConfigurationModifiedEvent::kMessageType, 0,
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(payload.data()), payload.size()),
            ownCertificate_, nullptr);
  const os::Error result = deliver(link);
  Sys_log(7, "service: configuration of %s changed outside the service: %d.", manifest_.serviceClass.c_str(), result);
}

void Service::sweep(uint64_t nowMs) {
  std::vector<Connection*> stale;
  for (auto& [id, connection] : connections_) {
    if (connection->queuedBytes() > 0 && nowMs - connection->stalledSinceMs >= limits_.stallTimeoutMs) {
      Sys_log(4, "service: connection %d (uid %u) stopped reading its answers.", connection->fd,
              static_cast<unsigned>(connection->certificate.uid()));
      stale.push_back(connection.get());
    } else if (connection->frameBegunMs != 0 && nowMs - connection->frameBegunMs >= limits_.incompleteFrameTimeoutMs) {
      Sys_log(4, "service: connection %d (uid %u) left a frame unfinished for %u ms.", connection->fd,
              static_cast<unsigned>(connection->certificate.uid()), limits_.incompleteFrameTimeoutMs);
      stale.push_back(connection.get());
    } else if (nowMs - connection->lastActivityMs >= limits_.idleTimeoutMs) {
      stale.push_back(connection.get());
    }
  }
  for (Connection* connection : stale) closeConnection(*connection, "idle");
}

void Service::pauseListener(uint64_t nowMs, int error) {
  epoll_event event{};
  event.data.u64 = kListenerTag;  // no events: out of the wait
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, listener_, &event);
  listenerPausedUntilMs_ = nowMs + kExhaustionPauseMs;
  if (!exhaustionLogged_ || nowMs - lastExhaustionLogMs_ >= kExhaustionLogMs) {
    Sys_log(4, "service: cannot accept connections: %s; %zu open; new ones wait (raise LimitNOFILE= or ulimit -n).",
            std::strerror(error), connections_.size());
    exhaustionLogged_ = true;
    lastExhaustionLogMs_ = nowMs;
  }
}

void Service::resumeListener(uint64_t nowMs) {
  if (listenerPausedUntilMs_ == 0 || nowMs < listenerPausedUntilMs_) return;
  listenerPausedUntilMs_ = 0;
  if (listener_ < 0) return;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kListenerTag;
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, listener_, &event);
}

void Service::restoreSocket() {
  if (listener_ < 0) return;  // dispatch() is already trying to open one
  struct stat st{};
  const bool missing = ::lstat(socketPath_.c_str(), &st) != 0;
  if (!missing && st.st_dev == socketDevice_ && st.st_ino == socketInode_) return;
  // Connections already accepted go on; new ones need a socket file to find.
  closeListener();
  const bool listening = openListener();
  Sys_log(4, "service: %s was %s; %s.", socketPath_.c_str(), missing ? "removed" : "replaced",
          listening ? "listening on a new one" : "trying again every second");
}

os::Error Service::dispatch(uint32_t timeoutMs) {
  const uint64_t start = NowMs();
  const bool forever = timeoutMs == UINT32_MAX;
  for (;;) {
    uint64_t now = NowMs();
    if (listener_ < 0 && manifestOk_ && now - lastListenAttemptMs_ >= kListenRetryMs) {
      lastListenAttemptMs_ = now;
      openListener();
    }
    const uint64_t elapsed = now - start;
    uint64_t waitMs = forever ? kSweepPeriodMs : std::min<uint64_t>(timeoutMs - std::min<uint64_t>(elapsed, timeoutMs), kSweepPeriodMs);
    if (epoll_ < 0) {
      ::usleep(static_cast<useconds_t>(waitMs * 1000));
      return ERROR_IO;
    }
    if (listener_ < 0) waitMs = std::min<uint64_t>(waitMs, kListenRetryMs);
    if (now - lastSocketCheckMs_ >= kSocketCheckMs) {
      lastSocketCheckMs_ = now;
      restoreSocket();
      Directory::RestoreRegistered();
    }
    waitMs = std::min<uint64_t>(waitMs, lastSocketCheckMs_ + kSocketCheckMs - now);
    resumeListener(now);
    if (listenerPausedUntilMs_ != 0) waitMs = std::min<uint64_t>(waitMs, listenerPausedUntilMs_ - now);

    epoll_event events[64];
    const int count = ::epoll_wait(epoll_, events, 64, static_cast<int>(waitMs));
    if (count < 0 && errno != EINTR) return ERROR_IO;
    now = NowMs();
    bool handled = false;
    std::vector<uint64_t> touched;
    for (int i = 0; i < count; ++i) {
      const uint64_t tag = events[i].data.u64;
      if (tag == kListenerTag) {
        for (int accepted = 0; accepted < kAcceptsPerRound; ++accepted) {
          if (!RoomForConnection(listener_)) {
            pauseListener(now, EMFILE);
            break;
          }
          const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
          if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pauseListener(now, errno);
            break;
          }
          addConnection(fd);
        }
        handled = true;
      } else if (tag == kOutsideTag) {
        handled = true;
      } else if (tag == kConfigWatchTag) {
        if (config_->takeOutsideChange()) raiseConfigurationModified();
        handled = true;
      } else {
        const auto found = connections_.find(tag);
        if (found == connections_.end()) continue;
        Connection& connection = *found->second;
        if (events[i].events & EPOLLOUT) flush(connection);
        if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP)) {
          if (!connection.backlogged()) readFrom(connection);
          if (events[i].events & EPOLLERR) connection.closing = true;
        }
        touched.push_back(tag);
      }
    }
    for (const uint64_t id : touched) {
      const auto found = connections_.find(id);
      if (found == connections_.end()) continue;
      Connection& connection = *found->second;
      processFrames(connection);
      flush(connection);
      handled = true;
      // Bytes left over once every whole frame is handled begin a frame; its
      // clock runs from its first byte, so trickling it does not reset it.
      if (connection.reader.pendingBytes() == 0 || connection.backlogged()) {
        connection.frameBegunMs = 0;
      } else if (connection.frameBegunMs == 0) {
        connection.frameBegunMs = now;
      }
      if (connection.closing) {
        closeConnection(connection, nullptr);
        continue;
      }
      if (connection.peerClosed && !connection.backlogged()) {
        // Answers to what the peer sent before its end of file are written
        // first; a frame cut short by it is dropped.
        if (connection.reader.pendingBytes() > 0) {
          Sys_log(4, "service: connection %d (uid %u) closed in the middle of a frame.", connection.fd,
                  static_cast<unsigned>(connection.certificate.uid()));
          closeConnection(connection, nullptr);
          continue;
        }
        if (connection.queuedBytes() == 0) {
          closeConnection(connection, nullptr);
          continue;
        }
      }
      updateInterest(connection);
    }
    now = NowMs();
    sweep(now);
    if (handled) return os::ERROR_NONE;
    if (!forever && now - start >= timeoutMs) return os::ERROR_NONE;
  }
}

}  // namespace halvorda::service
