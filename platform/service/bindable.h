// Bindings: which handler receives which message type, and who may send it.
// A binding is a heap object handed to Interfacable::bind, which owns it
// from then on.
#pragma once

#include <cstdint>
#include <memory>
#include <typeinfo>

#include "platform/service/error.h"
#include "platform/service/link.h"
#include "platform/service/permissions.h"

namespace halvorda::service {

// Result of an event binding whose event could not be decoded; the handler
// is not called. (The GPS service's own "failed" code.)
inline constexpr os::Error ERROR_EVENT_DECODE = -1000100;

class MessageBindable {
 public:
  // Delivers one message.
  virtual os::Error call(Link& link) = 0;
  // Same kind of binding, same object, same handler, same message type: the
  // test unbind uses to find what to remove.
  virtual bool equals(const MessageBindable& other) const = 0;
  virtual uint64_t messageType() const = 0;
  virtual const Permissions& permissions() const = 0;
  virtual ~MessageBindable() = default;

  // False when there is nothing to call (no object, no handler, type 0);
  // bind refuses such a binding.
  virtual bool isCallable() const = 0;
};

namespace detail {

// What both kinds of member binding hold: the object, its member function,
// the message type and the permissions. Two bindings are equal when they are
// of the same kind and hold the same object, member function and type.
template <typename Derived, typename T, typename Method>
class MemberBind : public MessageBindable {
 public:
  bool equals(const MessageBindable& other) const override {
    const auto* same = dynamic_cast<const Derived*>(&other);
    return same && same->object_ == object_ && same->method_ == method_ && same->messageType_ == messageType_;
  }
  uint64_t messageType() const override { return messageType_; }
  const Permissions& permissions() const override { return permissions_; }
  bool isCallable() const override { return object_ && method_ && messageType_ != 0; }

 protected:
  MemberBind(T* object, Method method, uint64_t messageType, const Permissions& permissions)
      : object_(object), method_(method), messageType_(messageType), permissions_(permissions) {}

  T* object_;
  Method method_;
  uint64_t messageType_;
  Permissions permissions_;
};

}  // namespace detail

// A member function that takes the message's link and decodes and answers
// it itself. Used for requests.
template <typename T>
class MessageMethodBind final
    : public detail::MemberBind<MessageMethodBind<T>, T, os::Error (T::*)(Link&)> {
  using Base = detail::MemberBind<MessageMethodBind<T>, T, os::Error (T::*)(Link&)>;

 public:
  using Method = os::Error (T::*)(Link&);

  MessageMethodBind(T* object, Method method, uint64_t messageType, const Permissions& permissions)
      : Base(object, method, messageType, permissions) {}

  os::Error call(Link& link) override { return (this->object_->*this->method_)(link); }
};

// A member function that takes the decoded event E. The binding decodes the
// event; when that fails the handler is not called and the result is
// ERROR_EVENT_DECODE. The message type defaults to E's own.
template <typename T, typename E>
class MessageEventBind final
    : public detail::MemberBind<MessageEventBind<T, E>, T, os::Error (T::*)(const E&)> {
  using Base = detail::MemberBind<MessageEventBind<T, E>, T, os::Error (T::*)(const E&)>;

 public:
  using Method = os::Error (T::*)(const E&);

  MessageEventBind(T* object, Method method, uint64_t messageType, const Permissions& permissions)
      : Base(object, method, messageType, permissions) {}
  MessageEventBind(T* object, Method method, const Permissions& permissions)
      : MessageEventBind(object, method, E::getMessageTypeStatic(), permissions) {}

  os::Error call(Link& link) override {
    const std::unique_ptr<E> event = E::instantiate();
    if (link.decode(*event) != os::ERROR_NONE) return ERROR_EVENT_DECODE;
    return (this->object_->*this->method_)(*event);
  }
};

}  // namespace halvorda::service
