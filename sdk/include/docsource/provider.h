#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "docsource/error.h"

namespace docsource {

/// A provider extension: derive from this class, implement the operations, and have main() return
/// `run()`.
///
///     int main() { return MyProvider().run(); }
///
/// The process is started by the broker when it has a request, and ended when it has had none for
/// a while; nothing but what is on disk survives. Documents live under documentStorage(), a
/// directory that is the provider's to make; the operations name them by absolute path. The
/// provider checks each path and identifier itself: any may be asked about.
///
/// Threads: the operations run on threads of the library, never on the one that called run(). With
/// Concurrency::serial one at a time, in the order in which they were asked for; with
/// Concurrency::concurrent several at once, so that a slow one holds up no other.
///
/// The broker may give up a request, or end, while an operation of it runs. The operation is not
/// interrupted; its answer goes nowhere. An operation has to leave the documents in order even when
/// the process is killed in its middle.
class DOCSOURCE_API Provider {
 public:
  enum class Concurrency { serial, concurrent };

  explicit Provider(Concurrency concurrency = Concurrency::serial);
  virtual ~Provider();
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;

  /// Serves the broker over the connection it handed to this process, until the broker closes it or
  /// the process gets SIGTERM; operations that have begun are waited for, those that have not are
  /// dropped. Call it once, on the main thread, before other threads are started: it blocks SIGTERM
  /// in the calling thread and all threads made from then on, and ignores SIGPIPE.
  ///
  /// Returns the process's exit status: 0 after an orderly end, 2 with a line on standard error
  /// when the process was not started by the broker.
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
  /// The process has begun, perhaps in the place of one that was killed, and is asked for nothing
  /// before somebody wants a document. Called once by run(), on its thread, before any operation.
  virtual void begin() {}

  /// Get everything ready: make the document storage and what should be visible in it. Comes
  /// each time the broker registers the provider, so also when all is there already. An error
  /// makes the broker try again a few times, and then do without this provider.
  virtual Result<void> performInitialSetup() = 0;

  /// Have a placeholder at `path`: something of the item's name, size and dates, without content.
  /// Success when the item is there already.
  virtual Result<void> providePlaceholder(const std::string& path) = 0;

  /// Have the content at `path`. Answer when it is there completely.
  virtual Result<void> startProviding(const std::string& path) = 0;

  /// While startProviding() runs for `path`: a program waits for these bytes. A provider that
  /// publishes what it has (PlaceholderWriter::publish) had better bring them first. Comes at any
  /// time, on any thread of the library, also during another operation; must return at once.
  virtual void readerWaits(const std::string& path, std::uint64_t offset, std::uint64_t size);

  /// Somebody else changed the item at `path`; take the change over.
  virtual Result<void> itemChanged(const std::string& path) = 0;

  /// Nobody needs the content at `path` now; the space may be given back.
  virtual Result<void> stopProviding(const std::string& path) = 0;

  /// The identifier of the item at `path`: any non-empty text, the same for the same item as long
  /// as it exists, whatever it is called. Grants and bookmarks are kept by it.
  virtual Result<std::string> identifierForItem(const std::string& path) = 0;

  /// The absolute path of the item; an error (Error::noSuchItem) when there is none of that
  /// identifier.
  virtual Result<std::string> pathForItem(const std::string& identifier) = 0;

 private:
  class Implementation;
  class Vendor;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace docsource
