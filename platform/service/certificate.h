// Who sent a message: the peer credentials of the connection it came on and
// the platform roles they hold.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace halvorda::os {

// Platform roles, as bits. A binding admits a caller holding any one of the
// roles in its permission string.
enum class Role : uint32_t {
  QuillaPlatform = 1u << 0,
  WebPlatform = 1u << 1,
  Payment = 1u << 2,
  QuillaP2PE = 1u << 3,
  WebP2PE = 1u << 4,
  Vertical = 1u << 5,
  Android = 1u << 6,
};
inline constexpr uint32_t kAllRoles = (1u << 7) - 1;

constexpr uint32_t RoleBit(Role role) { return static_cast<uint32_t>(role); }

class Certificate {
 public:
  Certificate() = default;
  Certificate(uid_t uid, gid_t gid, pid_t pid, std::vector<gid_t> groups, uint32_t roles)
      : uid_(uid), gid_(gid), pid_(pid), groups_(std::move(groups)), roles_(roles & kAllRoles) {}

  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }
  pid_t pid() const { return pid_; }
  // Supplementary groups of the peer (the primary group may be among them).
  const std::vector<gid_t>& groups() const { return groups_; }
  uint32_t roles() const { return roles_; }

  bool holds(Role role) const { return (roles_ & RoleBit(role)) != 0; }
  bool isQuillaPlatform() const { return holds(Role::QuillaPlatform); }
  bool isWebPlatform() const { return holds(Role::WebPlatform); }
  bool isPayment() const { return holds(Role::Payment); }
  // Either P2PE role, Quilla or web.
  bool isP2PE() const { return holds(Role::QuillaP2PE) || holds(Role::WebP2PE); }
  bool isVertical() const { return holds(Role::Vertical); }
  bool isAndroid() const { return holds(Role::Android); }

 private:
  uid_t uid_ = static_cast<uid_t>(-1);
  gid_t gid_ = static_cast<gid_t>(-1);
  pid_t pid_ = 0;
  std::vector<gid_t> groups_;
  uint32_t roles_ = 0;
};

}  // namespace halvorda::os
