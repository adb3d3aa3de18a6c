// The service directory: a registry of service classes and the socket
// addresses they answer on, kept as one small file per class under
// $ROOT/run/directory/. Services register with add(); clients resolve a
// class to a socket path with Resolve().
//
// Entry file $ROOT/run/directory/<class>, written atomically:
//   address=run/local.device.gps.sock   socket path, relative to the root
//   pid=1234                            the registering process
//   ready=1                             set once the service called setReady
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/service/error.h"
#include "platform/service/interfacable.h"

namespace halvorda::service {

struct DirectoryEntry {
  std::string address;  // as registered
  pid_t pid = 0;
  bool ready = false;
};

class Directory : public Proxyable {
 public:
  Directory() = default;

  // Opens the registry at the address: empty for the default
  // $ROOT/run/directory, else a directory path (absolute, or relative to the
  // root). The registry is a local directory, created when missing, so there
  // is nothing to wait for and the timeout is not used.
  os::Error connect(const std::string& address, uint32_t timeoutMs) override;
  os::Error disconnect() override;

  // Registers a class at a socket address (relative to the root, or
  // absolute). Replaces an earlier entry of the class.
  os::Error add(const std::string& serviceClass, const std::string& address);
  os::Error remove(const std::string& serviceClass);
  // Marks the classes this object added as ready and, when the process was
  // started by systemd with a notification socket ($NOTIFY_SOCKET), sends it
  // READY=1. Also valid without any add (a process that only signals).
  os::Error setReady();

  // The registry path of the default directory.
  static std::string DefaultPath();
  static std::optional<DirectoryEntry> Lookup(const std::string& serviceClass, const std::string& directory = {});
  // The absolute socket path of a class, or nothing when not registered.
  static std::optional<std::string> Resolve(const std::string& serviceClass, const std::string& directory = {});

 private:
  os::Error writeEntry(const std::string& serviceClass, const DirectoryEntry& entry);

  std::string path_;
  std::vector<std::pair<std::string, DirectoryEntry>> added_;
};

// Sends READY=1 to $NOTIFY_SOCKET when set; 0 also when it is not set.
os::Error NotifySystemdReady();

}  // namespace halvorda::service
