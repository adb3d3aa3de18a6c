// The outward interfaces beside the service: the gpsd-compatible JSON
// endpoint and the chrony time source, served by one thread woken by the
// engine's message notification.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace gps::exporter {

struct ExportSettings {
  std::string gpsdListen;    // "127.0.0.1:2947", "[::1]:2947", several separated by spaces or commas
  std::string gpsdSocket;    // a Unix stream socket path below the platform root
  std::string chronySocket;  // chronyd's SOCK refclock socket
  std::string devicePath;    // the DEVICE path clients see ("sim" for the simulator)
  int bps = 9600;
  int maxConnectionsPerUser = 64;  // connections one ordinary peer may hold
  bool lineDelay = true;     // bytes take 10 bit times each on the receiver's line
};

class Exporter {
 public:
  // Opens what the settings name and starts the thread; nullptr when nothing
  // is configured. An address or path that cannot be opened is logged with
  // what to do and left out; the rest still starts.
  static std::unique_ptr<Exporter> Start(const ExportSettings& settings);
  // The settings of the current platform root (platform.ini).
  static std::unique_ptr<Exporter> StartConfigured();

  virtual ~Exporter() = default;
  // "127.0.0.1:40123" for each TCP address listened on, then the socket path.
  virtual std::vector<std::string> endpoints() const = 0;
};

}  // namespace gps::exporter
