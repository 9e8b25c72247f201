#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/conduit/QXConduitListener.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "servicer/DSDaemon.h"
#include "tests/support/TemporaryDirectory.h"

/// Services that a test plays, over real sockets below a root of the test program's own.
namespace sdk::test {

/// The root, in the environment before anything reads it.
inline const qx::test::TemporaryDirectory& root() {
  static const qx::test::TemporaryDirectory& directory = []() -> auto& {
    static const qx::test::TemporaryDirectory made;
    ::setenv("DOCSOURCE_ROOT", made.path().c_str(), 1);
    return made;
  }
  ();
  return directory;
}

/// Serves one object to every connection, from the construction to the destruction.
template <class Protocol>
class Serving final {
 public:
  Serving(std::string name, std::shared_ptr<Protocol> object)
      : delegate_(std::make_shared<Delegate>(std::move(object))), listener_(std::move(name)) {
    listener_.setDelegate(delegate_);
    listener_.resume();
  }

 private:
  struct Delegate final : QXConduitListenerDelegate {
    explicit Delegate(std::shared_ptr<Protocol> served) : object(std::move(served)) {}
    bool listener_shouldAcceptNewConnection(
        QXConduitListener& /*listener*/,
        const std::shared_ptr<QXConduitConnection>& connection) override {
      connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<Protocol>());
      connection->setExportedObject<Protocol>(object);
      connection->resume();
      return true;
    }
    std::shared_ptr<Protocol> object;
  };
  std::shared_ptr<Delegate> delegate_;
  QXConduitListener listener_;
};

/// A daemon that notes the arguments of each call and answers what the test put into its members.
class FakeDaemon final : public DSDaemon {
 public:
  using Text = std::optional<std::string>;
  using Url = std::optional<qx::URL>;

  std::optional<qx::Error> error;
  std::optional<std::string> bookmark = "docsource:p/item";
  std::optional<qx::URL> url = qx::URL("file:///storage/a%20b.txt");
  std::optional<qx::Bytes> token = qx::Bytes{'t', '1'};
  std::optional<qx::URL> sibling = qx::URL("file:///storage/.a%20b.txt");
  std::optional<qx::Bytes> siblingToken = qx::Bytes{'t', '2'};
  qx::Dictionary listing;

  /// Set, it is called instead of an answer to the wake-up.
  void setOnWakeUp(std::function<void(qx::Completion<>)> handler) {
    const std::lock_guard lock(mutex_);
    onWakeUp_ = std::move(handler);
  }

  std::vector<std::string> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

  void wakeUpCompletion(qx::Completion<> completion) override {
    note("wakeUp", {});
    std::function<void(qx::Completion<>)> handler;
    {
      const std::lock_guard lock(mutex_);
      handler = onWakeUp_;
    }
    handler ? handler(std::move(completion)) : completion();
  }
  void extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
      const Url& u, const Text& provider, const Text& consumer,
      qx::Completion<qx::Error, qx::Bytes, qx::URL, qx::Bytes> completion) override {
    note("extendSandbox", {text(u), provider, consumer});
    if (error) return completion(error, {}, {}, {});
    completion({}, token, sibling, siblingToken);
  }
  void providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const Url& u, const Text& provider, const Text& consumer,
      qx::Completion<qx::Error> completion) override {
    note("placeholder", {text(u), provider, consumer});
    completion(error);
  }
  void startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const Url& u, const Text& provider, const Text& consumer,
      qx::Completion<qx::Error> completion) override {
    note("start", {text(u), provider, consumer});
    completion(error);
  }
  void stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const Url& u, const Text& provider, const Text& consumer,
      qx::Completion<qx::Error> completion) override {
    note("stop", {text(u), provider, consumer});
    completion(error);
  }
  void providersCompletionHandler(qx::Completion<qx::Error, qx::Dictionary> completion) override {
    note("providers", {});
    if (error) return completion(error, {});
    completion({}, listing);
  }
  void extendBookmarkForFileURL_toConsumerID_completionHandler(
      const Url& u, const Text& consumer,
      qx::Completion<std::string, qx::Error> completion) override {
    note("extendBookmark", {text(u), consumer});
    if (error) return completion({}, error);
    completion(bookmark, {});
  }
  void bookmarkableStringFromDocumentURL_completion(
      const Url& u, qx::Completion<std::string, qx::Error> completion) override {
    note("bookmark", {text(u)});
    if (error) return completion({}, error);
    completion(bookmark, {});
  }
  void documentURLFromBookmarkableString_completion(
      const Text& string,
      qx::Completion<qx::URL, qx::Bytes, qx::URL, qx::Bytes, qx::Error> completion) override {
    note("resolve", {string});
    if (error) return completion({}, {}, {}, {}, error);
    completion(url, token, sibling, siblingToken, {});
  }

 private:
  static Text text(const Url& u) { return u ? Text(u->absoluteString()) : Text(); }
  void note(std::string call, const std::vector<Text>& arguments) {
    for (const Text& argument : arguments) call += " " + argument.value_or("(absent)");
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::function<void(qx::Completion<>)> onWakeUp_;
};

/// Redeems a token by opening the path that it is.
class FakeSandbox final : public QXSandbox {
 public:
  void consumeExtension_completion(
      const std::optional<qx::Bytes>& token,
      qx::Completion<qx::Error, qx::SharedDescriptor> completion) override {
    const std::string path = token ? std::string(token->begin(), token->end()) : "";
    qx::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return completion(DSNotPermittedError(), {});
    completion({}, std::make_shared<const qx::FileDescriptor>(std::move(file)));
  }
};

/// Does in a coordinated read what the test wants of it.
class FakeCoordination final : public QXFileCoordination {
 public:
  std::function<std::optional<qx::Error>(const std::string& url)> onRead;
  std::function<std::optional<qx::Error>(const std::string& url)> onWritten;

  void addDocSource_providedItemsURL_completion(const std::optional<std::string>&,
                                                const std::optional<qx::URL>&,
                                                qx::Completion<qx::Error> completion) override {
    completion(DSNotPermittedError());
  }
  void removeDocSource_completion(const std::optional<std::string>&,
                                  qx::Completion<qx::Error> completion) override {
    completion(DSNotPermittedError());
  }
  void coordinateReadingItemAtURL_completion(const std::optional<qx::URL>& url,
                                             qx::Completion<qx::Error> completion) override {
    completion(onRead(url.value().absoluteString()));
  }
  void didFinishWritingItemAtURL_completion(const std::optional<qx::URL>& url,
                                            qx::Completion<qx::Error> completion) override {
    completion(onWritten(url.value().absoluteString()));
  }
};

}  // namespace sdk::test
