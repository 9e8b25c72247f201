// Audit tokens.
//
// The bytes: process number (4), effective user (4), effective group (4), 4 zero bytes, start time
// (8), 8 zero bytes, in the machine's byte order. The start time is what tells a process from a
// later one with the same number.

#include "platform/identity/AuditToken.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>

#include "platform/base/FileDescriptor.h"
#include "platform/identity/ProcessDirectory.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace qx {
namespace {

constexpr std::size_t processAt = 0, userAt = 4, groupAt = 8, startTimeAt = 16;

template <class Field>
Field field(const AuditToken& token, std::size_t at) {
  Field value;
  std::memcpy(&value, token.bytes.data() + at, sizeof value);
  return value;
}

AuditToken tokenOf(pid_t process, uid_t user, gid_t group, std::uint64_t startTime) {
  AuditToken token;
  auto put = [&](std::size_t at, const auto& value) {
    std::memcpy(token.bytes.data() + at, &value, sizeof value);
  };
  put(processAt, process);
  put(userAt, user);
  put(groupAt, group);
  put(startTimeAt, startTime);
  return token;
}

/// A pidfd is readable once its process has ended (pidfd_open(2)); until then its number is not
/// given to another one.
bool hasEnded(const FileDescriptor& pidfd) {
  pollfd poll{pidfd.get(), POLLIN, 0};
  return ::poll(&poll, 1, 0) != 0;
}

}  // namespace

AuditToken AuditToken::ofPeer(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.pid <= 0) return {};

  int number = -1;
  length = sizeof number;
  bool hasPidfd = getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &number, &length) == 0;
  // Kernels before 6.5 do not know the option; any other failure says that the peer is gone.
  if (!hasPidfd && errno != ENOPROTOOPT) return {};
  FileDescriptor pidfd(hasPidfd ? number : -1);

  auto directory = ProcessDirectory::open(peer.pid);
  if (!directory) return {};
  auto state = directory->state();
  if (!state || !directory->isRunning()) return {};
  if (pidfd && hasEnded(pidfd)) return {};
  return tokenOf(peer.pid, peer.uid, peer.gid, state->startTime);
}

AuditToken AuditToken::ofProcess(pid_t process) {
  auto directory = ProcessDirectory::open(process);
  if (!directory) return {};
  auto state = directory->state();
  auto credentials = directory->credentials();
  if (!state || !credentials || !directory->isRunning()) return {};
  return tokenOf(process, credentials->effectiveUser, credentials->effectiveGroup,
                 state->startTime);
}

pid_t AuditToken::processIdentifier() const { return field<pid_t>(*this, processAt); }
std::uint64_t AuditToken::startTime() const { return field<std::uint64_t>(*this, startTimeAt); }
uid_t AuditToken::effectiveUser() const { return field<uid_t>(*this, userAt); }
gid_t AuditToken::effectiveGroup() const { return field<gid_t>(*this, groupAt); }

bool AuditToken::isAlive() const {
  auto directory = ProcessDirectory::open(*this);
  return directory && directory->isRunning();
}

}  // namespace qx
