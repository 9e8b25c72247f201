#pragma once

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>

#include "Marks.h"
#include "Tree.h"
#include "docsource/provider.h"

namespace folder {

inline constexpr const char* folderProviderErrorDomain = "FolderProviderErrorDomain";
enum class FolderProviderError : std::int64_t {
  /// The Info.plist names no origin, or the extension has no document storage.
  notConfigured = 1,
  /// The document or its origin changed again and again while it was copied.
  keepsChanging = 2,
};

/// Provides the documents of another directory, the origin.
///
/// The storage mirrors the origin: every file of the origin is there under the same relative path,
/// as a placeholder (docsource/placeholder.h) or with its content, marked "provided" with its own
/// version and "origin" with that of the origin's file at that moment. A file without any mark is
/// one that somebody made or replaced here: it is newer than the origin.
///
/// A crash leaves a placeholder at worst. What was changed here is never thrown away, and the
/// origin is only ever replaced by a whole, durable file.
///
/// An item's identifier is a random text kept as an extended attribute of the origin file; where it
/// cannot be, "path:" and the relative path. Both outlive a rename of the origin's parents, the
/// first also that of the file.
class FolderProvider final : public docsource::Provider {
 public:
  FolderProvider() : Provider(Concurrency::concurrent) {}

 protected:
  docsource::Result<void> performInitialSetup() override;
  docsource::Result<void> providePlaceholder(const std::string& path) override;
  docsource::Result<void> startProviding(const std::string& path) override;
  docsource::Result<void> itemChanged(const std::string& path) override;
  docsource::Result<void> stopProviding(const std::string& path) override;
  docsource::Result<std::string> identifierForItem(const std::string& path) override;
  docsource::Result<std::string> pathForItem(const std::string& identifier) override;

 private:
  /// What every operation works with, opened anew for each: the origin may come and go.
  struct Places {
    Tree storage;
    Tree hidden;
    bool useAttributes;
  };
  /// An item that an operation has to itself: set-up and the item's other operations wait.
  struct Item {
    std::shared_lock<std::shared_mutex> layout;
    Places places;
    std::string relative;
    std::unique_lock<std::mutex> lock;
  };
  /// A file of the origin.
  struct OriginFile {
    std::string relative;
    docsource::Descriptor file;
  };
  /// A file in the hidden directory.
  struct SideFile {
    std::string name;
    docsource::Descriptor file;
  };

  docsource::Result<Places> places() const;
  docsource::Result<Tree> origin() const;
  docsource::Result<std::string> relativePath(const Places& places, const std::string& path) const;
  docsource::Result<Item> itemAt(const std::string& path);

  /// The origin of the item: the file of the same path, or the one of that identifier elsewhere.
  docsource::Result<OriginFile> originOf(const Places& places, const Tree& origin,
                                         const std::string& relative,
                                         const std::optional<std::string>& identifier) const;
  std::string identifierOf(const Places& places, const docsource::Descriptor& originFile,
                           const std::string& relative, bool assign) const;
  docsource::Result<void> makePlaceholder(const Places& places, const std::string& relative,
                                          const docsource::Descriptor& originFile,
                                          const std::string& identifier) const;
  /// In two steps, for many: a file aside, which is durable when its maker sees to it,
  docsource::Result<SideFile> makeAside(const Places& places, const Marks& marks,
                                        const std::string& relative,
                                        const docsource::Descriptor& originFile,
                                        const std::string& identifier) const;
  /// then its move to where nothing is yet. What is there already stays.
  docsource::Result<void> putInPlace(const Places& places, const std::string& side,
                                     const std::string& relative) const;
  docsource::Result<void> bringIn(const Places& places, const std::string& relative,
                                  const docsource::Descriptor& item, const OriginFile& from) const;
  docsource::Result<void> writeBack(const Places& places, const Tree& origin,
                                    const std::string& relative,
                                    const docsource::Descriptor& item) const;
  docsource::Result<void> reconcile(const Places& places, const Tree& origin);

  std::mutex& lockFor(const std::string& relative);

  // Set-up has the layout to itself; the other operations share it, one at a time per item.
  std::shared_mutex layout_;
  std::array<std::mutex, 64> itemLocks_;
  std::mutex indexMutex_;
  std::map<std::string, std::string> index_;  // identifier to path; a hint, checked at each use
};

}  // namespace folder
