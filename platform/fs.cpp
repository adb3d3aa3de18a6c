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
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

extern "C" {
#include <iniparser.h>
}

namespace {

// An open file works on an in-memory image of the file, read whole at open;
// a file open for writing commits its image whole.
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

const char* KindOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFIFO: return "a FIFO";
    case S_IFCHR: return "a character device";
    case S_IFBLK: return "a block device";
    case S_IFDIR: return "a directory";
    case S_IFSOCK: return "a socket";
    default: return "not a plain file";
  }
}

// A refusal met while the daemon runs is logged once, not on every retry.
void LogRefusal(const std::string& problem) {
  static std::mutex mutex;
  static std::string last;
  const std::lock_guard<std::mutex> lock(mutex);
  if (problem == last) return;
  last = problem;
  Sys_log(3, "FILE_FS: %s; the file is not used.", problem.c_str());
}

}  // namespace

namespace gps::platform {

ReadStatus ReadWholeFile(const std::string& path, size_t maxBytes, std::string& content, int* error,
                         std::string* problem) {
  content.clear();
  int ignoredError = 0;
  std::string ignoredProblem;
  int& failure = error ? *error : ignoredError;
  std::string& why = problem ? *problem : ignoredProblem;
  failure = 0;
  why.clear();
  // Non-blocking: opening a FIFO without a writer would otherwise wait forever.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    failure = errno;
    // A link to nothing is not a missing file: whoever made it meant
    // something, and nothing may be written over it.
    struct stat link{};
    if (failure == ENOENT && ::lstat(path.c_str(), &link) != 0) return ReadStatus::Missing;
    why = path + (failure == ENOENT ? " is a symbolic link to nothing" : " cannot be read: " + std::string(std::strerror(failure)));
    return ReadStatus::Failed;
  }
  struct stat st{};
  ReadStatus status = ReadStatus::Ok;
  if (::fstat(fd, &st) != 0) {
    failure = errno;
    why = path + " cannot be read: " + std::strerror(failure);
    status = ReadStatus::Failed;
  } else if (!S_ISREG(st.st_mode)) {
    failure = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    why = path + " is " + KindOf(st.st_mode) + ", not a regular file";
    status = ReadStatus::Failed;
  } else if (static_cast<uintmax_t>(st.st_size) > maxBytes) {
    status = ReadStatus::TooLarge;
  } else {
    // The size is checked again while reading: the file may grow, and files
    // of /proc say 0.
    char buffer[8192];
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        failure = errno;
        why = path + " cannot be read: " + std::strerror(failure);
        status = ReadStatus::Failed;
        break;
      }
      if (n == 0) break;
      if (content.size() + static_cast<size_t>(n) > maxBytes) {
        status = ReadStatus::TooLarge;
        break;
      }
      content.append(buffer, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  if (status == ReadStatus::TooLarge) {
    failure = EFBIG;
    why = path + " is larger than " + std::to_string(maxBytes) + " bytes";
  }
  if (status != ReadStatus::Ok) content.clear();
  return status;
}

void IniDeleter::operator()(_dictionary_* dictionary) const { iniparser_freedict(dictionary); }

IniDictionary ParseIni(std::string_view text) {
  // iniparser reads only from a named file: the text goes to a memory file,
  // read back through its /proc name.
  const int fd = ::memfd_create("ini", MFD_CLOEXEC);
  if (fd < 0) return nullptr;
  const bool written = WriteAll(fd, reinterpret_cast<const uint8_t*>(text.data()), text.size());
  IniDictionary dictionary;
  if (written) dictionary.reset(iniparser_load(("/proc/self/fd/" + std::to_string(fd)).c_str()));
  const int savedErrno = errno;
  ::close(fd);
  errno = written ? savedErrno : EIO;
  return dictionary;
}

}  // namespace gps::platform

struct FILE_FS_File {
  std::string path;
  OpenMode mode;
  std::vector<uint8_t> image;
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
  // The disk must exist; the file itself is created only for w/a modes.
  struct stat st{};
  if (m.write && (::stat(DirectoryOf(*real).c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) return nullptr;
  std::string content;
  std::string problem;
  switch (gps::platform::ReadWholeFile(*real, FILE_FS_MAX_WRITABLE_BYTES, content, nullptr, &problem)) {
    case gps::platform::ReadStatus::Ok:
      if (m.truncate) file->dirty = true;
      else file->image.assign(content.begin(), content.end());
      break;
    case gps::platform::ReadStatus::Missing:
      if (!m.create) return nullptr;
      file->dirty = true;  // a new file exists once committed, even if empty
      break;
    case gps::platform::ReadStatus::TooLarge:
    case gps::platform::ReadStatus::Failed:
      LogRefusal(problem);
      return nullptr;
  }
  if (m.append) file->position = file->image.size();
  return file.release();
}

long FILE_FS_length(FILE_FS_HANDLE file) { return file ? static_cast<long>(file->image.size()) : -1; }

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
  if (file->position < file->image.size()) {
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
