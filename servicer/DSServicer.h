#pragma once

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/base/Completion.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/queue/WorkQueue.h"

class DSAccessControlStore;
class DSServer;

/// What the servicers of the daemon's interfaces share: one connection, the server, the vetting of
/// the client, and the one way in which an early answer is given.
///
/// The connection owns its servicer; the servicer holds server and connection weakly. When one is
/// gone the servicer acts as if it had nothing: no entitlement, no grant.
class DSServicer {
 public:
  std::shared_ptr<DSServer> server() const { return server_.lock(); }
  void setServer(const std::shared_ptr<DSServer>& server) { server_ = server; }
  std::shared_ptr<QXConduitConnection> connection() const { return connection_.lock(); }
  void setConnection(const std::shared_ptr<QXConduitConnection>& connection) {
    connection_ = connection;
  }

  /// Returns whether the client holds one of the entitlements: a number whose boolean value is
  /// true.
  bool clientHasOneOfAllowedEntitlements(const std::vector<std::string>& names) const;

 protected:
  DSServicer() = default;
  ~DSServicer() = default;

  /// Returns the server's store, or null.
  std::shared_ptr<DSAccessControlStore> accessControlStore() const;
  /// Returns the client's audit token; that of nobody when the connection is gone.
  qx::AuditToken clientAuditToken() const;

  /// Answers from the global queue, never on the calling thread. Every early answer is given in
  /// this way.
  template <class... Values>
  static void answerEarly(qx::Completion<Values...> completion,
                          const std::optional<std::type_identity_t<Values>>&... values) {
    if (!completion) return;
    qx::WorkQueue::global().asyncBriefly(
        [completion = std::move(completion), values...] { completion(values...); });
  }

 private:
  std::weak_ptr<DSServer> server_;
  std::weak_ptr<QXConduitConnection> connection_;
};

/// The entitlements, in the lists in which the operations accept them.
extern const std::vector<std::string> dsReadOrWriteEntitlements;
extern const std::vector<std::string> dsWriteEntitlements;
