// The platform root: every absolute path of the terminal is resolved below one
// directory, GPS_PLATFORM_ROOT (default /var/lib/gps-service).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace gps::platform {

inline constexpr const char* kDefaultRoot = "/var/lib/gps-service";

// The root directory, read from GPS_PLATFORM_ROOT on first use and created if
// missing. Never ends with '/'.
const std::string& Root();

// Re-reads GPS_PLATFORM_ROOT and the settings below it; for tools that pick
// their root after start (gps-replay) and for tests.
void ReloadRoot();

// Maps an absolute terminal path ("/home/LEGACY_FS/HOST/x", "/tmp/gps_dgprs")
// below the root. Returns nothing for relative paths and for paths with ".."
// components: nothing may reach outside the root.
std::optional<std::string> SystemPath(std::string_view terminalPath);

// Maps a file-system path whose first component is a disk ("/GPS/gps_param.cfg")
// to $ROOT/fs/GPS/gps_param.cfg, under the same rules.
std::optional<std::string> DiskPath(std::string_view diskPath);

// Creates a directory and its parents (mode 0755). False with errno set on failure.
bool MakeDirectories(const std::string& path);

}  // namespace gps::platform
