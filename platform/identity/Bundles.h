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

/// An installed bundle as it was last read. Immutable; a changed bundle is a new object.
struct Bundle {
  BundleKind kind;
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

/// The installed bundles of this root, kept current by watching the file system: a change is
/// noticed within a second, and always before the next question is answered. A half-copied or
/// broken bundle is skipped with one line in the log and looked at again when it changes.
/// Any thread.
class BundleCatalog {
 public:
  static BundleCatalog& shared();

  /// In byte order of the bundle directories' names.
  virtual std::vector<std::shared_ptr<const Bundle>> bundles(BundleKind kind) = 0;

  /// The first bundle of that kind with the identifier, or null.
  virtual std::shared_ptr<const Bundle> bundle(BundleKind kind, std::string_view identifier) = 0;

  /// The bundle that the process belongs to: the one whose executable is the same file, by device
  /// and inode, as /proc/<pid>/exe. Two bundles of one kind that claim the same executable give
  /// neither; an application's claim goes before an extension's. Null when there is none.
  virtual std::shared_ptr<const Bundle> bundleOfProcess(const AuditToken& process) = 0;

  /// Calls back, on a thread of its own choosing and never two calls at a time, at every change
  /// of the installed bundles. Observers are never removed.
  virtual void observeChanges(std::function<void()> observer) = 0;

 protected:
  virtual ~BundleCatalog() = default;
};

/// The entitlement `name` of the process, asked anew at every call. The platform's own daemon,
/// that is the executable "docsourced" in the same directory as the running program, holds
/// "com.veltro.file-coordination.host" without a bundle.
std::optional<Value> entitlementOfProcess(const AuditToken& process, std::string_view name);

}  // namespace qx

/// The bundle identifier of the process behind the token; absent when it belongs to no bundle.
std::optional<std::string> BundleIdentifierFromAuditToken(const qx::AuditToken& token);
