// The desktop environment's inactivity monitor as a service sees it. Bound
// on this proxy, WakeupEvent handlers receive the wake-up events that the
// desktop environment (or gps-servicectl wakeup) sends to the service's socket once
// the proxy is attached (Service::attachProxy).
#pragma once

#include <string>

#include "platform/service/interfacable.h"

namespace halvorda::desktopenv {

class InactivityHandler final : public service::Proxyable {
 public:
  // The desktop environment's class, used when attached with an empty address.
  static inline const std::string kDefaultAddress = "local.desktopenv";

  // Records the party. The desktop environment pushes its events to every
  // service that listens for them, so no connection of our own is opened.
  os::Error connect(const std::string& address, uint32_t timeoutMs) override;
};

}  // namespace halvorda::desktopenv
