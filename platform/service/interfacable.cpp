#include "platform/service/interfacable.h"

#include <algorithm>

#include "platform/os.h"
#include "platform/service/service.h"

namespace halvorda::service {
namespace {

// A plain function bound through Interfacable::bind(type, handler, perms).
class FunctionBind final : public MessageBindable {
 public:
  FunctionBind(Interfacable::MessageHandler handler, uint64_t messageType, const Permissions& permissions)
      : handler_(handler), messageType_(messageType), permissions_(permissions) {}
  os::Error call(Link& link) override { return handler_(link); }
  bool equals(const MessageBindable& other) const override {
    const auto* same = dynamic_cast<const FunctionBind*>(&other);
    return same && same->handler_ == handler_ && same->messageType_ == messageType_;
  }
  uint64_t messageType() const override { return messageType_; }
  const Permissions& permissions() const override { return permissions_; }
  bool isCallable() const override { return handler_ && messageType_ != 0; }

 private:
  Interfacable::MessageHandler handler_;
  uint64_t messageType_;
  Permissions permissions_;
};

}  // namespace

Interfacable::Interfacable(Link::LinkType linkType, Service* service) : linkType_(linkType), service_(nullptr) {
  if (service) service->addInterface(this);
}

Interfacable::~Interfacable() {
  if (service_) service_->removeInterface(this);
}

os::Error Interfacable::bind(uint64_t messageType, MessageHandler handler, const Permissions& permissions) {
  return bind(new FunctionBind(handler, messageType, permissions));
}

os::Error Interfacable::unbind(uint64_t messageType, MessageHandler handler) {
  FunctionBind probe(handler, messageType, Permissions());
  return unbind(&probe);
}

os::Error Interfacable::bind(MessageBindable* bindable) {
  std::unique_ptr<MessageBindable> owned(bindable);
  if (!owned || !owned->isCallable()) return ERROR_INVALID;
  if (findBinding(owned->messageType())) {
    Sys_log(3, "service: message type %016llx is already bound on this interface.",
            static_cast<unsigned long long>(owned->messageType()));
    return ERROR_INVALID;
  }
  bindings_.push_back(std::move(owned));
  return os::ERROR_NONE;
}

os::Error Interfacable::unbind(MessageBindable* bindable) {
  if (!bindable) return ERROR_INVALID;
  const auto found = std::find_if(bindings_.begin(), bindings_.end(),
                                  [bindable](const auto& bound) { return bound->equals(*bindable); });
  if (found == bindings_.end()) return ERROR_NOT_FOUND;
  bindings_.erase(found);
  return os::ERROR_NONE;
}

MessageBindable* Interfacable::findBinding(uint64_t messageType) const {
  for (const auto& bound : bindings_)
    if (bound->messageType() == messageType) return bound.get();
  return nullptr;
}

os::Error Interfacable::raise(Link& link) {
  MessageBindable* binding = findBinding(link.getMessageType());
  if (!binding) return ERROR_NO_BINDING;
  if (!binding->permissions().admits(link.getCertificate())) return ERROR_PERMISSION_DENIED;
  return binding->call(link);
}

os::Error Proxyable::connect(const std::string& address, uint32_t /*timeoutMs*/) {
  setConnected(true, address);
  return os::ERROR_NONE;
}

os::Error Proxyable::disconnect() {
  setConnected(false);
  return os::ERROR_NONE;
}

}  // namespace halvorda::service
