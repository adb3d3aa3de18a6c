// Objects that receive a service's messages (Interfacable) and stand-ins for
// other parties whose messages a service receives (Proxyable).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/service/bindable.h"
#include "platform/service/error.h"
#include "platform/service/link.h"
#include "platform/service/permissions.h"

namespace halvorda::service {

class Service;

// Holds the bindings of one object. Added to a Service (addInterface), its
// bindings take part in that service's dispatch. At most one binding per
// message type and interface.
class Interfacable {
 public:
  using MessageHandler = os::Error (*)(Link& link);

  // The service may be given now or later through Service::addInterface.
  Interfacable(Link::LinkType linkType, Service* service);
  Interfacable(const Interfacable&) = delete;
  Interfacable& operator=(const Interfacable&) = delete;

  // Binds a plain function.
  virtual os::Error bind(uint64_t messageType, MessageHandler handler, const Permissions& permissions);
  virtual os::Error unbind(uint64_t messageType, MessageHandler handler);
  // Delivers a message to this interface's binding for its type, after the
  // permission check: ERROR_NO_BINDING, ERROR_PERMISSION_DENIED or the
  // handler's result.
  virtual os::Error raise(Link& link);
  // Takes ownership of the binding, also when refused (an uncallable
  // binding, or a type already bound here: ERROR_INVALID).
  virtual os::Error bind(MessageBindable* bindable);
  // Removes the binding equal to the one given; the argument stays the
  // caller's. ERROR_NOT_FOUND when nothing equal is bound.
  virtual os::Error unbind(MessageBindable* bindable);
  virtual ~Interfacable();

  // The binding for a message type, or null.
  MessageBindable* findBinding(uint64_t messageType) const;
  Link::LinkType linkType() const { return linkType_; }
  Service* service() const { return service_; }

 private:
  friend class Service;

  Link::LinkType linkType_;
  Service* service_;
  std::vector<std::unique_ptr<MessageBindable>> bindings_;
};

// A local stand-in for another party (the service directory, the desktop
// environment). Attached to a service (Service::attachProxy), the messages
// bound on it are delivered through that service's dispatch.
class Proxyable : public Interfacable {
 public:
  Proxyable() : Interfacable(Link::LINK_TYPE_STREAM, nullptr) {}

  // Connects to the party at the address (empty: its default place). The
  // base records the address: the parties proxied by this class push their
  // messages to the service, so there is nothing to open.
  virtual os::Error connect(const std::string& address, uint32_t timeoutMs);
  virtual os::Error disconnect();
  bool isConnected() const { return connected_; }
  const std::string& address() const { return address_; }

 protected:
  void setConnected(bool connected, const std::string& address = {}) {
    connected_ = connected;
    address_ = address;
  }

 private:
  bool connected_ = false;
  std::string address_;
};

}  // namespace halvorda::service
