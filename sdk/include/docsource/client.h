#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "docsource/error.h"

namespace docsource {

/// A sandbox token: printable text that Client::redeem() exchanges for an open descriptor of the
/// file for which it was issued. Any process of the user that holds it may redeem it, until the
/// machine restarts or the grant is taken back.
using Token = std::string;

/// What lets a consumer's sandbox reach a document: the token of the document itself, and its
/// hidden sibling (the file of the same name with a "." in front) with a token of its own. A token
/// is absent when there is no such file.
struct SandboxExtension {
  std::optional<Token> token;
  std::optional<std::string> siblingURL;
  std::optional<Token> siblingToken;
};

/// A document to which a bookmarkable string led.
struct ResolvedBookmark {
  std::string url;
  SandboxExtension extension;
};

struct ProviderInfo {
  std::string identifier;
  /// The directory URL under which its documents live; absent for a provider that has none.
  std::optional<std::string> documentStorageURL;
};

/// Says that a consumer may have an item of a provider.
struct Grant {
  std::string provider;
  std::string item;
  std::string consumer;
  /// Where the item is; absent when its provider could not tell, or not in time.
  std::optional<std::string> url;
};

/// A consumer's side of the document broker.
///
/// URLs are file URLs as text (fileURL(), pathOfURL()); providers and consumers are named by their
/// bundle identifiers. Who may call what depends on the bundle of the calling program, its
/// entitlements, and what it may read.
///
/// Every operation has two forms. The form without a callback waits for the answer; any thread may
/// call it, also from within a callback of this or another client. The form with a callback returns
/// at once, and calls the callback exactly once, from a background thread; callbacks run in
/// parallel and in any order. Both wait no longer than the timeout, which is the client's own
/// unless the call names one; `noTimeout` waits for ever. A call that gets no answer in time fails
/// with LibraryError::timedOut, and a later answer is dropped. An empty callback is allowed.
///
/// Connections are made at the first call that needs one, and made anew at the next call after a
/// service was away. A service that cannot be reached gives LibraryError::serviceUnavailable; one
/// that goes away during the call gives QXConduitErrorDomain 4. Nothing is repeated.
///
/// Any thread may use the client. Destroying it fails the calls in flight like a lost connection;
/// their callbacks may run after the destructor has returned.
class DOCSOURCE_API Client {
 public:
  template <class T>
  using Callback = std::function<void(Result<T>)>;
  using Timeout = std::optional<std::chrono::milliseconds>;
  static constexpr std::chrono::milliseconds noTimeout = std::chrono::milliseconds::max();

  /// `timeout` counts for the calls that name none.
  explicit Client(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // The broker, service "com.veltro.DocSource".

  /// `wakeUpCompletion:`. Answers once the broker is up and serves calls.
  Result<void> wakeUp(Timeout timeout = {});
  void wakeUp(Callback<void> callback, Timeout timeout = {});

  /// `extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:`. Records that the
  /// consumer may have the document, and returns the tokens for it.
  Result<SandboxExtension> extendSandbox(const std::string& url, const std::string& provider,
                                         const std::string& consumer, Timeout timeout = {});
  void extendSandbox(const std::string& url, const std::string& provider,
                     const std::string& consumer, Callback<SandboxExtension> callback,
                     Timeout timeout = {});

  /// `providePlaceholderForItemAtURL:fromProviderID:forConsumerID:completionHandler:`. Has the
  /// provider make a placeholder.
  Result<void> providePlaceholder(const std::string& url, const std::string& provider,
                                  const std::string& consumer, Timeout timeout = {});
  void providePlaceholder(const std::string& url, const std::string& provider,
                          const std::string& consumer, Callback<void> callback,
                          Timeout timeout = {});

  /// `startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:`. After success the
  /// document's content is there.
  Result<void> startProviding(const std::string& url, const std::string& provider,
                              const std::string& consumer, Timeout timeout = {});
  void startProviding(const std::string& url, const std::string& provider,
                      const std::string& consumer, Callback<void> callback, Timeout timeout = {});

  /// `stopProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:`. Says that the
  /// consumer no longer needs the document.
  Result<void> stopProviding(const std::string& url, const std::string& provider,
                             const std::string& consumer, Timeout timeout = {});
  void stopProviding(const std::string& url, const std::string& provider,
                     const std::string& consumer, Callback<void> callback, Timeout timeout = {});

  /// `providersCompletionHandler:`. Returns the providers in the order of their identifiers.
  Result<std::vector<ProviderInfo>> providers(Timeout timeout = {});
  void providers(Callback<std::vector<ProviderInfo>> callback, Timeout timeout = {});

  /// `extendBookmarkForFileURL:toConsumerID:completionHandler:`. Records that the consumer may have
  /// the document, and returns a bookmarkable string for it.
  Result<std::string> extendBookmark(const std::string& url, const std::string& consumer,
                                     Timeout timeout = {});
  void extendBookmark(const std::string& url, const std::string& consumer,
                      Callback<std::string> callback, Timeout timeout = {});

  /// `bookmarkableStringFromDocumentURL:completion:`. Absent, without an error, for a URL that
  /// belongs to no provider.
  Result<std::optional<std::string>> bookmarkableString(const std::string& url,
                                                        Timeout timeout = {});
  void bookmarkableString(const std::string& url, Callback<std::optional<std::string>> callback,
                          Timeout timeout = {});

  /// `documentURLFromBookmarkableString:completion:`. The broker never answers when the provider is
  /// not installed (any more); the call then ends with LibraryError::timedOut.
  Result<ResolvedBookmark> resolveBookmark(const std::string& bookmark, Timeout timeout = {});
  void resolveBookmark(const std::string& bookmark, Callback<ResolvedBookmark> callback,
                       Timeout timeout = {});

  // The grants, service "com.veltro.DocSource.Grants", for holders of the entitlement
  // "com.veltro.docsource.acl-write".

  /// `grantsCompletion:`. Returns the grants by provider, then by consumer, then in the order in
  /// which they were made.
  Result<std::vector<Grant>> grants(Timeout timeout = {});
  void grants(Callback<std::vector<Grant>> callback, Timeout timeout = {});

  /// `revokeItemWithID:ofProviderID:forConsumerID:completion:`. Takes a grant back or, without an
  /// item, all that the consumer has of the provider. After success bookmarks of the consumer for
  /// the item do not resolve, and tokens that were issued for the document before do not redeem,
  /// for anybody. Taking back a grant that does not exist is no error.
  Result<void> revoke(const std::optional<std::string>& item, const std::string& provider,
                      const std::string& consumer, Timeout timeout = {});
  void revoke(const std::optional<std::string>& item, const std::string& provider,
              const std::string& consumer, Callback<void> callback, Timeout timeout = {});

  // Sandbox extensions, service "com.veltro.Sandbox".

  /// `consumeExtension:completion:`. Returns a descriptor of the document, open for reading, or for
  /// reading and writing where the token grants that. It is close-on-exec.
  Result<Descriptor> redeem(const Token& token, Timeout timeout = {});
  void redeem(const Token& token, Callback<Descriptor> callback, Timeout timeout = {});

  // Coordination, service "com.veltro.FileCoordination".

  /// `coordinateReadingItemAtURL:completion:`. Has the document's provider, if it has one, bring
  /// the content in; after success it may be read.
  Result<void> coordinateReading(const std::string& url, Timeout timeout = {});
  void coordinateReading(const std::string& url, Callback<void> callback, Timeout timeout = {});

  /// Calls coordinateReading(), and then opens the document for reading (open(2), O_RDONLY |
  /// O_CLOEXEC). An error of the opening is one of QXStandardErrorDomain; it is over EAGAIN when
  /// the document is still a placeholder (docsource/placeholder.h).
  Result<Descriptor> openForReading(const std::string& url, Timeout timeout = {});
  void openForReading(const std::string& url, Callback<Descriptor> callback, Timeout timeout = {});

  /// `didFinishWritingItemAtURL:completion:`. Tells the document's provider that its content was
  /// changed; call it after the changed file is closed or in place.
  Result<void> finishedWriting(const std::string& url, Timeout timeout = {});
  void finishedWriting(const std::string& url, Callback<void> callback, Timeout timeout = {});

 private:
  class Implementation;
  std::shared_ptr<Implementation> implementation_;
};

}  // namespace docsource
