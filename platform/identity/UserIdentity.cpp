// The identity of a thread towards the file system.
//
// The C library sets users and groups of all threads of a process (nptl(7)); the system calls
// themselves are the thread's own.

#include "platform/identity/UserIdentity.h"

#include <errno.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "platform/base/Errors.h"

namespace qx {
namespace {

constexpr std::size_t mostGroups = 65536;  // NGROUPS_MAX, getgroups(2)

int setGroups(const std::vector<gid_t>& groups) {
  return syscall(SYS_setgroups, groups.size(), groups.data()) == 0 ? 0 : errno;
}

/// setfsuid(2) never says that it failed: what it was before the next call tells.
template <class Number>
bool setFileSystem(long call, Number value) {
  syscall(call, value);
  return static_cast<Number>(syscall(call, static_cast<Number>(-1))) == value;
}

using Capabilities = std::array<__user_cap_data_struct, 2>;

bool readCapabilities(Capabilities& data) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capget, &header, data.data()) == 0;
}

bool setEffective(std::uint64_t effective) {
  Capabilities data{};
  if (!readCapabilities(data)) return false;
  data[0].effective = static_cast<std::uint32_t>(effective);
  data[1].effective = static_cast<std::uint32_t>(effective >> 32U);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capset, &header, data.data()) == 0;
}

}  // namespace

Result<User> User::ofPeer(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    return posixError(errno, "The peer is not known");
  }
  User user{peer.uid, peer.gid, {}};
  for (std::size_t room = 32;; room *= 2) {
    user.groups.resize(room);
    length = static_cast<socklen_t>(room * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, user.groups.data(), &length) == 0) break;
    if (errno != ERANGE || room >= mostGroups) {
      return posixError(errno, "The peer's groups are not known");
    }
  }
  user.groups.resize(length / sizeof(gid_t));
  return user;
}

UserIdentity::UserIdentity(const User& user) {
  errnum_ = take(user);
  if (errnum_ != 0) giveBack();
}

UserIdentity::~UserIdentity() {
  if (errnum_ == 0) giveBack();
}

int UserIdentity::take(const User& user) {
  Capabilities data{};
  if (!readCapabilities(data)) return errno;
  capabilitiesBefore_ = data[0].effective | static_cast<std::uint64_t>(data[1].effective) << 32U;
  const bool isSelf = geteuid() == user.user && user.user != 0;
  if (!isSelf) {
    userBefore_ = static_cast<uid_t>(syscall(SYS_setfsuid, static_cast<uid_t>(-1)));
    groupBefore_ = static_cast<gid_t>(syscall(SYS_setfsgid, static_cast<gid_t>(-1)));
    const int count = getgroups(0, nullptr);
    if (count < 0) return errno;
    groupsBefore_.resize(static_cast<std::size_t>(count));
    if (getgroups(count, groupsBefore_.data()) < 0) return errno;
    if (const int failed = setGroups(user.groups)) return failed;
    isOther_ = true;
    if (!setFileSystem(SYS_setfsgid, user.group)) return EPERM;
    if (!setFileSystem(SYS_setfsuid, user.user)) return EPERM;
  }
  hasNoCapabilities_ = true;
  return setEffective(0) ? 0 : errno;
}

/// Nobody may go on with an identity that is not theirs.
void UserIdentity::giveBack() const {
  if (hasNoCapabilities_ && !setEffective(capabilitiesBefore_)) std::abort();
  if (!isOther_) return;
  if (!setFileSystem(SYS_setfsuid, userBefore_) || !setFileSystem(SYS_setfsgid, groupBefore_) ||
      setGroups(groupsBefore_) != 0) {
    std::abort();
  }
  // Taking another user's identity took those away that concern files.
  if (!setEffective(capabilitiesBefore_)) std::abort();
}

int UserIdentity::becomeOwnerOfFiles(const User& user) {
  if (const int failed = setGroups(user.groups)) return failed;
  const bool done =
      setFileSystem(SYS_setfsgid, user.group) && setFileSystem(SYS_setfsuid, user.user);
  return done ? 0 : EPERM;
}

int keepCapabilities(std::initializer_list<int> capabilities) {
  std::uint64_t kept = 0;
  for (const int capability : capabilities) kept |= std::uint64_t{1} << capability;
  // What is executed later gets root's capabilities anew, but for those that are not in this set.
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    if ((kept >> capability & 1U) != 0 || prctl(PR_CAPBSET_READ, capability) == 0) continue;
    // Who may not drop any, an ordinary user, has none either.
    if (prctl(PR_CAPBSET_DROP, capability) != 0 && errno != EPERM) return errno;
  }
  Capabilities data{};
  if (!readCapabilities(data)) return errno;
  for (std::size_t half = 0; half < data.size(); ++half) {
    const auto part = static_cast<std::uint32_t>(half == 0 ? kept : kept >> 32U);
    data[half].effective &= part;
    data[half].permitted &= part;
    data[half].inheritable &= part;
  }
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capset, &header, data.data()) == 0 ? 0 : errno;
}

}  // namespace qx
