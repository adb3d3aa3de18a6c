#include "platform/service/inactivity_handler.h"

namespace halvorda::desktopenv {

os::Error InactivityHandler::connect(const std::string& address, uint32_t timeoutMs) {
  return Proxyable::connect(address.empty() ? kDefaultAddress : address, timeoutMs);
}

}  // namespace halvorda::desktopenv
