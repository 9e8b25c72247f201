#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Value.h"
#include "platform/identity/AuditToken.h"

namespace qx {

enum class BundleKind { application, extension };
/// Whose bundle it is: it came with the programs of this machine, or its user installed it.
enum class BundleStanding { machine, user };

/// The folders in which bundles of that kind and standing lie: one for a user; one or more for the
/// machine, of which the first goes before the others.
std::vector<std::string> bundleFolders(BundleKind kind, BundleStanding standing);
/// The ending of the names of their directories.
std::string_view bundleSuffix(BundleKind kind);

/// An installed bundle as it was last read. Immutable; a changed bundle is a new object.
struct Bundle {
  BundleKind kind;
  BundleStanding standing = BundleStanding::user;
  /// The bundle directory, absolute, without a trailing slash.
  std::string path;
  std::string identifier;
  /// Absolute.
  std::string executable;
  Dictionary info;
  Dictionary entitlements;
  /// What tells one state of Info.plist from another: device, inode, size, modification time in
  /// nanoseconds.
  struct InfoStamp {
    std::uint64_t device = 0, inode = 0, size = 0;
    std::int64_t modified = 0;
    friend bool operator==(const InfoStamp&, const InfoStamp&) = default;
  } infoStamp;
};

/// Reads one bundle directory; the error says what is wrong with it, in one line.
Result<Bundle> readBundle(BundleKind kind, const std::string& path);

/// The bundles of the machine and of this root, kept current by watching the file system. A change
/// is noticed within a second, and as a rule before the next question is answered. A half-copied or
/// broken bundle is skipped with one line in the log and looked at again when it changes.
///
/// A bundle of the machine goes before one of the user: a user's bundle with its identifier, or an
/// application with its executable, is skipped like a broken one. When the machine has two folders,
/// the same holds for what is in the second.
///
/// Each bundle is read on a thread of its own, since it may lie on a file system that does not
/// answer. Questions wait for what changed, but only for a moment: a bundle that cannot be read in
/// that time stays what it was until it has been read. Any thread may ask.
class BundleCatalog {
 public:
  static BundleCatalog& shared();

  /// Returns those of the machine first, each in byte order of the bundle directories' names.
  virtual std::vector<std::shared_ptr<const Bundle>> bundles(BundleKind kind) = 0;

  /// Returns the first bundle of that kind with the identifier, or null.
  virtual std::shared_ptr<const Bundle> bundle(BundleKind kind, std::string_view identifier) = 0;

  /// Returns the bundle to which the process belongs, or null.
  ///
  /// Outside of a sandbox it is the one whose executable is the same file, by device and inode, as
  /// /proc/<pid>/exe. When two applications claim the same executable or identifier, it is neither.
  /// An application goes before an extension. Of extensions that share an executable it is the one
  /// as which the process was started (QX_EXTENSION_IDENTIFIER).
  ///
  /// In a sandbox it is the application that was started there, whatever the process executes, and
  /// none when nobody knows which that was (SandboxRecord.h). A process of another user than this
  /// one's belongs to none.
  ///
  /// What Flatpak runs belongs to the application bundle with that application's identifier, where
  /// there is one; its executable need not be the bundle's. A user's own Flatpak with the
  /// identifier of a bundle of the machine has no identity.
  virtual std::shared_ptr<const Bundle> bundleOfProcess(const AuditToken& process) = 0;

  /// Returns the identifier of that bundle or, for a Flatpak's process without one, its
  /// application's.
  virtual std::optional<std::string> identifierOfProcess(const AuditToken& process) = 0;

  /// Calls back at every change of the installed bundles, on a thread of its own choosing, never
  /// two calls at a time. Observers are never removed.
  virtual void observeChanges(std::function<void()> observer) = 0;

 protected:
  virtual ~BundleCatalog() = default;
};

/// Returns the entitlement `name` of the process, looked up anew at every call. The platform's own
/// daemon, which is the executable "docsourced" in the same directory as the running program, holds
/// "com.veltro.file-coordination.host" without a bundle when it runs outside of a sandbox.
std::optional<Value> entitlementOfProcess(const AuditToken& process, std::string_view name);

}  // namespace qx

/// The bundle identifier of the process behind the token; absent when it belongs to no bundle.
std::optional<std::string> BundleIdentifierFromAuditToken(const qx::AuditToken& token);
