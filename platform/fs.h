// The terminal's file system on Linux: a disk is a directory below $ROOT/fs and
// a file path is "/DISK/name". Files opened for writing are committed
// atomically (temporary file, fsync, rename) at FILE_FS_sync and FILE_FS_close,
// so a power cut leaves either the old or the new content, never a torn file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct _dictionary_;  // iniparser's dictionary

// Disk creation descriptor, laid out as the terminal's platform expects it.
// Only the name is meaningful on Linux; the four values are kept for the
// callers that pass them.
struct FILE_FS_DiskDescriptor {
  char name[16];        // disk name, NUL-padded
  uint32_t blockSize;
  uint32_t accessMode;
  uint32_t maxOpenFiles;
  uint32_t area;
};

// Results of FILE_FS_dskcreate.
inline constexpr int FILE_FS_DISK_CREATED = 2;
inline constexpr int FILE_FS_DISK_EXISTS = 6;
inline constexpr int FILE_FS_DISK_ERROR = -1;
// Results of FILE_FS_mount.
inline constexpr int FILE_FS_MOUNT_OK = 1;
inline constexpr int FILE_FS_MOUNT_FAILED = 0;

inline constexpr int FILE_FS_SEEK_SET = 0;
inline constexpr int FILE_FS_SEEK_CUR = 1;
inline constexpr int FILE_FS_SEEK_END = 2;

// Largest file that can be opened for writing (its content is held in memory
// until committed).
inline constexpr size_t FILE_FS_MAX_WRITABLE_BYTES = 16u * 1024u * 1024u;

struct FILE_FS_File;
using FILE_FS_HANDLE = FILE_FS_File*;

int FILE_FS_dskcreate(const FILE_FS_DiskDescriptor* descriptor, const uint32_t* sizeInBlocks);
int FILE_FS_mount(const char* diskPath, const uint32_t* mode);

// Modes as fopen: "r", "r+", "w", "w+", "a", "a+" ("b" is accepted and ignored).
// Returns nullptr (0) when the file cannot be opened.
FILE_FS_HANDLE FILE_FS_open(const char* path, const char* mode);
int FILE_FS_seek(FILE_FS_HANDLE file, long offset, int origin);  // 0 or -1
long FILE_FS_tell(FILE_FS_HANDLE file);
long FILE_FS_length(FILE_FS_HANDLE file);                         // bytes, or -1
size_t FILE_FS_read(void* data, size_t size, size_t count, FILE_FS_HANDLE file);
size_t FILE_FS_write(const void* data, size_t size, size_t count, FILE_FS_HANDLE file);
int FILE_FS_sync(FILE_FS_HANDLE file);   // commits pending writes; 0 or -1
int FILE_FS_close(FILE_FS_HANDLE file);  // commits and releases; 0 or -1

// Directory listings. A listing of a directory delivers its regular files; a
// listing of a file path delivers that file alone.
struct FILE_FS_DirEntry {
  char name[64];
  uint32_t size;          // bytes
  uint8_t day;            // date of the file (its last modification), local time
  uint8_t month;
  uint8_t year;           // two digits
  int64_t modifiedTime;   // seconds since the epoch
};
inline constexpr int FILE_FS_READDIR_ENTRY = 2;  // FILE_FS_readdir delivered an entry
inline constexpr int FILE_FS_READDIR_END = 0;

struct FILE_FS_Dir;
using FILE_FS_DIR_HANDLE = FILE_FS_Dir*;

FILE_FS_DIR_HANDLE FILE_FS_opendir(const char* path);  // nullptr when it cannot be listed
int FILE_FS_readdir(FILE_FS_DIR_HANDLE dir, FILE_FS_DirEntry* entry);
int FILE_FS_closedir(FILE_FS_DIR_HANDLE dir);

// Free bytes of the file system holding the root, saturated to INT32_MAX;
// -1 when it cannot be read.
int32_t FILE_FS_AreaGetFreeSize(int area);

namespace gps::platform {

// Limit for the daemon's small text files (platform.ini, permissions.ini, the
// manifest, the stored configuration, the optional parameters).
inline constexpr size_t kMaxTextFileBytes = 64u * 1024u;

enum class ReadStatus { Ok, Missing, TooLarge, Failed };

// Reads a whole file of at most maxBytes: every file the daemon reads comes
// through here. The file is opened non-blocking and must be a regular file
// (a symbolic link to one is followed), so a FIFO, a device or a directory
// in its place is refused at once instead of blocking or never ending.
// Missing: no such file. Failed: it could not be opened or read, or is not a
// regular file; *error then holds the errno (EINVAL for a file that is not
// regular), which says nothing about the content. *problem, when given,
// receives a sentence naming the file and what is wrong with it
// ("/x/platform.ini is a FIFO, not a regular file"); empty for Ok and Missing.
ReadStatus ReadWholeFile(const std::string& path, size_t maxBytes, std::string& content, int* error = nullptr,
                         std::string* problem = nullptr);

struct IniDeleter {
  void operator()(_dictionary_* dictionary) const;
};
using IniDictionary = std::unique_ptr<_dictionary_, IniDeleter>;

// iniparser's reading of INI text already read with ReadWholeFile, so that
// what is parsed is exactly what was checked. nullptr (errno set) when
// iniparser refuses the text or no memory file can be made for it.
IniDictionary ParseIni(std::string_view text);

}  // namespace gps::platform
