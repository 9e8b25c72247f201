#pragma once

#include <sys/types.h>

#include <memory>

#include "platform/base/URL.h"
#include "tests/support/Grants.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Wire.h"

namespace qx::test {

class Consumer;
class ScriptedProvider;

/// A root of its own for one test, with the bundles that the test puts into it. Bundles come and
/// go the way an installer does it: whole.
class Installation {
 public:
  /// `below` makes the root a directory deeper in the temporary one.
  explicit Installation(const std::string& below = "");

  const std::string& root() const { return root_; }
  std::string operator/(const std::string& name) const { return root_ + "/" + name; }
  std::string accessControlFile() const { return accessControlFileOf(root_); }

  /// A provider extension that behaves as `script` says; "items" has two documents where the
  /// script names none. Replaces one of that identifier.
  ScriptedProvider installProvider(const std::string& identifier, Dictionary script = {},
                                   const std::optional<std::string>& group = std::nullopt);
  /// The example provider of the documents in `origin`, "com.example.provider"; the directory where
  /// they will be.
  std::string installExampleProvider(const std::string& origin);
  /// An application, with a copy of the consumer as its executable; a powerless one has no
  /// capability, whoever runs it.
  Consumer installConsumer(const std::string& identifier, const Dictionary& entitlements,
                           bool isPowerless = false);

  /// An extension bundle's Info.plist.
  static Dictionary extensionInfo(const std::string& identifier,
                                  const std::optional<std::string>& group);

  /// Puts a directory made in staging() in the place of `path`.
  void put(const std::string& staged, const std::string& path);
  /// An empty directory outside the places that are watched.
  std::string staging();
  /// Takes it away whole; where it is now.
  std::string remove(const std::string& path);

  /// Whether a service comes to answer.
  bool becomesServed(const std::string& service) const;
  /// Whether a service comes to take no connection any more.
  bool becomesUnserved(const std::string& service) const;

 private:
  TemporaryDirectory directory_;
  std::string root_;
  int staged_ = 0;
};

/// An installed scripted provider (tests/support/programs/scripted-provider.cpp).
class ScriptedProvider {
 public:
  ScriptedProvider(std::string root, std::string identifier, std::string group)
      : root_(std::move(root)), identifier_(std::move(identifier)), group_(std::move(group)) {}

  const std::string& identifier() const { return identifier_; }
  std::string bundle() const { return root_ + "/Extensions/" + identifier_ + ".docext"; }
  std::string storage() const {
    return root_ + "/Containers/Group/" + group_ + "/Doc Source Storage";
  }
  std::string document(const std::string& name) const { return storage() + "/" + name; }
  URL url(const std::string& name) const { return URL::fileURL(document(name)); }

  /// How it behaves from its next call on; the items stay unless it names some.
  void behave(Dictionary script) const;

  /// How often an operation reached it, in any of its processes.
  std::size_t calls(const std::string& operation) const;
  std::vector<std::string> callLines() const;
  /// The processes that were ever started, and what they recorded at launch.
  std::map<pid_t, Dictionary> processes() const;
  /// The one that runs, or -1.
  pid_t running() const;

 private:
  std::string root_;
  std::string identifier_;
  std::string group_;
};

/// A running process of an installed application, whose connections the test uses.
class Consumer {
 public:
  Consumer(const std::string& root, std::string identifier, const std::string& program,
           bool isPowerless);
  Consumer(Consumer&& other) noexcept;
  Consumer& operator=(Consumer&&) = delete;
  ~Consumer();

  const std::string& identifier() const { return identifier_; }
  pid_t id() const { return id_; }
  /// A new connection to a service; one that is over from the start when the service is not there.
  Wire connect(const std::string& service = "com.veltro.DocSource") const;
  std::optional<Wire> tryConnect(const std::string& service) const;
  void end();

 private:
  std::string identifier_;
  pid_t id_ = -1;
  FileDescriptor control_;
};

}  // namespace qx::test
