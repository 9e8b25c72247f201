#pragma once

#include <sys/types.h>

#include <array>
#include <compare>
#include <cstdint>
#include <optional>

#include "platform/base/Result.h"

namespace qx {

/// Names a process as the kernel reported it when it connected: number, start time, effective user
/// and group (SO_PEERCRED and SO_PEERPIDFD, unix(7); start time of proc_pid_stat(5)). It has 32
/// bytes; all zero is the token of nobody. A token whose process is gone, or whose number another
/// process has by now, identifies nobody.
struct AuditToken {
  std::array<std::uint8_t, 32> bytes{};

  /// The process at the other end of a connected AF_UNIX socket; nobody's token when it is gone.
  static AuditToken ofPeer(int socket);
  /// The token of a running process, seen through /proc; nobody's when there is none.
  static AuditToken ofProcess(pid_t process);

  pid_t processIdentifier() const;
  /// In clock ticks since boot.
  std::uint64_t startTime() const;
  uid_t effectiveUser() const;
  gid_t effectiveGroup() const;

  bool isNobody() const { return bytes == decltype(bytes){}; }
  /// Returns whether the process still runs (and is the same one).
  bool isAlive() const;

  friend bool operator==(const AuditToken&, const AuditToken&) = default;
};

}  // namespace qx
