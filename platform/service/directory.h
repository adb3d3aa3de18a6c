// The service directory: a registry of service classes and the socket
// addresses they answer on, kept as one small file per class under
// $ROOT/run/directory/. Services register with add(); clients resolve a
// class to a socket path with Resolve().
//
// Entry file $ROOT/run/directory/<class>, written atomically:
//   address=run/local.device.gps.sock   socket path, relative to the root
//   pid=1234                            the registering process
//   started=5678                        its start time (clock ticks after boot),
//                                       so a reused pid is not taken for it
//   ready=1                             set once the service called setReady
//   receiver=simulated                  further attributes the service adds
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/service/error.h"
#include "platform/service/interfacable.h"

namespace halvorda::service {

using DirectoryAttributes = std::vector<std::pair<std::string, std::string>>;

struct DirectoryEntry {
  std::string address;  // as registered
  pid_t pid = 0;
  uint64_t started = 0;  // 0 when unknown
  bool ready = false;
  DirectoryAttributes attributes;

  // The attribute's value; empty when absent.
  std::string attribute(std::string_view key) const;
  // The registering process still runs (the same process, not a later one
  // that got its pid).
  bool processAlive() const;
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
  // absolute), with optional attributes (key without '=' or newline, value
  // without newline). Replaces an earlier entry of the class left by a
  // process that has ended; ERROR_IN_USE while that process still runs.
  os::Error add(const std::string& serviceClass, const std::string& address, const DirectoryAttributes& attributes = {});
  os::Error remove(const std::string& serviceClass);
  // Marks the classes this object added as ready and, when the process was
  // started by systemd with a notification socket ($NOTIFY_SOCKET), sends it
  // READY=1. Also valid without any add (a process that only signals).
  os::Error setReady();

  // Writes again each entry this process added and has not removed whose
  // file disappeared or was replaced since it was written (another inode or
  // modification time), also when the registry folder itself went away (not
  // its parent: the whole root is gone then, and the entry is forgotten).
  // Logs each repair once. The service's loop calls it once a second.
  static void RestoreRegistered();

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

// Sends a state ("READY=1", "WATCHDOG=1", "STOPPING=1") to $NOTIFY_SOCKET
// when set; 0 also when it is not set.
os::Error NotifySystemd(std::string_view state);
inline os::Error NotifySystemdReady() { return NotifySystemd("READY=1"); }

// The process's start time in clock ticks after boot (/proc/PID/stat); 0 when
// it cannot be read.
uint64_t ProcessStartTime(pid_t pid);

}  // namespace halvorda::service
