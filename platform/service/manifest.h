// A service's manifest: its class and the address it answers on.
//
// The manifest is an INI file, named by a "file://" URI relative to the
// platform root (file://param/DATAAEC8999.TAR/manifest/local.device.gps.MNF
// is $ROOT/param/DATAAEC8999.TAR/manifest/local.device.gps.MNF):
//
//   [service]
//   class = local.device.gps
//   address = run/local.device.gps.sock   ; socket path, relative to the root
//
// A new root needs no preparation, so a missing manifest is written with the
// class taken from the file name (less its extension) and the address
// run/<class>.sock, and a line is logged saying so.
#pragma once

#include <string>

#include "platform/service/error.h"

namespace halvorda::service {

struct Manifest {
  std::string serviceClass;
  std::string address;
};

// The file a manifest URI names ("file://..." or a plain path; relative
// paths are below the root).
std::string ManifestPath(const std::string& uri);

os::Error LoadManifest(const std::string& uri, Manifest& manifest);

}  // namespace halvorda::service
