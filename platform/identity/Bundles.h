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
/// Whose it is: it came with the programs of this machine, or its user installed it.
enum class BundleStanding { machine, user };

/// Where bundles of that kind and standing lie: one folder for a user, one or more for the machine,
/// the one that goes before first.
std::vector<std::string> bundleFolders(BundleKind kind, BundleStanding standing);
/// What the names of their directories end in.
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

/// The bundles of the machine and of this root, kept current by watching the file system: a change
/// is noticed within a second, and as a rule before the next question is answered. A half-copied or
/// broken bundle is skipped with one line in the log and looked at again when it changes.
///
/// A bundle of the machine goes before one of the user: a user's bundle with its identifier, or an
/// application with its executable, is skipped like a broken one. So is, of two folders of the
/// machine, what comes second.
///
/// Bundles are read on threads of their own, each as if it lay on a file system that does not
/// answer. Questions wait for what changed, but not longer than a moment: a bundle that cannot be
/// read in that time stays what it was before, until it has been read. Any thread.
class BundleCatalog {
 public:
  static BundleCatalog& shared();

  /// Those of the machine first, each in byte order of the bundle directories' names.
  virtual std::vector<std::shared_ptr<const Bundle>> bundles(BundleKind kind) = 0;

  /// The first bundle of that kind with the identifier, or null.
  virtual std::shared_ptr<const Bundle> bundle(BundleKind kind, std::string_view identifier) = 0;

  /// The bundle that the process belongs to, or null.
  ///
  /// Outside of a sandbox it is the one whose executable is the same file, by device and inode, as
  /// /proc/<pid>/exe. Two applications that claim the same executable or identifier are neither;
  /// an application goes before an extension. Of extensions that share an executable it is the one
  /// that the process was started as (QX_EXTENSION_IDENTIFIER).
  ///
  /// In a sandbox it is the application that was started there, whatever the process executes, and
  /// none where nobody knows which that was (SandboxRecord.h). A process of another user than this
  /// one's belongs to none.
  ///
  /// What Flatpak runs belongs to the application bundle with that application's identifier, where
  /// there is one: the bundle then need not have its executable. A user's Flatpak has no bundle of
  /// the machine, and is nobody under its identifier.
  virtual std::shared_ptr<const Bundle> bundleOfProcess(const AuditToken& process) = 0;

  /// The identifier of that bundle; of a Flatpak's process without one, its application's.
  virtual std::optional<std::string> identifierOfProcess(const AuditToken& process) = 0;

  /// Calls back, on a thread of its own choosing and never two calls at a time, at every change
  /// of the installed bundles. Observers are never removed.
  virtual void observeChanges(std::function<void()> observer) = 0;

 protected:
  virtual ~BundleCatalog() = default;
};

/// The entitlement `name` of the process, asked anew at every call. The platform's own daemon,
/// that is the executable "docsourced" in the same directory as the running program, holds
/// "com.veltro.file-coordination.host" without a bundle; outside of a sandbox.
std::optional<Value> entitlementOfProcess(const AuditToken& process, std::string_view name);

}  // namespace qx

/// The bundle identifier of the process behind the token; absent when it belongs to no bundle.
std::optional<std::string> BundleIdentifierFromAuditToken(const qx::AuditToken& token);
