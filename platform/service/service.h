// A service: the listening socket at the address of its manifest, the
// interfaces whose bindings receive its messages, and its stored
// configuration. Everything runs on the thread that calls dispatch(), one
// message at a time.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/service/admission.h"
#include "platform/service/certificate.h"
#include "platform/service/config_store.h"
#include "platform/service/error.h"
#include "platform/service/interfacable.h"
#include "platform/service/link.h"
#include "platform/service/manifest.h"
#include "platform/service/permissions.h"

namespace google::protobuf {
class Message;
}

namespace halvorda::os {
// An outside event loop a service could be driven by. Services here run
// their own loop in dispatch(); only a null poller is accepted.
class Poller;
}  // namespace halvorda::os

namespace halvorda::service {

struct ServiceLimits {
  // More are accepted and closed at once. Of these, reservedConnections are
  // kept for root, the service's own user and callers holding a role that
  // may reserve the service (platform, payment, P2PE), so that one of them
  // always gets in.
  size_t maxConnections = 512;
  size_t reservedConnections = 64;
  // Of any other single uid ([service] max_connections_per_user).
  size_t maxConnectionsPerUser = 64;
  // A frame begun and not finished for this long closes its connection.
  uint32_t incompleteFrameTimeoutMs = 10'000;
  // Answers queued for a client that does not read. Past half of it the
  // connection's further requests wait; a reply that does not fit closes it.
  size_t maxSendBufferBytes = 256 * 1024;
  // A connection with no traffic for this long is closed.
  uint32_t idleTimeoutMs = 300'000;
  // A connection whose queued answers make no progress for this long is closed.
  uint32_t stallTimeoutMs = 10'000;
};

class Service {
 public:
  // Reads the manifest and opens the listening socket at its address. A
  // manifest or socket problem is logged; dispatch() then keeps trying to
  // open the socket.
  explicit Service(const std::string& manifest, os::Poller* poller = nullptr);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  const std::string& getServiceClass() const { return manifest_.serviceClass; }
  const std::string& getAddress() const { return manifest_.address; }
  // The absolute path of the listening socket.
  const std::string& getSocketPath() const { return socketPath_; }
  bool isListening() const { return listener_ >= 0; }
  // The manifest was read and names a usable class and address.
  bool hasManifest() const { return manifestOk_; }

  // The interface receives the service's messages (its bindings join the
  // dispatch) until removed or destroyed.
  os::Error addInterface(Interfacable* interface);
  os::Error removeInterface(Interfacable* interface);
  // Connects the proxy to its party and adds it as an interface.
  os::Error attachProxy(Proxyable* proxy, const std::string& address, uint32_t timeoutMs);
  os::Error detachProxy(Proxyable* proxy);

  // Message types still delivered from other connections while one
  // connection holds the service reserved (ReservationRequest).
  void setReservationWhiteList(const std::vector<uint64_t>& messageTypes) { whiteList_ = messageTypes; }
  const std::vector<uint64_t>& getReservationWhiteList() const { return whiteList_; }

  // Stored configuration ($ROOT/config/<class>.conf, see config_store.h).
  // attachConfig fills the message from the store and keeps it as the
  // message save() writes; with saveDefaults a missing file is created from
  // it. The message must outlive the attachment.
  os::Error attachConfig(google::protobuf::Message* config, bool saveDefaults);
  os::Error detachConfig();
  os::Error save();
  os::Error load(google::protobuf::Message& message);
  // Takes the configuration file as it stands now, after an outside change
  // (ConfigurationModifiedEvent); load() returns it from then on. The
  // attached message is not touched: the service applies what it loads.
  os::Error acceptConfig();
  // The errno of the stored configuration's last read that failed for
  // another reason than its content (attachConfig or acceptConfig returned
  // ERROR_IO; the file was left as it is), 0 otherwise.
  int configReadErrno() const;

  // Waits up to timeoutMs (0xFFFFFFFF: no limit) for traffic and handles
  // all of it: new connections, whole frames delivered to their bindings,
  // queued answers, outside configuration changes, idle and stalled
  // connections. Returns once something was handled or the time is up.
  os::Error dispatch(uint32_t timeoutMs);

  // dispatch() also returns when this descriptor becomes readable (a
  // signalfd of the process, say); the caller reads it. One at a time.
  os::Error watchDescriptor(int fd);

  // Serves an already connected Unix stream socket as if accepted (socket
  // activation, in-process peers); the service owns it from now on.
  os::Error adoptConnection(int fd);

  // The defaults, with max_connections_per_user from platform.ini.
  void setLimits(const ServiceLimits& limits) { limits_ = limits; }
  const ServiceLimits& limits() const { return limits_; }
  // Open connections; may be read from any thread.
  size_t connectionCount() const { return connectionCount_.load(std::memory_order_relaxed); }

 private:
  struct Connection;

  bool openListener();
  void closeListener();
  void pauseListener(uint64_t nowMs, int error);
  void resumeListener(uint64_t nowMs);
  void restoreSocket();
  os::Error addConnection(int fd);
  void closeConnection(Connection& connection, const char* why);
  void readFrom(Connection& connection);
  void processFrames(Connection& connection);
  void handleFrame(Connection& connection, const FrameHeader& header, std::span<const uint8_t> payload);
  void handleReservation(Connection& connection, const FrameHeader& header, std::span<const uint8_t> payload);
  void flush(Connection& connection);
  void updateInterest(Connection& connection);
  void sweep(uint64_t nowMs);
  void raiseConfigurationModified();
  os::Error deliver(Link& link);

  Manifest manifest_;
  std::string socketPath_;
  bool manifestOk_ = false;
  ServiceLimits limits_;
  int epoll_ = -1;
  int listener_ = -1;
  dev_t socketDevice_ = 0;
  ino_t socketInode_ = 0;
  std::vector<Interfacable*> interfaces_;
  std::vector<uint64_t> whiteList_;
  PermissionTable permissionTable_;
  os::Certificate ownCertificate_;
  std::unique_ptr<ConfigStore> config_;
  std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
  std::atomic<size_t> connectionCount_{0};
  PeerAdmission<uid_t> admission_;
  uint64_t nextConnectionId_;
  uint64_t reservedBy_ = 0;  // connection id, 0 when free
  uint64_t lastListenAttemptMs_ = 0;
  uint64_t lastSocketCheckMs_ = 0;
  // Out of descriptors: the listener leaves the wait until then (0: it is in).
  uint64_t listenerPausedUntilMs_ = 0;
  uint64_t lastExhaustionLogMs_ = 0;
  bool exhaustionLogged_ = false;
  uint64_t lastCapLogMs_ = 0;
  uint64_t lastReserveLogMs_ = 0;
};

}  // namespace halvorda::service
