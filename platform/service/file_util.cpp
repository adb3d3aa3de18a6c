#include "platform/service/file_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
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

int RemoveStaleTemporaryFiles(const std::string& directory) {
  DIR* listing = ::opendir(directory.c_str());
  if (!listing) return 0;
  int removed = 0;
  while (const dirent* item = ::readdir(listing)) {
    const std::string_view name = item->d_name;
    const size_t tag = name.rfind(".tmp-");
    if (tag == std::string_view::npos || tag == 0) continue;
    // PID-N: two decimal numbers.
    const std::string_view numbers = name.substr(tag + 5);
    const size_t dash = numbers.find('-');
    if (dash == std::string_view::npos || dash == 0 || dash + 1 == numbers.size() ||
        numbers.find_first_not_of("0123456789-") != std::string_view::npos ||
        numbers.find('-', dash + 1) != std::string_view::npos)
      continue;
    pid_t writer = 0;
    const auto [end, ec] = std::from_chars(numbers.data(), numbers.data() + dash, writer);
    if (ec != std::errc() || end != numbers.data() + dash || writer <= 0) continue;
    if (::kill(writer, 0) == 0 || errno != ESRCH) continue;  // its writer may still rename it
    const std::string path = directory + "/" + std::string(name);
    if (::unlink(path.c_str()) == 0) {
      ++removed;
      Sys_log(5, "service: removed %s, left by a write that did not finish.", path.c_str());
    }
  }
  ::closedir(listing);
  return removed;
}

}  // namespace halvorda::service
