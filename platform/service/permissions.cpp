#include "platform/service/permissions.h"

#include <grp.h>
#include <iniparser.h>
#include <pwd.h>
#include <sys/stat.h>

#include <array>
#include <charconv>
#include <memory>

#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/file_util.h"

namespace halvorda::service {
namespace {

struct RoleName {
  std::string_view name;
  uint32_t bits;
};
constexpr std::array<RoleName, 8> kRoleNames{{
    {"quilla-platform", os::RoleBit(os::Role::QuillaPlatform)},
    {"web-platform", os::RoleBit(os::Role::WebPlatform)},
    {"payment", os::RoleBit(os::Role::Payment)},
    {"quilla-p2pe", os::RoleBit(os::Role::QuillaP2PE)},
    {"web-p2pe", os::RoleBit(os::Role::WebP2PE)},
    {"vertical", os::RoleBit(os::Role::Vertical)},
    {"android", os::RoleBit(os::Role::Android)},
    {"all", os::kAllRoles},
}};

template <typename Id>
bool ParseId(std::string_view text, Id& out) {
  unsigned long value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return false;
  out = static_cast<Id>(value);
  return true;
}

bool UserId(const std::string& name, uid_t& out) {
  if (ParseId(name, out)) return true;
  struct passwd entry{};
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) != 0 || !found) return false;
  out = found->pw_uid;
  return true;
}

bool GroupId(const std::string& name, gid_t& out) {
  if (ParseId(name, out)) return true;
  struct group entry{};
  struct group* found = nullptr;
  char buffer[16384];
  if (getgrnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) != 0 || !found) return false;
  out = found->gr_gid;
  return true;
}

// Calls visit(name, roles) for every key of a section.
template <typename Visit>
void ForEachKey(dictionary* ini, const char* section, Visit visit) {
  const int count = iniparser_getsecnkeys(ini, section);
  if (count <= 0) return;
  std::vector<const char*> keys(static_cast<size_t>(count));
  if (!iniparser_getseckeys(ini, section, keys.data())) return;
  const size_t prefix = std::string_view(section).size() + 1;  // "section:"
  for (const char* key : keys) {
    if (!key || std::string_view(key).size() <= prefix) continue;
    visit(std::string(key + prefix), RoleBitsOfList(iniparser_getstring(ini, key, "")));
  }
}

}  // namespace

Permissions::Permissions(const std::string& text) : text_(text) {
  size_t at = 0;
  while ((at = text.find('[', at)) != std::string::npos) {
    const size_t end = text.find(']', at);
    if (end == std::string::npos) break;
    roles_ |= RoleBitsOfName(std::string_view(text).substr(at + 1, end - at - 1));
    at = end + 1;
  }
}

uint32_t RoleBitsOfName(std::string_view name) {
  for (const auto& role : kRoleNames)
    if (role.name == name) return role.bits;
  return 0;
}

uint32_t RoleBitsOfList(std::string_view list) {
  uint32_t bits = 0;
  size_t at = 0;
  while (at < list.size()) {
    const size_t end = list.find_first_of(" \t,", at);
    const std::string_view name = list.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
    if (!name.empty()) {
      const uint32_t role = RoleBitsOfName(name);
      if (role == 0) Sys_log(4, "permissions: unknown role \"%.*s\" ignored.", static_cast<int>(name.size()), name.data());
      bits |= role;
    }
    if (end == std::string_view::npos) break;
    at = end + 1;
  }
  return bits;
}

PermissionTable::PermissionTable(uid_t serviceUid)
    : serviceUid_(serviceUid), path_(gps::platform::Root() + "/etc/permissions.ini") {}

void PermissionTable::refresh() {
  struct stat st{};
  if (::stat(path_.c_str(), &st) != 0) {
    if (present_) Sys_log(4, "permissions: %s removed, built-in roles apply.", path_.c_str());
    present_ = false;
    size_ = -1;
    return;
  }
  if (size_ >= 0 && st.st_mtim.tv_sec == mtime_.tv_sec && st.st_mtim.tv_nsec == mtime_.tv_nsec && st.st_size == size_)
    return;
  mtime_ = st.st_mtim;
  size_ = st.st_size;
  std::string text;
  std::string problem;
  if (ReadWholeFile(path_, gps::platform::kMaxTextFileBytes, text, nullptr, &problem) != ReadStatus::Ok) {
    // A FIFO, a device, a huge file or one removed meanwhile: the roles in use
    // stay until the file changes again.
    Sys_log(3, "permissions: %s; the roles in use are kept.", problem.empty() ? path_.c_str() : problem.c_str());
    return;
  }
  users_.clear();
  groups_.clear();
  defaultRoles_ = 0;
  present_ = true;
  const gps::platform::IniDictionary ini = gps::platform::ParseIni(text);
  if (!ini) {
    // An unreadable table grants nothing beyond root and the service itself.
    Sys_log(3, "permissions: cannot read %s; only root and the service's own user are admitted.", path_.c_str());
    return;
  }
  ForEachKey(ini.get(), "users", [this](const std::string& name, uint32_t roles) {
    uid_t uid = 0;
    if (UserId(name, uid)) users_[uid] |= roles;
    else Sys_log(4, "permissions: unknown user \"%s\" ignored.", name.c_str());
  });
  ForEachKey(ini.get(), "groups", [this](const std::string& name, uint32_t roles) {
    gid_t gid = 0;
    if (GroupId(name, gid)) groups_[gid] |= roles;
    else Sys_log(4, "permissions: unknown group \"%s\" ignored.", name.c_str());
  });
  defaultRoles_ = RoleBitsOfList(iniparser_getstring(ini.get(), "default:roles", ""));
}

uint32_t PermissionTable::rolesOf(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
  if (uid == 0 || uid == serviceUid_) return os::kAllRoles;
  refresh();
  if (!present_) return os::RoleBit(os::Role::Vertical);
  uint32_t roles = defaultRoles_;
  if (const auto user = users_.find(uid); user != users_.end()) roles |= user->second;
  if (const auto primary = groups_.find(gid); primary != groups_.end()) roles |= primary->second;
  for (const gid_t group : groups)
    if (const auto found = groups_.find(group); found != groups_.end()) roles |= found->second;
  return roles;
}

}  // namespace halvorda::service
