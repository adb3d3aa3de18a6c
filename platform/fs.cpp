#include "platform/fs.h"
#include "platform/os.h"
#include "platform/root.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <dirent.h>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace {

// A file open for reading works on its descriptor; a file open for writing
// works on an in-memory image that is committed whole.
struct OpenMode {
  bool read = false;
  bool write = false;
  bool create = false;
  bool truncate = false;
  bool append = false;
};

bool ParseMode(const char* mode, OpenMode& out) {
  if (!mode || !*mode) return false;
  std::string m;
  for (const char* p = mode; *p; ++p)
    if (*p != 'b') m += *p;
  if (m == "r") out = {true, false, false, false, false};
  else if (m == "r+") out = {true, true, false, false, false};
  else if (m == "w") out = {false, true, true, true, false};
  else if (m == "w+") out = {true, true, true, true, false};
  else if (m == "a") out = {false, true, true, false, true};
  else if (m == "a+") out = {true, true, true, false, true};
  else return false;
  return true;
}

bool WriteAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

void SyncDirectory(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

std::atomic<unsigned> g_commitSerial{0};

}  // namespace

struct FILE_FS_File {
  std::string path;
  OpenMode mode;
  int fd = -1;                   // read-only files
  std::vector<uint8_t> image;    // writable files
  size_t position = 0;
  bool dirty = false;

  // Writes the image to a temporary file beside the target, flushes it and
  // renames it over the target; the old content survives any failure.
  int Commit() {
    if (!dirty) return 0;
    const std::string temp = path + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(g_commitSerial++);
    const int out = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (out < 0) {
      Sys_log(3, "FILE_FS: cannot create %s: %s.", temp.c_str(), std::strerror(errno));
      return -1;
    }
    const bool written = WriteAll(out, image.data(), image.size()) && ::fsync(out) == 0;
    const int savedErrno = errno;
    ::close(out);
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
      Sys_log(3, "FILE_FS: cannot commit %s: %s.", path.c_str(), std::strerror(written ? errno : savedErrno));
      ::unlink(temp.c_str());
      return -1;
    }
    SyncDirectory(DirectoryOf(path));
    dirty = false;
    return 0;
  }
};

int FILE_FS_dskcreate(const FILE_FS_DiskDescriptor* descriptor, const uint32_t* /*sizeInBlocks*/) {
  if (!descriptor) return FILE_FS_DISK_ERROR;
  const std::string name(descriptor->name, strnlen(descriptor->name, sizeof descriptor->name));
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return FILE_FS_DISK_ERROR;
  const auto dir = gps::platform::DiskPath("/" + name);
  if (!dir) return FILE_FS_DISK_ERROR;
  struct stat st{};
  if (::stat(dir->c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return FILE_FS_DISK_EXISTS;
  if (!gps::platform::MakeDirectories(*dir)) {
    Sys_log(3, "FILE_FS: cannot create disk directory %s: %s.", dir->c_str(), std::strerror(errno));
    return FILE_FS_DISK_ERROR;
  }
  SyncDirectory(DirectoryOf(*dir));
  return FILE_FS_DISK_CREATED;
}

int FILE_FS_mount(const char* diskPath, const uint32_t* /*mode*/) {
  if (!diskPath) return FILE_FS_MOUNT_FAILED;
  const auto dir = gps::platform::DiskPath(diskPath);
  struct stat st{};
  if (!dir || ::stat(dir->c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return FILE_FS_MOUNT_FAILED;
  return FILE_FS_MOUNT_OK;
}

FILE_FS_HANDLE FILE_FS_open(const char* path, const char* mode) {
  OpenMode m;
  if (!path || !ParseMode(mode, m)) return nullptr;
  const auto real = gps::platform::DiskPath(path);
  if (!real) return nullptr;
  auto file = std::make_unique<FILE_FS_File>();
  file->path = *real;
  file->mode = m;
  if (!m.write) {
    file->fd = ::open(real->c_str(), O_RDONLY | O_CLOEXEC);
    if (file->fd < 0) return nullptr;
    struct stat st{};
    if (::fstat(file->fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      ::close(file->fd);
      return nullptr;
    }
    return file.release();
  }
  // The disk must exist; the file itself is created only for w/a modes.
  struct stat st{};
  if (::stat(DirectoryOf(*real).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return nullptr;
  const int fd = ::open(real->c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT || !m.create) return nullptr;
    file->dirty = true;  // a new file exists once committed, even if empty
  } else {
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > FILE_FS_MAX_WRITABLE_BYTES) {
      ::close(fd);
      return nullptr;
    }
    if (!m.truncate) {
      file->image.resize(static_cast<size_t>(st.st_size));
      size_t got = 0;
      while (got < file->image.size()) {
        const ssize_t n = ::read(fd, file->image.data() + got, file->image.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
      }
      file->image.resize(got);
    } else {
      file->dirty = true;
    }
    ::close(fd);
  }
  if (m.append) file->position = file->image.size();
  return file.release();
}

long FILE_FS_length(FILE_FS_HANDLE file) {
  if (!file) return -1;
  if (file->fd >= 0) {
    struct stat st{};
    return ::fstat(file->fd, &st) == 0 ? static_cast<long>(st.st_size) : -1;
  }
  return static_cast<long>(file->image.size());
}

long FILE_FS_tell(FILE_FS_HANDLE file) { return file ? static_cast<long>(file->position) : -1; }

int FILE_FS_seek(FILE_FS_HANDLE file, long offset, int origin) {
  if (!file) return -1;
  long base = 0;
  switch (origin) {
    case FILE_FS_SEEK_SET: base = 0; break;
    case FILE_FS_SEEK_CUR: base = static_cast<long>(file->position); break;
    case FILE_FS_SEEK_END: base = FILE_FS_length(file); break;
    default: return -1;
  }
  if (base < 0 || offset > LONG_MAX - base) return -1;
  const long target = base + offset;
  if (target < 0) return -1;
  file->position = static_cast<size_t>(target);
  return 0;
}

size_t FILE_FS_read(void* data, size_t size, size_t count, FILE_FS_HANDLE file) {
  if (!file || !data || size == 0 || count == 0 || !file->mode.read) return 0;
  if (count > SIZE_MAX / size) return 0;
  const size_t wanted = size * count;
  size_t got = 0;
  if (file->fd >= 0) {
    while (got < wanted) {
      const ssize_t n = ::pread(file->fd, static_cast<uint8_t*>(data) + got, wanted - got,
                                static_cast<off_t>(file->position + got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
  } else if (file->position < file->image.size()) {
    got = std::min(wanted, file->image.size() - file->position);
    std::memcpy(data, file->image.data() + file->position, got);
  }
  file->position += got;
  return got / size;
}

size_t FILE_FS_write(const void* data, size_t size, size_t count, FILE_FS_HANDLE file) {
  if (!file || !data || size == 0 || count == 0 || !file->mode.write) return 0;
  if (count > SIZE_MAX / size) return 0;
  size_t bytes = size * count;
  if (file->mode.append) file->position = file->image.size();
  if (file->position >= FILE_FS_MAX_WRITABLE_BYTES) return 0;
  bytes = std::min(bytes, FILE_FS_MAX_WRITABLE_BYTES - file->position) / size * size;
  const size_t end = file->position + bytes;
  if (end > file->image.size()) file->image.resize(end);  // a gap after a seek reads as zeros
  std::memcpy(file->image.data() + file->position, data, bytes);
  file->position = end;
  file->dirty = true;
  return bytes / size;
}

int FILE_FS_sync(FILE_FS_HANDLE file) {
  if (!file) return -1;
  return file->mode.write ? file->Commit() : 0;
}

int FILE_FS_close(FILE_FS_HANDLE file) {
  if (!file) return -1;
  const int result = file->mode.write ? file->Commit() : 0;
  if (file->fd >= 0) ::close(file->fd);
  delete file;
  return result;
}

struct FILE_FS_Dir {
  std::vector<FILE_FS_DirEntry> entries;
  size_t next = 0;
};

namespace {

bool MakeEntry(const std::string& path, const std::string& name, FILE_FS_DirEntry& entry) {
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  // Files being committed are not part of the listing.
  if (name.find(".tmp-") != std::string::npos || name.size() >= sizeof entry.name) return false;
  entry = {};
  std::memcpy(entry.name, name.c_str(), name.size() + 1);
  entry.size = st.st_size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(st.st_size);
  entry.modifiedTime = st.st_mtime;
  tm local{};
  const time_t modified = st.st_mtime;
  localtime_r(&modified, &local);
  entry.day = static_cast<uint8_t>(local.tm_mday);
  entry.month = static_cast<uint8_t>(local.tm_mon + 1);
  entry.year = static_cast<uint8_t>(local.tm_year % 100);
  return true;
}

}  // namespace

FILE_FS_DIR_HANDLE FILE_FS_opendir(const char* path) {
  if (!path) return nullptr;
  const auto real = gps::platform::DiskPath(path);
  if (!real) return nullptr;
  struct stat st{};
  if (::stat(real->c_str(), &st) != 0) return nullptr;
  auto dir = std::make_unique<FILE_FS_Dir>();
  if (S_ISREG(st.st_mode)) {
    FILE_FS_DirEntry entry;
    const size_t slash = real->rfind('/');
    if (MakeEntry(*real, real->substr(slash + 1), entry)) dir->entries.push_back(entry);
    return dir.release();
  }
  if (!S_ISDIR(st.st_mode)) return nullptr;
  DIR* listing = ::opendir(real->c_str());
  if (!listing) return nullptr;
  while (const dirent* item = ::readdir(listing)) {
    FILE_FS_DirEntry entry;
    if (MakeEntry(*real + "/" + item->d_name, item->d_name, entry)) dir->entries.push_back(entry);
  }
  ::closedir(listing);
  return dir.release();
}

int FILE_FS_readdir(FILE_FS_DIR_HANDLE dir, FILE_FS_DirEntry* entry) {
  if (!dir || !entry || dir->next >= dir->entries.size()) return FILE_FS_READDIR_END;
  *entry = dir->entries[dir->next++];
  return FILE_FS_READDIR_ENTRY;
}

int FILE_FS_closedir(FILE_FS_DIR_HANDLE dir) {
  if (!dir) return -1;
  delete dir;
  return 0;
}

int32_t FILE_FS_AreaGetFreeSize(int /*area*/) {
  struct statvfs vfs{};
  if (::statvfs(gps::platform::Root().c_str(), &vfs) != 0) return -1;
  const unsigned long long freeBytes = static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize;
  return freeBytes > static_cast<unsigned long long>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(freeBytes);
}
