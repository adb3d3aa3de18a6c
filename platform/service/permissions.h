// Permission strings of bindings, and the table that gives callers their
// roles ($ROOT/etc/permissions.ini).
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/service/certificate.h"

namespace halvorda::service {

// A set of roles. A binding's permission string is a concatenation of the
// constants below ("[quilla-platform][web-platform]"); a caller is admitted
// when its certificate holds at least one of them. An empty set admits no
// one. Unknown tokens are ignored.
class Permissions {
 public:
  static inline const std::string ALL_QUILLA_PLATFORM = "[quilla-platform]";
  static inline const std::string ALL_WEB_PLATFORM = "[web-platform]";
  static inline const std::string PAYMENT = "[payment]";
  static inline const std::string QUILLA_P2PE = "[quilla-p2pe]";
  static inline const std::string WEB_P2PE = "[web-p2pe]";
  static inline const std::string VERTICAL = "[vertical]";
  static inline const std::string ANDROID = "[android]";

  Permissions() = default;
  explicit Permissions(const std::string& text);

  bool admits(const os::Certificate& certificate) const { return (roles_ & certificate.roles()) != 0; }
  uint32_t roles() const { return roles_; }
  const std::string& text() const { return text_; }
  bool operator==(const Permissions& other) const { return roles_ == other.roles_; }

 private:
  std::string text_;
  uint32_t roles_ = 0;
};

// Role bits of one role name as written in permissions.ini and in permission
// strings ("payment", "quilla-p2pe", ...); "all" names every role. 0 when
// unknown.
uint32_t RoleBitsOfName(std::string_view name);
// Role bits of a list of names separated by blanks or commas; unknown names
// are logged and skipped.
uint32_t RoleBitsOfList(std::string_view list);

// The roles of local users. Read from $ROOT/etc/permissions.ini:
//
//   [users]                 ; user name or numeric uid = roles
//   root = all
//   payapp = payment
//   1001 = vertical android
//   [groups]                ; group name or numeric gid = roles
//   platform = quilla-platform web-platform
//   [default]
//   roles = vertical        ; roles of every local user (default: none)
//
// A caller holds the union of its user's roles, the roles of its primary
// and supplementary groups, and the default roles. Root and the service's
// own user always hold every role. Without the file, every other user holds
// the vertical role only. The file is read again when its modification time
// or size changes.
class PermissionTable {
 public:
  explicit PermissionTable(uid_t serviceUid = ::geteuid());

  // The roles of a peer, with the file as it stands now.
  uint32_t rolesOf(uid_t uid, gid_t gid, const std::vector<gid_t>& groups);

 private:
  void refresh();

  uid_t serviceUid_;
  std::string path_;
  bool present_ = false;
  struct timespec mtime_{};
  off_t size_ = -1;
  std::map<uid_t, uint32_t> users_;
  std::map<gid_t, uint32_t> groups_;
  uint32_t defaultRoles_ = 0;
};

}  // namespace halvorda::service
