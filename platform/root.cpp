#include "platform/root.h"
#include "platform/settings.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <sys/stat.h>

namespace gps::platform {
namespace {

std::mutex g_rootMutex;
std::string g_root;
bool g_rootKnown = false;

std::string ReadRootFromEnvironment() {
  const char* env = std::getenv("GPS_PLATFORM_ROOT");
  std::string root = (env && *env) ? env : kDefaultRoot;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

// True when the path is absolute and has no "." or ".." component.
bool IsConfinedAbsolute(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view part = path.substr(start, end - start);
    if (part == ".." || part == ".") return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

const std::string& Root() {
  std::lock_guard lock(g_rootMutex);
  if (!g_rootKnown) {
    g_root = ReadRootFromEnvironment();
    MakeDirectories(g_root);
    g_rootKnown = true;
  }
  return g_root;
}

void ReloadRoot() {
  {
    std::lock_guard lock(g_rootMutex);
    g_rootKnown = false;
  }
  ReloadSettings();
}

std::optional<std::string> SystemPath(std::string_view terminalPath) {
  if (!IsConfinedAbsolute(terminalPath)) return std::nullopt;
  return Root() + std::string(terminalPath);
}

std::optional<std::string> DiskPath(std::string_view diskPath) {
  if (!IsConfinedAbsolute(diskPath) || diskPath.size() < 2) return std::nullopt;
  return Root() + "/fs" + std::string(diskPath);
}

bool MakeDirectories(const std::string& path) {
  if (path.empty()) return false;
  std::string partial;
  partial.reserve(path.size());
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    partial = path.substr(0, pos);
    if (partial.empty()) continue;
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  struct stat st{};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace gps::platform
