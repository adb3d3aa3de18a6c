// Small file helpers of the service framework.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace halvorda::service {

// Replaces the file whole: writes a temporary file beside it, flushes it,
// renames it over the target and flushes the directory, so a reader or a
// power cut sees the old content or the new, never a mix. False (logged,
// target untouched) on failure.
bool WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode = 0644);

enum class ReadStatus { Ok, Missing, TooLarge, Failed };
// Reads a whole regular file of at most maxBytes. Failed: the file could not
// be opened or read (a symbolic link, not a regular file, EACCES, EMFILE,
// EIO, ...); *error then holds the errno, which says nothing about the
// content.
ReadStatus ReadWholeFile(const std::string& path, size_t maxBytes, std::string& content, int* error = nullptr);

std::string ParentDirectory(const std::string& path);

}  // namespace halvorda::service
