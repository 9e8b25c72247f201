#pragma once

#include <memory>

#include "platform/conduit/QXConduitListener.h"

/// The service "com.veltro.Sandbox": redeems sandbox extensions. Whoever holds a token that is good
/// gets the descriptor of the file that it names; everybody may ask.
class SandboxService final : public QXConduitListenerDelegate,
                             public std::enable_shared_from_this<SandboxService> {
 public:
  static std::shared_ptr<SandboxService> make();
  SandboxService();

  /// Begins to serve; until then clients wait.
  void resume() { listener_.resume(); }

  bool listener_shouldAcceptNewConnection(
      QXConduitListener& listener, const std::shared_ptr<QXConduitConnection>& connection) override;

 private:
  QXConduitListener listener_;
};
