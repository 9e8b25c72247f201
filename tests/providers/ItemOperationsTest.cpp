#include "tests/providers/FakeExtensionFixture.h"

namespace {

using namespace qx::test;
using qx::Error;
using qx::URL;

const URL item("file:///a%20b");

struct Outcome {
  std::optional<Error> error;
  std::string value;
};
using Outcomes = std::shared_ptr<Mailbox<Outcome>>;

/// One operation: how it is called, what the vendor hears, and what the log says around its
/// subject. Without outcomes it is called without a completion.
struct Operation {
  const char* method;
  std::function<void(DSExtensionDocSource&, const Outcomes&)> call;
  std::string vendorCall;
  std::string requestError, replyError, success;
  std::string value;
};

template <class... Values>
qx::Completion<Error, Values...> into(const Outcomes& outcomes) {
  if (!outcomes) return nullptr;
  return [outcomes](const auto& error, const auto&... values) {
    std::string text;
    ((text += qx::logText(values)), ...);
    outcomes->put({error, text});
  };
}

const std::string on = "file:///a%20b for extension com.example.fake";
const std::string itemOn = "“the item” for extension com.example.fake";

std::vector<Operation> operations() {
  return {
      {"providePlaceholderForItemAtURL:completionHandler:",
       [](auto& provider, const Outcomes& outcomes) {
         provider.providePlaceholderForItemAtURL_completionHandler(item, into<>(outcomes));
       },
       "placeholder file:///a%20b",
       "[ERROR] Cannot provide placeholder for item at URL " + on + ". Error: ",
       "[ERROR] Proxy failed to provide placeholder at URL " + on + ". Error: ",
       "[DEBUG] Successfully provided placeholder at URL " + on + ".", ""},
      {"startProvidingItemAtURL:completionHandler:",
       [](auto& provider, const Outcomes& outcomes) {
         provider.startProvidingItemAtURL_completionHandler(item, into<>(outcomes));
       },
       "start file:///a%20b", "[ERROR] Cannot provide item at URL " + on + ". Error: ",
       "[ERROR] Proxy failed to start providing item at URL " + on + ". Error: ",
       "[DEBUG] Successfully provided item at URL " + on + ".", ""},
      {"stopProvidingItemAtURL:completionHandler:",
       [](auto& provider, const Outcomes& outcomes) {
         provider.stopProvidingItemAtURL_completionHandler(item, into<>(outcomes));
       },
       "stop file:///a%20b", "[ERROR] Cannot stop providing item at URL " + on + ". Error: ",
       "[ERROR] Proxy failed to stop providing item at URL " + on + ". Error: ",
       "[DEBUG] Successfully stopped providing item at URL " + on + ".", ""},
      {"itemIDForURL:completionHandler:",
       [](auto& provider, const Outcomes& outcomes) {
         provider.itemIDForURL_completionHandler(item, into<std::string>(outcomes));
       },
       "identifier file:///a%20b", "[ERROR] Cannot get item ID for URL " + on + ". Error: ",
       "[ERROR] Proxy failed to get item ID for URL " + on + ". Error: ",
       "[DEBUG] Successfully got item ID “the item” for URL file:///a%20b from extension "
       "com.example.fake",
       "the item"},
      {"URLForItemID:completionHandler:",
       [](auto& provider, const Outcomes& outcomes) {
         provider.URLForItemID_completionHandler("the item", into<URL>(outcomes));
       },
       "url the item", "[ERROR] Cannot get URL for item ID " + itemOn + ". Error: ",
       "[ERROR] Proxy failed to get URL for item ID " + itemOn + ". Error: ",
       "[DEBUG] Successfully retrieved URL file:///the/item for item ID “the item” from extension "
       "com.example.fake",
       "file:///the/item"},
  };
}

class ItemOperationsTest : public FakeExtensionFixture {
 protected:
  /// A fresh extension, an empty log and no outcomes.
  void renew() {
    FakeExtensionFixture::renew();
    outcomes = std::make_shared<Mailbox<Outcome>>();
  }
  static std::string entry(const std::string& method) {
    return "[DEBUG] -[DSExtensionDocSource " + method + "]";
  }
  /// Waits for the answer to an operation, the only one, and for the end of so many requests.
  Outcome outcome(std::size_t ended) {
    EXPECT_TRUE(outcomes->waitForCount(1));
    EXPECT_TRUE(extension->cancelled.waitForCount(ended));
    EXPECT_EQ(outcomes->all().size(), 1U);
    EXPECT_EQ(extension->cancelled.all().size(), ended);
    return outcomes->all().empty() ? Outcome() : outcomes->all().front();
  }
  static constexpr auto begins = "[DEBUG] Beginning extension request.";
  Outcomes outcomes = std::make_shared<Mailbox<Outcome>>();
};

TEST_F(ItemOperationsTest, AnswerOnceHoweverTheyEnd) {
  const auto refusal = qx::extensionError(qx::ExtensionErrorCode::notInstalled, "com.example.fake");
  for (const auto& operation : operations()) {
    SCOPED_TRACE(operation.method);
    renew();
    operation.call(*provider, outcomes);
    const auto success = outcome(1);
    EXPECT_EQ(success.error, std::nullopt);
    EXPECT_EQ(success.value, operation.value);
    EXPECT_EQ(extension->vendor().calls.all(), Lines{operation.vendorCall});
    EXPECT_EQ(extension->cancelled.all().front(), extension->opened.all().front());
    EXPECT_EQ(LogCapture::mailbox().all(),
              (Lines{entry(operation.method), begins, operation.success}));

    // A failure of the provider is wrapped, and has no value beside it.
    renew();
    extension->vendor().answerNext({failure});
    operation.call(*provider, outcomes);
    const auto failed = outcome(1);
    EXPECT_EQ(failed.error, DSPluginOperationFailedError(providerFailure()));
    EXPECT_EQ(failed.value, operation.value.empty() ? "" : "(null)");
    EXPECT_EQ(
        LogCapture::mailbox().all(),
        (Lines{entry(operation.method), begins, operation.replyError + providerFailure().text()}));

    // A request that cannot be opened is not ended.
    renew();
    extension->refuseRequests(refusal);
    operation.call(*provider, outcomes);
    EXPECT_EQ(outcome(0).error, DSPluginOperationFailedError(refusal));
    EXPECT_EQ(LogCapture::mailbox().all(),
              (Lines{entry(operation.method), begins,
                     "[ERROR] Extension request failed. Error: " + refusal.text(),
                     operation.requestError + refusal.text()}));

    // Nor is one whose connection was lost in between.
    renew();
    extension->vendor().answerNext({std::nullopt});
    operation.call(*provider, outcomes);
    ASSERT_TRUE(extension->vendor().calls.waitForCount(1));
    extension->breakConnection();
    const auto error = outcome(0).error;
    ASSERT_TRUE(error && error->is(DSErrorDomain, 8) && error->underlyingError());
    EXPECT_TRUE(error->underlyingError()->is(QXConduitErrorDomain, 4));
    EXPECT_EQ(LogCapture::mailbox().all().back(),
              operation.requestError + error->underlyingError()->text());
  }
}

TEST_F(ItemOperationsTest, WithoutACompletionEverythingElseHappens) {
  for (const auto& operation : operations()) {
    SCOPED_TRACE(operation.method);
    renew();
    extension->vendor().answerNext({failure});
    operation.call(*provider, nullptr);
    ASSERT_TRUE(extension->cancelled.waitForCount(1));
    EXPECT_TRUE(LogCapture::mailbox().waitFor(operation.replyError + providerFailure().text()));
    operation.call(*provider, nullptr);
    ASSERT_TRUE(extension->cancelled.waitForCount(2));
    EXPECT_TRUE(LogCapture::mailbox().waitFor(operation.success));
    extension->refuseRequests(providerFailure());
    operation.call(*provider, nullptr);
    EXPECT_TRUE(LogCapture::mailbox().waitFor(operation.requestError + providerFailure().text()));
  }
}

TEST_F(ItemOperationsTest, AChangedItemIsAnnouncedAndItsRequestAlwaysEnded) {
  const auto method = entry("itemChangedAtURL:");
  provider->itemChangedAtURL(item);
  ASSERT_TRUE(extension->cancelled.waitForCount(1));
  EXPECT_EQ(extension->vendor().calls.all(), Lines{"changed file:///a%20b"});
  EXPECT_EQ(LogCapture::mailbox().all(), (Lines{method, begins}));

  renew();
  extension->vendor().answerNext({failure});
  provider->itemChangedAtURL(item);
  ASSERT_TRUE(extension->cancelled.waitForCount(1));
  EXPECT_EQ(LogCapture::mailbox().all().back(),
            "[ERROR] Could not tell extension com.example.fake that item at URL file:///a%20b has "
            "changed. Error: " +
                providerFailure().text());

  const std::string cannot =
      "[ERROR] Cannot tell extension com.example.fake that item at URL file:///a%20b has changed.";
  renew();
  extension->refuseRequests(providerFailure());
  provider->itemChangedAtURL(item);
  EXPECT_EQ(extension->cancelled.all().size(), 1U);
  EXPECT_EQ(LogCapture::mailbox().all().back(), cannot);

  renew();
  extension->vendor().answerNext({std::nullopt});
  provider->itemChangedAtURL(item);
  ASSERT_TRUE(extension->vendor().calls.waitForCount(1));
  extension->breakConnection();
  EXPECT_TRUE(extension->cancelled.waitForCount(1));
  EXPECT_TRUE(LogCapture::mailbox().waitFor(cannot));
}

TEST_F(ItemOperationsTest, TheDeprecatedWayToProvideIsTheOtherWithoutAReader) {
  extension->vendor().answerNext({failure});
  provider->_provideItemAtURL_completionHandler(item, into<>(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1));
  // The error is the one of the look-up, not wrapped again.
  const auto wrapped = DSPluginOperationFailedError(providerFailure());
  EXPECT_EQ(outcomes->all().front().error, wrapped);
  ASSERT_TRUE(extension->cancelled.waitForCount(1));
  EXPECT_EQ(extension->vendor().calls.all(), Lines{"identifier file:///a%20b"});
  const auto lines = LogCapture::mailbox().all();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0], "[ERROR] Calling deprecated method: _provideItemAtURL:completionHandler:");
  EXPECT_EQ(lines[1],
            "[INFO] QXFileCoordinator requested us to provide item at URL file:///a%20b for "
            "consumer (null)");
  EXPECT_EQ(lines.back(),
            "[ERROR] Could not provide item at URL file:///a%20b from extension com.example.fake "
            "to reader (null). Error: " +
                wrapped->text());
}

TEST_F(ItemOperationsTest, AReaderIsProvidedWithTheItemAfterItsIdentifierIsKnown) {
  provider->_provideItemAtURL_toReaderWithID_completionHandler(item, "reader", into<>(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->all().front().error, std::nullopt);
  EXPECT_EQ(extension->vendor().calls.all(),
            (Lines{"identifier file:///a%20b", "start file:///a%20b"}));
  EXPECT_EQ(log.count("[ERROR]"), 0U);
  EXPECT_EQ(LogCapture::mailbox().all().front(),
            "[INFO] QXFileCoordinator requested us to provide item at URL file:///a%20b for "
            "consumer reader");
  ASSERT_TRUE(extension->cancelled.waitForCount(2));
  // A provider that knows no identifier is asked to start all the same; nobody has to listen.
  extension->vendor().answerNext({ScriptedVendor::Answer{}});
  provider->_provideItemAtURL_toReaderWithID_completionHandler(item, "reader", nullptr);
  EXPECT_TRUE(extension->cancelled.waitForCount(4));
  EXPECT_EQ(extension->vendor().calls.all().size(), 4U);
}

}  // namespace
