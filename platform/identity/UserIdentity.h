#pragma once

#include <sys/types.h>

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "platform/base/Result.h"

namespace qx {

/// A user as the kernel knows one who opens files.
struct User {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;

  /// Whoever connected the other end of a connected AF_UNIX socket, at that time (SO_PEERCRED and
  /// SO_PEERGROUPS, unix(7)).
  static Result<User> ofPeer(int socket);
};

/// While it exists, the calling thread opens and makes files as this user, with the user's groups
/// and without any capability (setfsuid(2), setfsgid(2), setgroups(2), capset(2), of this thread
/// alone). Taking an identity other than one's own needs CAP_SETUID and CAP_SETGID. One at a time
/// in a thread; made and destroyed on the same one.
class UserIdentity {
 public:
  explicit UserIdentity(const User& user);
  ~UserIdentity();
  UserIdentity(const UserIdentity&) = delete;
  UserIdentity& operator=(const UserIdentity&) = delete;

  /// 0, or the errno that stood in the way: the thread is who it was before then.
  int errnum() const { return errnum_; }

  /// Has this process, which is root's, make and open files as another user for good, its
  /// capabilities kept but for those by which root passes over permissions. For main, before other
  /// threads exist. Returns an errno, or 0.
  static int becomeOwnerOfFiles(const User& user);

 private:
  int take(const User& user);
  void giveBack() const;

  int errnum_ = 0;
  bool isOther_ = false;
  bool hasNoCapabilities_ = false;
  uid_t userBefore_ = 0;
  gid_t groupBefore_ = 0;
  std::vector<gid_t> groupsBefore_;
  std::uint64_t capabilitiesBefore_ = 0;
};

/// Leaves this process, and what it executes, no capabilities but these (capabilities(7)); those
/// that it does not have it does not get. For main, before other threads exist. Returns an errno,
/// or 0.
int keepCapabilities(std::initializer_list<int> capabilities);

}  // namespace qx
