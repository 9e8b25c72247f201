#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/extension/QXExtension.h"
#include "platform/log/Log.h"
#include "providers/_QXDocSourceExtensionHostContext.h"
#include "tests/support/Mailbox.h"
#include "tests/support/RawPeer.h"

namespace qx::test {

/// The provider's side of a fake extension: notes what it is asked and answers as it was told. A
/// call without an answer keeps its reply open.
class ScriptedVendor final : public _QXDocSourceVendor {
 public:
  struct Answer {
    std::optional<Error> error;
    std::optional<std::string> text;
    std::optional<URL> url;
  };

  /// Answers of the next calls, in order; afterwards success with an identifier and a URL.
  void answerNext(std::vector<std::optional<Answer>> answers) {
    std::lock_guard lock(mutex_);
    answers_ = std::move(answers);
  }

  /// "operation argument" for each call.
  Mailbox<std::string> calls;

  void _performInitialSetupWithCompletion(Completion<std::string, URL, Error> reply) override {
    answer("setUp", [&](const Answer& with) { reply(with.text, with.url, with.error); });
  }
  void _providePlaceholderAtURL_completion(const std::optional<URL>& url,
                                           Completion<URL, Error> reply) override {
    answer("placeholder " + qx::logText(url),
           [&](const Answer& with) { reply(with.url, with.error); });
  }
  void _startProvidingItemAtURL_completion(const std::optional<URL>& url,
                                           Completion<Error> reply) override {
    answer("start " + qx::logText(url), [&](const Answer& with) { reply(with.error); });
  }
  void _itemChangedAtURL_completion(const std::optional<URL>& url,
                                    Completion<Error> reply) override {
    answer("changed " + qx::logText(url), [&](const Answer& with) { reply(with.error); });
  }
  void _stopProvidingItemAtURL_completion(const std::optional<URL>& url,
                                          Completion<Error> reply) override {
    answer("stop " + qx::logText(url), [&](const Answer& with) { reply(with.error); });
  }
  void _identifierForItemAtURL_completion(const std::optional<URL>& url,
                                          Completion<Error, std::string> reply) override {
    answer("identifier " + qx::logText(url),
           [&](const Answer& with) { reply(with.error, with.text); });
  }
  void _URLForItemIdentifier_completion(const std::optional<std::string>& itemID,
                                        Completion<Error, URL> reply) override {
    answer("url " + qx::logText(itemID), [&](const Answer& with) { reply(with.error, with.url); });
  }

 private:
  template <class Reply>
  void answer(const std::string& call, Reply reply) {
    std::optional<Answer> with(Answer{std::nullopt, "the item", URL("file:///the/item")});
    {
      std::lock_guard lock(mutex_);
      if (!answers_.empty()) {
        with = answers_.front();
        answers_.erase(answers_.begin());
      }
    }
    calls.put(call);
    if (with) reply(*with);
  }

  std::mutex mutex_;
  std::vector<std::optional<Answer>> answers_;
};

/// An installed extension whose provider lives in this process, at the other end of a real
/// connection.
class FakeExtension final : public QXExtension {
 public:
  explicit FakeExtension(std::optional<std::string> identifier = "com.example.fake")
      : identifier_(std::move(identifier)), vendor_(std::make_shared<ScriptedVendor>()) {
    auto [ours, theirs] = socketPair();
    host_ = QXConduitConnection::overSocket(std::move(ours));
    host_->setExportedInterface(
        _QXDocSourceExtensionHostContext::_extensionAuxiliaryHostProtocol());
    host_->resume();
    provider_ = QXConduitConnection::overSocket(std::move(theirs));
    provider_->setExportedInterface(
        _QXDocSourceExtensionHostContext::_extensionAuxiliaryVendorProtocol());
    provider_->setExportedObject<_QXDocSourceVendor>(vendor_);
    provider_->setRequestHandler([](bool, const UUID&) {});
    provider_->resume();
  }

  ScriptedVendor& vendor() { return *vendor_; }
  void breakConnection() { provider_->invalidate(); }
  /// From now on requests are refused; the host names the request all the same, if told to.
  void refuseRequests(const Error& error, const std::optional<UUID>& request = std::nullopt) {
    refusal_ = error;
    refused_ = request;
  }
  /// From now on the host has no context for any request.
  void hideContexts() { hidesContexts_ = true; }

  /// Requests that were opened, and what the host was asked to cancel.
  Mailbox<UUID> opened;
  Mailbox<std::optional<UUID>> cancelled;

  std::optional<std::string> identifier() const override { return identifier_; }
  std::string bundlePath() const override { return "/fake.docext"; }
  bool isEqual(const QXExtension& other) const override { return this == &other; }

  void beginExtensionRequestWithInputItems_completion(const std::optional<Array>& inputItems,
                                                      Completion<UUID, Error> completion) override {
    if (inputItems) std::abort();  // there are never any
    if (refusal_) {
      completion(refused_, refusal_);
      return;
    }
    const UUID request = UUID::random();
    auto context = std::make_shared<_QXDocSourceExtensionHostContext>();
    context->setAuxiliaryConnection(host_->auxiliaryConnection(
        request, _QXDocSourceExtensionHostContext::_extensionAuxiliaryVendorProtocol()));
    {
      std::lock_guard lock(mutex_);
      contexts_.emplace(request, std::move(context));
    }
    host_->beginRequest(request);
    opened.put(request);
    completion(request, std::nullopt);
  }

  void cancelExtensionRequestWithIdentifier(const std::optional<UUID>& request) override {
    if (request) host_->endRequest(*request);
    cancelled.put(request);
  }

  std::shared_ptr<QXExtensionContext> _extensionContextForUUID(
      const std::optional<UUID>& request) override {
    std::lock_guard lock(mutex_);
    if (hidesContexts_ || !request) return nullptr;
    return contexts_.at(*request);
  }

 private:
  const std::optional<std::string> identifier_;
  const std::shared_ptr<ScriptedVendor> vendor_;
  std::shared_ptr<QXConduitConnection> host_;
  std::shared_ptr<QXConduitConnection> provider_;
  std::optional<Error> refusal_;
  std::optional<UUID> refused_;
  bool hidesContexts_ = false;
  std::mutex mutex_;
  std::map<UUID, std::shared_ptr<QXExtensionContext>> contexts_;
};

/// A failure as a provider reports it.
inline Error providerFailure(const char* description = "the provider said no") {
  return Error("ProviderDomain", 7, description);
}

}  // namespace qx::test
