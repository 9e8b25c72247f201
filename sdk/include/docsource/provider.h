#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "docsource/error.h"

namespace docsource {

/// A provider extension. Derive from this class, implement the operations, and have main() return
/// `run()`.
///
///     int main() { return MyProvider().run(); }
///
/// The broker starts the process when it has a request, and ends it when it has had none for a
/// while; only what is on disk survives. Documents live under documentStorage(), a directory that
/// the provider makes; the operations name them by absolute path. The provider checks each path and
/// identifier itself: any may be asked about.
///
/// The operations run on threads of the library, never on the one that called run(). With
/// Concurrency::serial they run one at a time, in the order in which they were asked for; with
/// Concurrency::concurrent several run at once, so that a slow one holds up no other.
///
/// The broker may give up a request, or end, while an operation of it runs. The operation is not
/// interrupted; its answer goes nowhere. An operation must leave the documents in order even when
/// the process is killed in its middle.
class DOCSOURCE_API Provider {
 public:
  enum class Concurrency { serial, concurrent };

  explicit Provider(Concurrency concurrency = Concurrency::serial);
  virtual ~Provider();
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;

  /// Serves the broker over the connection that it handed to this process, until the broker closes
  /// it or the process gets SIGTERM. Operations that have begun are waited for; those that have not
  /// are dropped. Call it once, on the main thread, before other threads are started: it blocks
  /// SIGTERM in the calling thread and all threads made from then on, and ignores SIGPIPE.
  ///
  /// Returns the process's exit status: 0 after an orderly end; 2, with a line on standard error,
  /// when the broker did not start the process.
  int run();

  /// The bundle identifier (QX_EXTENSION_IDENTIFIER); empty when not started by the broker.
  const std::string& identifier() const;
  /// The provided-items directory (QX_DOCUMENT_STORAGE), without a slash at its end; absent where
  /// the provider has none. It may not exist yet.
  const std::optional<std::string>& documentStorage() const;
  /// A string that the bundle's Info.plist holds under `key`, in its QXExtension dictionary or else
  /// at the top level; absent when there is none. Read from the file at each call: the working
  /// directory is the bundle.
  std::optional<std::string> infoString(const std::string& key) const;

 protected:
  /// Called once by run(), on its thread, before any operation: the process has begun, perhaps in
  /// the place of one that was killed, and nothing is asked of it before somebody wants a document.
  virtual void begin() {}

  /// Gets everything ready: makes the document storage and what should be visible in it. It is
  /// called each time the broker registers the provider, so everything may be there already. After
  /// an error the broker tries again a few times, and then does without this provider.
  virtual Result<void> performInitialSetup() = 0;

  /// Makes sure that there is something at `path` with the item's name, size and dates, with or
  /// without content. Succeeds when the item is there already.
  virtual Result<void> providePlaceholder(const std::string& path) = 0;

  /// Brings the content in at `path`. Answers when all of it is there.
  virtual Result<void> startProviding(const std::string& path) = 0;

  /// Called while startProviding() runs for `path`, when a program waits for these bytes. A
  /// provider that publishes what it has (PlaceholderWriter::publish) should bring them first. It
  /// may be called at any time, on any thread of the library, also during another operation, and
  /// must return at once.
  virtual void readerWaits(const std::string& path, std::uint64_t offset, std::uint64_t size);

  /// Another program changed the item at `path`. Carries the change to where the document really
  /// lives.
  virtual Result<void> itemChanged(const std::string& path) = 0;

  /// Nobody needs the content at `path` now. Its space may be given back.
  virtual Result<void> stopProviding(const std::string& path) = 0;

  /// Returns the identifier of the item at `path`: any non-empty text, which stays the same as long
  /// as the item exists, whatever its name. Grants and bookmarks name it.
  virtual Result<std::string> identifierForItem(const std::string& path) = 0;

  /// Returns the absolute path of the item, or an error (Error::noSuchItem) when there is none with
  /// that identifier.
  virtual Result<std::string> pathForItem(const std::string& identifier) = 0;

 private:
  class Implementation;
  class Vendor;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace docsource
