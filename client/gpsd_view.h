// gps-servicectl's sky and time views, read from the daemon's gpsd-compatible
// endpoint (platform.ini [gpsd]) and the chrony source ([chrony]): the
// service's own messages carry neither satellites nor sub-second time.
#pragma once

#include <chrono>
#include <string>

#include "client/error.h"

namespace gps::client {

// Satellites in view and used, with their signal. The text, or an error
// naming what is missing (endpoint off, service not running).
Result<std::string> SkyView(std::chrono::milliseconds timeout);

// The receiver's UTC time of the next fix against the system clock at its
// arrival, and the chrony source's state when one is configured.
Result<std::string> TimeView(std::chrono::milliseconds timeout);

}  // namespace gps::client
