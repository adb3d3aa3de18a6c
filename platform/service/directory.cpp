#include "platform/service/directory.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

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

}  // namespace

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
  const std::string text = "address=" + entry.address + "\npid=" + std::to_string(entry.pid) +
                           "\nready=" + (entry.ready ? "1" : "0") + "\n";
  return WriteFileAtomically(path_ + "/" + serviceClass, text) ? os::ERROR_NONE : ERROR_IO;
}

os::Error Directory::add(const std::string& serviceClass, const std::string& address) {
  if (!isConnected()) return ERROR_DISCONNECTED;
  if (!ValidClass(serviceClass) || address.empty() || address.find('\n') != std::string::npos) return ERROR_INVALID;
  const DirectoryEntry entry{address, ::getpid(), false};
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
      else if (key == "ready") entry.ready = value == "1";
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

os::Error NotifySystemdReady() {
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
  static constexpr char kReady[] = "READY=1";
  const ssize_t sent = ::sendto(fd, kReady, sizeof kReady - 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
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
