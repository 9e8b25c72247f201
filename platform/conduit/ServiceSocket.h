#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"

/// The socket of a named service: the file of that name in a runtime directory, the user's or, for
/// the services of platformd, the machine's (Places::serviceDirectories()). When the path of the
/// directory is too long for a socket address (unix(7)), the socket is reached through a descriptor
/// of the directory.
namespace qx {

/// Takes the name for this process, for as long as it lives, so that nobody else can take it in
/// this runtime directory (a lock on the file "<name>.lock" beside the socket, flock(2)). Fails
/// with a sentence for a person when another process has it. Taking it again is no error.
std::optional<Error> claimService(const std::string& serviceName);

/// The listening socket of a service that this process claims, non-blocking: the descriptor that
/// the service manager passed under the service's name (sd_listen_fds_with_names(3)), or else one
/// that is bound anew in the place of whatever a dead process left behind.
struct ListeningSocket {
  FileDescriptor socket;
  /// Whether this process removes the socket file.
  bool boundHere = false;
};
Result<ListeningSocket> listenOnServiceSocket(const std::string& serviceName);

/// Makes this the listening socket of the service. It is for a process that got the socket from the
/// one that claims the service and outlives it. Call this before listenOnServiceSocket().
void adoptServiceSocket(const std::string& serviceName, FileDescriptor socket);

void removeServiceSocket(const std::string& serviceName);

/// Gives the socket of one of the user's own services, which must exist, its second name: the same
/// file name in Places::sandboxServices(), which is all of the runtime directory that sandboxed
/// applications see. (They see the machine's runtime directory as it is.) A listener does that for
/// a socket that it has bound. A socket of the service manager's may exist before any listener, so
/// whoever starts an application does it as well.
std::optional<Error> offerServiceSocketToSandboxes(const std::string& serviceName);

/// Returns a connected, non-blocking socket: to the user's own service where there is one,
/// otherwise to the machine's. When more clients wait than the service's socket holds, it waits for
/// a place among them, for so long at most.
Result<FileDescriptor> connectToServiceSocket(
    const std::string& serviceName, std::chrono::milliseconds longest = std::chrono::seconds(30));

}  // namespace qx
