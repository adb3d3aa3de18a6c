#include "platform/oem.h"

#include <cstring>

#include "platform/settings.h"

int Oem_SystemFioctl(uint32_t request, void* argument) {
  const gps::platform::Settings& settings = gps::platform::CurrentSettings();
  uint32_t value = 0;
  switch (request) {
    case OEM_REQUEST_STARTUP_MODE:
      // The service asks with no argument and reads the mode from the result.
      value = static_cast<uint32_t>(settings.startupMode);
      if (argument) std::memcpy(argument, &value, sizeof value);
      return static_cast<int>(value);
    case OEM_REQUEST_GPS_MODULE_TYPE:
      if (!argument) return OEM_ERROR_ARGUMENT;
      value = static_cast<uint32_t>(settings.moduleType);
      std::memcpy(argument, &value, sizeof value);
      return 0;
    default:
      return OEM_ERROR_UNKNOWN_REQUEST;
  }
}
