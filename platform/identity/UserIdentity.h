#pragma once

#include <sys/types.h>

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "platform/base/Result.h"

namespace qx {

/// A user, as the kernel knows one who opens files.
struct User {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;

  /// The user who connected the other end of a connected AF_UNIX socket, at that time (SO_PEERCRED
  /// and SO_PEERGROUPS, unix(7)).
  static Result<User> ofPeer(int socket);
};

/// While this exists, the calling thread opens and makes files as this user, with the user's groups
/// and without any capability (setfsuid(2), setfsgid(2), setgroups(2), capset(2), of this thread
/// alone). Taking an identity other than one's own needs CAP_SETUID and CAP_SETGID. A thread has
/// one at a time, and destroys it itself.
class UserIdentity {
 public:
  explicit UserIdentity(const User& user);
  ~UserIdentity();
  UserIdentity(const UserIdentity&) = delete;
  UserIdentity& operator=(const UserIdentity&) = delete;

  /// Returns 0, or the errno of what prevented it; the thread then is who it was before.
  int errnum() const { return errnum_; }

  /// Makes this process, which is root's, open and make files as another user for good. It keeps
  /// its capabilities, except those by which root passes over permissions. Called in main, before
  /// other threads exist. Returns an errno, or 0.
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

/// Leaves this process, and what it executes, no capabilities except these (capabilities(7)), and
/// gives it none that it does not have. Called in main, before other threads exist. Returns an
/// errno, or 0.
int keepCapabilities(std::initializer_list<int> capabilities);

}  // namespace qx
