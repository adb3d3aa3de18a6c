// Small file helpers of the service framework.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/fs.h"

namespace halvorda::service {

// Replaces the file whole: writes a temporary file beside it, flushes it,
// renames it over the target and flushes the directory, so a reader or a
// power cut sees the old content or the new, never a mix. False (logged,
// target untouched) on failure.
bool WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode = 0644);

// The platform's one bounded, non-blocking read of a regular file.
using gps::platform::ReadStatus;
using gps::platform::ReadWholeFile;

std::string ParentDirectory(const std::string& path);

// Removes the temporary files that WriteFileAtomically and the file system's
// commits leave in a directory when their writer is killed mid-write
// ("NAME.tmp-PID-N" of a PID that no longer runs). Files of a running writer
// and every other name are left alone. Returns how many were removed.
int RemoveStaleTemporaryFiles(const std::string& directory);

}  // namespace halvorda::service
