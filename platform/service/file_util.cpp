#include "platform/service/file_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/os.h"

namespace halvorda::service {
namespace {

std::atomic<unsigned> g_temporarySerial{0};

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

std::string ParentDirectory(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode) {
  const std::string temp = path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(g_temporarySerial++);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) {
    Sys_log(3, "service: cannot create %s: %s.", temp.c_str(), std::strerror(errno));
    return false;
  }
  // The mode asked for, whatever the umask.
  bool ok = ::fchmod(fd, mode) == 0 && WriteAll(fd, content) && ::fsync(fd) == 0;
  int savedErrno = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    savedErrno = errno;
  }
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
    ok = false;
    savedErrno = errno;
  }
  if (!ok) {
    Sys_log(3, "service: cannot write %s: %s.", path.c_str(), std::strerror(savedErrno));
    ::unlink(temp.c_str());
    return false;
  }
  const int dir = ::open(ParentDirectory(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

ReadStatus ReadWholeFile(const std::string& path, size_t maxBytes, std::string& content, int* error) {
  content.clear();
  int ignored = 0;
  int& failure = error ? *error : ignored;
  failure = 0;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    failure = errno;
    return errno == ENOENT ? ReadStatus::Missing : ReadStatus::Failed;
  }
  struct stat st{};
  ReadStatus status = ReadStatus::Ok;
  if (::fstat(fd, &st) != 0) {
    failure = errno;
    status = ReadStatus::Failed;
  } else if (!S_ISREG(st.st_mode)) {
    failure = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    status = ReadStatus::Failed;
  } else {
    char buffer[8192];
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        failure = errno;
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
  if (status != ReadStatus::Ok) content.clear();
  return status;
}

}  // namespace halvorda::service
