#pragma once

#include <memory>
#include <string>

#include "mirror/Mirror.h"
#include "platform/base/Error.h"
#include "platform/conduit/QXConduitListener.h"

/// The service of an account's process (AccountProtocol.h), over its mirror.
class AccountService final : public QXConduitListenerDelegate,
                             public std::enable_shared_from_this<AccountService> {
 public:
  /// Serves from then on, until it is destroyed. An error when another process does already.
  static qx::Result<std::shared_ptr<AccountService>> serve(
      const std::string& name, std::shared_ptr<docsource::Mirror> mirror);

  AccountService(const std::string& name, std::shared_ptr<docsource::Mirror> mirror);

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  const std::shared_ptr<docsource::Mirror> mirror_;
  QXConduitListener listener_;
};
