#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"

/// The socket of a named service: the file of that name in a runtime directory, the user's or, for
/// the services of platformd, the machine's (Places::serviceDirectories()). A directory whose path
/// is too long for a socket address (unix(7)) is reached through a descriptor of it.
namespace qx {

/// Takes the name for this process, for as long as it lives: nobody else can take it in this
/// runtime directory meanwhile (a lock on the file "<name>.lock" beside the socket, flock(2)).
/// Fails with a sentence for a person when another process has it. Taking it again is no error.
std::optional<Error> claimService(const std::string& serviceName);

/// The listening socket of a service that this process claims, non-blocking: the descriptor that
/// the service manager passed under the service's name (sd_listen_fds_with_names(3)), else one
/// bound anew in the place of whatever a dead process left behind.
struct ListeningSocket {
  FileDescriptor socket;
  /// The socket file is ours to remove.
  bool boundHere = false;
};
Result<ListeningSocket> listenOnServiceSocket(const std::string& serviceName);

/// Makes this the listening socket of the service, for a process that was given it by the one that
/// claims the service and outlives it. Before listenOnServiceSocket().
void adoptServiceSocket(const std::string& serviceName, FileDescriptor socket);

void removeServiceSocket(const std::string& serviceName);

/// Gives the socket of a service of the user's own, which must be there, its second name: the one
/// of the same file in Places::sandboxServices(), which is all of the runtime directory that
/// sandboxed applications see. (The machine's runtime directory they see as it is.) A listener that
/// bound its socket has done so; for one of the service manager's, which may be there before any
/// listener, whoever starts an application does it.
std::optional<Error> offerServiceSocketToSandboxes(const std::string& serviceName);

/// A connected, non-blocking socket; to the user's own service where there is one, else to the
/// machine's. Where more clients wait than the service's socket holds,
/// waits for a place among them, for so long at most.
Result<FileDescriptor> connectToServiceSocket(
    const std::string& serviceName, std::chrono::milliseconds longest = std::chrono::seconds(30));

}  // namespace qx
