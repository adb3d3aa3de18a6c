#include "platform/service/directory.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/file_util.h"

namespace halvorda::service {
namespace {

constexpr size_t kMaxEntryBytes = 4096;

bool ValidClass(const std::string& serviceClass) {
  return !serviceClass.empty() && serviceClass.size() <= 255 && serviceClass.find('/') == std::string::npos &&
         serviceClass.front() != '.';
}

std::string RegistryPath(const std::string& address) {
  if (address.empty()) return Directory::DefaultPath();
  if (address.front() == '/') return address;
  return gps::platform::Root() + "/" + address;
}

std::string SocketPath(const std::string& address) {
  return address.front() == '/' ? address : gps::platform::Root() + "/" + address;
}

bool ValidAttribute(const std::pair<std::string, std::string>& attribute) {
  const auto& [key, value] = attribute;
  static constexpr std::string_view kReserved[] = {"address", "pid", "started", "ready"};
  return !key.empty() && key.find_first_of("=\n") == std::string::npos && value.find('\n') == std::string::npos &&
         std::find(std::begin(kReserved), std::end(kReserved), key) == std::end(kReserved);
}

// An entry file as this process last wrote it.
struct WrittenEntry {
  std::string path;
  std::string text;
  dev_t device = 0;
  ino_t inode = 0;
  timespec modified{};
  bool failureLogged = false;
};

std::mutex g_writtenMutex;
std::vector<WrittenEntry> g_written;

void RecordWritten(const std::string& path, const std::string& text) {
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0) return;
  std::lock_guard lock(g_writtenMutex);
  std::erase_if(g_written, [&](const WrittenEntry& written) { return written.path == path; });
  g_written.push_back({path, text, st.st_dev, st.st_ino, st.st_mtim});
}

void ForgetWritten(const std::string& path) {
  std::lock_guard lock(g_writtenMutex);
  std::erase_if(g_written, [&](const WrittenEntry& written) { return written.path == path; });
}

}  // namespace

std::string DirectoryEntry::attribute(std::string_view key) const {
  for (const auto& [name, value] : attributes)
    if (name == key) return value;
  return {};
}

bool DirectoryEntry::processAlive() const {
  if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
  // Without a start time (an entry of an older writer, or /proc hidden) the
  // pid alone decides.
  const uint64_t now = ProcessStartTime(pid);
  return started == 0 || now == 0 || now == started;
}

uint64_t ProcessStartTime(pid_t pid) {
  std::string text;
  if (ReadWholeFile("/proc/" + std::to_string(pid) + "/stat", kMaxEntryBytes, text) != ReadStatus::Ok) return 0;
  // The command name (field 2) may hold spaces and parentheses: fields are
  // counted after its closing parenthesis. The start time is field 22.
  size_t at = text.rfind(')');
  if (at == std::string::npos) return 0;
  for (int field = 2; field < 22 && at != std::string::npos; ++field) at = text.find(' ', at + 1);
  if (at == std::string::npos) return 0;
  uint64_t started = 0;
  std::from_chars(text.data() + at + 1, text.data() + text.size(), started);
  return started;
}

std::string Directory::DefaultPath() { return gps::platform::Root() + "/run/directory"; }

os::Error Directory::connect(const std::string& address, uint32_t /*timeoutMs*/) {
  const std::string path = RegistryPath(address);
  if (!gps::platform::MakeDirectories(path) || ::access(path.c_str(), W_OK | X_OK) != 0) {
    Sys_log(3, "directory: %s is not usable: %s.", path.c_str(), std::strerror(errno));
    return ERROR_IO;
  }
  path_ = path;
  setConnected(true, address);
  return os::ERROR_NONE;
}

os::Error Directory::disconnect() {
  path_.clear();
  setConnected(false);
  return os::ERROR_NONE;
}

os::Error Directory::writeEntry(const std::string& serviceClass, const DirectoryEntry& entry) {
  std::string text = "address=" + entry.address + "\npid=" + std::to_string(entry.pid) +
                     "\nstarted=" + std::to_string(entry.started) + "\nready=" + (entry.ready ? "1" : "0") + "\n";
  for (const auto& [key, value] : entry.attributes) text += key + "=" + value + "\n";
  const std::string path = path_ + "/" + serviceClass;
  if (!WriteFileAtomically(path, text)) return ERROR_IO;
  RecordWritten(path, text);
  return os::ERROR_NONE;
}

os::Error Directory::add(const std::string& serviceClass, const std::string& address,
                         const DirectoryAttributes& attributes) {
  if (!isConnected()) return ERROR_DISCONNECTED;
  if (!ValidClass(serviceClass) || address.empty() || address.find('\n') != std::string::npos ||
      !std::all_of(attributes.begin(), attributes.end(), ValidAttribute))
    return ERROR_INVALID;
  if (const auto existing = Lookup(serviceClass, path_);
      existing && existing->pid != ::getpid() && existing->processAlive()) {
    Sys_log(3, "directory: %s is registered by the running process %d; not replacing its entry.",
            serviceClass.c_str(), static_cast<int>(existing->pid));
    return ERROR_IN_USE;
  }
  const DirectoryEntry entry{address, ::getpid(), ProcessStartTime(::getpid()), false, attributes};
  const os::Error result = writeEntry(serviceClass, entry);
  if (result == os::ERROR_NONE) {
    std::erase_if(added_, [&](const auto& added) { return added.first == serviceClass; });
    added_.emplace_back(serviceClass, entry);
  }
  return result;
}

os::Error Directory::remove(const std::string& serviceClass) {
  if (!isConnected()) return ERROR_DISCONNECTED;
  if (!ValidClass(serviceClass)) return ERROR_INVALID;
  std::erase_if(added_, [&](const auto& added) { return added.first == serviceClass; });
  ForgetWritten(path_ + "/" + serviceClass);
  if (::unlink((path_ + "/" + serviceClass).c_str()) != 0) return errno == ENOENT ? ERROR_NOT_FOUND : ERROR_IO;
  return os::ERROR_NONE;
}

os::Error Directory::setReady() {
  os::Error result = os::ERROR_NONE;
  if (isConnected()) {
    for (auto& [serviceClass, entry] : added_) {
      entry.ready = true;
      if (const os::Error written = writeEntry(serviceClass, entry); written != os::ERROR_NONE) result = written;
    }
  }
  if (const os::Error notified = NotifySystemdReady(); notified != os::ERROR_NONE) result = notified;
  return result;
}

void Directory::RestoreRegistered() {
  std::lock_guard lock(g_writtenMutex);
  std::erase_if(g_written, [](WrittenEntry& written) {
    struct stat st{};
    const bool missing = ::lstat(written.path.c_str(), &st) != 0;
    if (!missing && st.st_dev == written.device && st.st_ino == written.inode &&
        st.st_mtim.tv_sec == written.modified.tv_sec && st.st_mtim.tv_nsec == written.modified.tv_nsec)
      return false;
    const std::string folder = ParentDirectory(written.path);
    if (missing && ::access(folder.c_str(), F_OK) != 0) {
      if (::access(ParentDirectory(folder).c_str(), F_OK) != 0) return true;
      gps::platform::MakeDirectories(folder);
    }
    if (!WriteFileAtomically(written.path, written.text) || ::stat(written.path.c_str(), &st) != 0) {
      if (!written.failureLogged)
        Sys_log(3, "directory: cannot restore %s: %s; clients cannot find the service until it is back.",
                written.path.c_str(), std::strerror(errno));
      written.failureLogged = true;
      return false;
    }
    Sys_log(4, "directory: %s was %s; written again.", written.path.c_str(), missing ? "removed" : "replaced");
    written.device = st.st_dev;
    written.inode = st.st_ino;
    written.modified = st.st_mtim;
    written.failureLogged = false;
    return false;
  });
}

std::optional<DirectoryEntry> Directory::Lookup(const std::string& serviceClass, const std::string& directory) {
  if (!ValidClass(serviceClass)) return std::nullopt;
  std::string text;
  if (ReadWholeFile(RegistryPath(directory) + "/" + serviceClass, kMaxEntryBytes, text) != ReadStatus::Ok)
    return std::nullopt;
  DirectoryEntry entry;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string_view line = std::string_view(text).substr(at, end - at);
    const size_t equals = line.find('=');
    if (equals != std::string_view::npos) {
      const std::string_view key = line.substr(0, equals);
      const std::string_view value = line.substr(equals + 1);
      if (key == "address") entry.address = std::string(value);
      else if (key == "pid") std::from_chars(value.data(), value.data() + value.size(), entry.pid);
      else if (key == "started") std::from_chars(value.data(), value.data() + value.size(), entry.started);
      else if (key == "ready") entry.ready = value == "1";
      else entry.attributes.emplace_back(key, value);
    }
    at = end + 1;
  }
  if (entry.address.empty()) return std::nullopt;
  return entry;
}

std::optional<std::string> Directory::Resolve(const std::string& serviceClass, const std::string& directory) {
  const auto entry = Lookup(serviceClass, directory);
  if (!entry) return std::nullopt;
  return SocketPath(entry->address);
}

os::Error NotifySystemd(std::string_view state) {
  const char* target = std::getenv("NOTIFY_SOCKET");
  if (!target || !*target) return os::ERROR_NONE;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = std::strlen(target);
  if (length >= sizeof address.sun_path || (target[0] != '/' && target[0] != '@')) {
    Sys_log(3, "directory: NOTIFY_SOCKET \"%s\" is not a usable socket address.", target);
    return ERROR_INVALID;
  }
  std::memcpy(address.sun_path, target, length);
  if (target[0] == '@') address.sun_path[0] = '\0';  // abstract namespace
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return ERROR_IO;
  const ssize_t sent = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                                static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
  const int savedErrno = errno;
  ::close(fd);
  if (sent < 0) {
    Sys_log(3, "directory: cannot notify systemd at %s: %s.", target, std::strerror(savedErrno));
    return ERROR_IO;
  }
  return os::ERROR_NONE;
}

}  // namespace halvorda::service
