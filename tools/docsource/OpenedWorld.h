#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"
#include "tools/docsource/World.h"

namespace tool {

/// What of the world an application wants and this machine has, made ready for its sandbox: sockets
/// of the display and of sound, a way to the session bus, the network. What is not there outside is
/// not there inside, and no error. Keeps the way to the bus open while it lives.
class OpenedWorld {
 public:
  /// `runtime` is the application's own runtime directory, as it sees it. Fails where something
  /// could be given but not kept within its bounds: this machine has no xdg-dbus-proxy, or, of the
  /// network, its kernel cannot keep abstract sockets (unix(7)) away from a process. From then on
  /// this process, for an application with the network, cannot reach such sockets either.
  static qx::Result<OpenedWorld> openTo(const World& world, const std::string& runtime);
  OpenedWorld(OpenedWorld&&) = default;
  OpenedWorld& operator=(OpenedWorld&&) = delete;
  ~OpenedWorld();

  /// For bubblewrap, behind those that make the application's runtime directory and /tmp.
  const std::vector<std::string>& arguments() const { return arguments_; }
  /// That bubblewrap is to get, under their numbers.
  const std::vector<qx::FileDescriptor>& descriptors() const { return descriptors_; }
  /// For the application's environment.
  const std::map<std::string, std::string>& variables() const { return variables_; }

 private:
  OpenedWorld() = default;
  void show(const std::string& socket, const std::string& inside);
  void openWayland(const std::string& runtime);
  void openX11(const std::string& runtime);
  void openSound(const std::string& runtime);
  std::optional<qx::Error> openNetwork();
  std::optional<qx::Error> openBus(const std::vector<std::string>& names,
                                   const std::string& runtime);

  std::vector<std::string> arguments_;
  std::vector<qx::FileDescriptor> descriptors_;
  std::map<std::string, std::string> variables_;
  /// Of the proxy: it ends when this is closed.
  qx::FileDescriptor proxy_;
  /// Where its socket is, locked while it is needed.
  qx::FileDescriptor busDirectory_;
  std::string busPath_;
};

}  // namespace tool
