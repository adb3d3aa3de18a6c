// gps-service: the process entry. It reads no arguments: the platform root
// (GPS_PLATFORM_ROOT) and its platform.ini say everything.
#include <cstdio>

#include "export/exporter.h"
#include "platform/oem.h"
#include "platform/os.h"
#include "service/gps_core.h"

int main() {
  // Log lines to stderr must not wait in a buffer when the process is killed.
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  constexpr uint32_t kForever = 0xFFFFFFFFu;

  if (Oem_SystemFioctl(OEM_REQUEST_STARTUP_MODE, nullptr) != 0) {
    // Ready-only start: tell the directory and leave without serving.
    halvorda::service::Directory directory;
    directory.connect("", kForever);
    directory.setReady();
    directory.disconnect();
    return 0;
  }

  halvorda::service::Service service(GPS_SERVICE_MANIFEST, nullptr);
  auto* directory = new halvorda::service::Directory;
  if (directory->connect("", kForever) != 0) {
    delete directory;
    return 0;
  }
  {
    GPSCore core(&service);
    service.addInterface(&core);
    // The gpsd endpoint and the chrony source, when platform.ini names them.
    const auto exporter = gps::exporter::Exporter::StartConfigured();
    const halvorda::os::Error registered = directory->add(service.getServiceClass(), service.getAddress());
    directory->setReady();
    directory->disconnect();
    delete directory;
    if (registered != 0) return 0;
    Sys_log(7, "%s running", service.getServiceClass().c_str());
    for (;;) service.dispatch(kForever);
  }
}
