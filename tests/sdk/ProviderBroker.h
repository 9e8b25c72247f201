#pragma once

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/conduit/QXConduitConnection.h"
#include "providers/_QXDocSourceVendor.h"

namespace sdk::test {

/// The broker's end of a provider's connection: asks, and waits for the answer.
class Broker {
 public:
  /// Whatever an answer may hold; a connection that failed is an error like any other.
  struct Answer {
    std::optional<qx::Error> error;
    std::optional<std::string> text;
    std::optional<qx::URL> url;
  };
  using Url = std::optional<qx::URL>;

  explicit Broker(qx::FileDescriptor socket)
      : connection_(QXConduitConnection::overSocket(std::move(socket))) {
    connection_->setRemoteObjectInterface(
        QXConduitInterface::interfaceWithProtocol<_QXDocSourceVendor>());
    connection_->resume();
  }

  QXConduitConnection& connection() { return *connection_; }
  void close() { connection_->invalidate(); }
  /// A proxy whose failed calls nobody hears of.
  std::shared_ptr<_QXDocSourceVendor> vendor() {
    return connection_->remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>({});
  }

  Answer setUp() {
    return ask([](_QXDocSourceVendor& vendor, auto answer) {
      vendor._performInitialSetupWithCompletion(
          [answer](const auto& text, const auto& url, const auto& error) {
            answer({error, text, url});
          });
    });
  }
  Answer placeholder(const Url& item) {
    return ask([&](_QXDocSourceVendor& vendor, auto answer) {
      vendor._providePlaceholderAtURL_completion(item,
                                                 [answer](const auto& url, const auto& error) {
                                                   answer({error, {}, url});
                                                 });
    });
  }
  Answer start(const Url& item) {
    return request(&_QXDocSourceVendor::_startProvidingItemAtURL_completion, item);
  }
  Answer changed(const Url& item) {
    return request(&_QXDocSourceVendor::_itemChangedAtURL_completion, item);
  }
  Answer stop(const Url& item) {
    return request(&_QXDocSourceVendor::_stopProvidingItemAtURL_completion, item);
  }
  Answer identifier(const Url& item) {
    return ask([&](_QXDocSourceVendor& vendor, auto answer) {
      vendor._identifierForItemAtURL_completion(item,
                                                [answer](const auto& error, const auto& text) {
                                                  answer({error, text, {}});
                                                });
    });
  }
  Answer url(const std::optional<std::string>& identifier) {
    return ask([&](_QXDocSourceVendor& vendor, auto answer) {
      vendor._URLForItemIdentifier_completion(identifier,
                                              [answer](const auto& error, const auto& url) {
                                                answer({error, {}, url});
                                              });
    });
  }

 private:
  using Answering = std::function<void(Answer)>;

  template <class Send>
  Answer ask(Send send) {
    const auto promise = std::make_shared<std::promise<Answer>>();
    auto future = promise->get_future();
    const auto vendor = connection_->remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>(
        [promise](const qx::Error& error) {
          promise->set_value({error, {}, {}});
        });
    send(*vendor, Answering([promise](Answer answer) { promise->set_value(std::move(answer)); }));
    return future.get();
  }

  Answer request(void (_QXDocSourceVendor::*operation)(const Url&, qx::Completion<qx::Error>),
                 const Url& item) {
    return ask([&](_QXDocSourceVendor& vendor, auto answer) {
      (vendor.*operation)(item, [answer](const auto& error) { answer({error, {}, {}}); });
    });
  }

  std::shared_ptr<QXConduitConnection> connection_;
};

}  // namespace sdk::test
