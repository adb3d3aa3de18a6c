#include "platform/oem.h"

#include <cstring>

#include "platform/settings.h"

int Oem_SystemFioctl(uint32_t request, void* argument) {
  if (!argument) return OEM_ERROR_ARGUMENT;
  const gps::platform::Settings& settings = gps::platform::CurrentSettings();
  uint32_t value = 0;
  switch (request) {
    case OEM_REQUEST_STARTUP_MODE: value = static_cast<uint32_t>(settings.startupMode); break;
    case OEM_REQUEST_GPS_MODULE_TYPE: value = static_cast<uint32_t>(settings.moduleType); break;
    default: return OEM_ERROR_UNKNOWN_REQUEST;
  }
  std::memcpy(argument, &value, sizeof value);
  return 0;
}
