// What an instance does for its extension: the item operations, however they end.

#include "tests/providers/Fixture.h"
#include "tests/support/Daemons.h"

namespace {

using namespace qx::test;
using qx::Error;
using qx::URL;

/// An operation's error, and the value beside it as the log writes it.
struct Outcome {
  std::optional<Error> error;
  std::string value;
};
using Outcomes = std::shared_ptr<Mailbox<Outcome>>;

template <class... Values>
qx::Completion<Error, Values...> into(const Outcomes& outcomes) {
  return [outcomes](const auto& error, const auto&... values) {
    std::string text;
    ((text += qx::logText(values)), ...);
    outcomes->put({error, text});
  };
}

/// One operation on an item, and what the log says of it.
struct Operation {
  std::string method;
  std::function<void(const std::string& item, const Outcomes& outcomes)> call;
  std::string requestError, replyError, success;
  /// How the messages name an item, and what comes of it.
  std::function<std::string(const std::string&item)> subject, value;
};

class OperationsTest : public ProvidersTest {
 protected:
  void SetUp() override {
    ProvidersTest::SetUp();
    a.install();
    begin();
    provider = Registry::providerWithIdentifier("A");
    ASSERT_TRUE(provider);
  }

  std::string urlText(const std::string& item) const { return a.url(item).absoluteString(); }

  std::vector<Operation> operations() {
    const auto url = [this](const std::string& item) { return urlText(item); };
    const auto quoted = [](const std::string& item) { return "“" + item + "”"; };
    const auto same = [](const std::string& item) { return item; };
    const auto nothing = [](const std::string&) { return std::string(); };
    const std::string of = " for extension A. Error: ";
    using Source = DSExtensionDocSource;
    const auto plain = [this](auto operation) {
      return [this, operation](const std::string& item, const Outcomes& outcomes) {
        ((*provider).*operation)(a.url(item), outcomes ? into<>(outcomes) : nullptr);
      };
    };
    return {
        {"providePlaceholderForItemAtURL",
         plain(&Source::providePlaceholderForItemAtURL_completionHandler),
         "Cannot provide placeholder for item at URL @" + of,
         "Proxy failed to provide placeholder at URL @" + of,
         "Successfully provided placeholder at URL @ for extension A.", url, nothing},
        {"startProvidingItemAtURL", plain(&Source::startProvidingItemAtURL_completionHandler),
         "Cannot provide item at URL @" + of, "Proxy failed to start providing item at URL @" + of,
         "Successfully provided item at URL @ for extension A.", url, nothing},
        {"stopProvidingItemAtURL", plain(&Source::stopProvidingItemAtURL_completionHandler),
         "Cannot stop providing item at URL @" + of,
         "Proxy failed to stop providing item at URL @" + of,
         "Successfully stopped providing item at URL @ for extension A.", url, nothing},
        {"itemIDForURL",
         [this](const std::string& item, const Outcomes& to) {
           provider->itemIDForURL_completionHandler(a.url(item),
                                                    to ? into<std::string>(to) : nullptr);
         },
         "Cannot get item ID for URL @" + of, "Proxy failed to get item ID for URL @" + of,
         "Successfully got item ID “x” for URL @ from extension A", url, same},
        {"URLForItemID",
         [this](const std::string& item, const Outcomes& to) {
           provider->URLForItemID_completionHandler(item, to ? into<URL>(to) : nullptr);
         },
         "Cannot get URL for item ID @" + of, "Proxy failed to get URL for item ID @" + of,
         "Successfully retrieved URL " + urlText("x") + " for item ID @ from extension A", quoted,
         url}};
  }
  /// Of a call that somebody listens to; its lines alone are in the log afterwards.
  static Outcome outcomeOf(const Operation& operation, const std::string& item) {
    LogCapture::mailbox().take();
    const auto outcomes = std::make_shared<Mailbox<Outcome>>();
    operation.call(item, outcomes);
    EXPECT_TRUE(outcomes->waitForCount(1));
    return outcomes->all().empty() ? Outcome() : outcomes->all().front();
  }
  static std::string line(const char* tag, std::string text, const std::string& subject) {
    return tag + text.replace(text.find('@'), 1, subject);
  }

  const ProviderBundle a{"A"};
  std::shared_ptr<DSExtensionDocSource> provider;
  const Error no{"ProviderDomain", 7, "no"};
};

TEST_F(OperationsTest, AnswerOnceHoweverTheyEnd) {
  const auto all = operations();
  for (const auto& operation : all) {
    SCOPED_TRACE(operation.method);
    const auto end = [&](const std::string& item) {
      // Nobody has to listen; the log is the same.
      LogCapture::mailbox().take();
      operation.call(item, nullptr);
      EXPECT_TRUE(LogCapture::mailbox().waitForCount(3));
      const auto unheard = LogCapture::mailbox().take();
      const auto outcome = outcomeOf(operation, item);
      EXPECT_EQ(LogCapture::mailbox().all(), unheard);
      return outcome;
    };
    const Lines begin{"[DEBUG] -[DSExtensionDocSource " + operation.method + ":completionHandler:]",
                      "[DEBUG] Beginning extension request."};
    const auto linesWith = [&](const std::string& last) { return Lines{begin[0], begin[1], last}; };
    const auto success = end("x");
    EXPECT_EQ(success.error, std::nullopt);
    EXPECT_EQ(success.value, operation.value("x"));
    EXPECT_EQ(LogCapture::mailbox().all(),
              linesWith(line("[DEBUG] ", operation.success, operation.subject("x"))));
    // A failure of the provider is wrapped, and has no value beside it.
    const auto failure = end("fail");
    EXPECT_EQ(failure.error, DSPluginOperationFailedError(no));
    EXPECT_EQ(failure.value, operation.value("fail").empty() ? "" : "(null)");
    EXPECT_EQ(
        LogCapture::mailbox().all(),
        linesWith(line("[ERROR] ", operation.replyError, operation.subject("fail")) + no.text()));
  }
  // Every request is ended, the last one a moment after its answer.
  EXPECT_TRUE(eventually([] {
    clock.advance(std::chrono::seconds(10));
    return LogCapture::count("[INFO] Extension A is idle; ending it.") == 1;
  }));

  // The connection is lost in between, and then none can be opened any more.
  std::vector<Outcomes> lost;
  for (const auto& operation : all) {
    operation.call("silent", nullptr);
    operation.call("silent", lost.emplace_back(std::make_shared<Mailbox<Outcome>>()));
  }
  // Those that follow one which failed, and its own.
  const auto begun = static_cast<int>(2 * all.size() + 1);
  ASSERT_TRUE(waitForLine("[DEBUG] Beginning extension request.", begun));
  qx::ExtensionHost::shared().shutdown();
  const auto check = [](const Operation& operation, const std::optional<Error>& error,
                        std::string_view domain, std::int64_t code, int times) {
    SCOPED_TRACE(operation.method);
    ASSERT_TRUE(error && error->is(DSErrorDomain, 8) && error->underlyingError());
    EXPECT_TRUE(error->underlyingError()->is(domain, code)) << error->text();
    const auto message = line("[ERROR] ", operation.requestError, operation.subject("silent"));
    EXPECT_TRUE(waitForLine(message + error->underlyingError()->text(), times));
  };
  for (std::size_t i = 0; i < all.size(); ++i) {
    ASSERT_TRUE(lost[i]->waitForCount(1));
    check(all[i], lost[i]->all().front().error, QXConduitErrorDomain, 4, 2);
  }
  for (const auto& operation : all) {
    check(operation, outcomeOf(operation, "silent").error, QXExtensionErrorDomain, 2, 1);
    EXPECT_EQ(LogCapture::count("[ERROR] Extension request failed. Error: QXExtension"), 1U);
  }
  for (const auto& outcomes : lost) EXPECT_EQ(outcomes->all().size(), 1U);
}

TEST_F(OperationsTest, AChangedItemIsAnnounced) {
  LogCapture::mailbox().take();
  const std::string end = "tell extension A that item at URL " + urlText("fail") + " has changed.";
  provider->itemChangedAtURL(a.url("fail"));
  EXPECT_TRUE(waitForLine("[ERROR] Could not " + end + " Error: " + no.text()));
  EXPECT_EQ(LogCapture::mailbox().all().front(),
            "[DEBUG] -[DSExtensionDocSource itemChangedAtURL:]");
  qx::ExtensionHost::shared().shutdown();
  provider->itemChangedAtURL(a.url("fail"));
  EXPECT_TRUE(waitForLine("[ERROR] Cannot " + end));
}

TEST_F(OperationsTest, AReaderIsProvidedWithTheItemAfterItsIdentifierIsKnown) {
  const auto provide = [this](const std::string& item) {
    LogCapture::mailbox().take();
    const auto outcomes = std::make_shared<Mailbox<Outcome>>();
    provider->_provideItemAtURL_toReaderWithID_completionHandler(a.url(item), "reader",
                                                                 into<>(outcomes));
    EXPECT_TRUE(outcomes->waitForCount(1));
    return outcomes->all().front().error;
  };
  const auto requested = [this](const std::string& item, const std::string& reader) {
    return "[INFO] QXFileCoordinator requested us to provide item at URL " + urlText(item) +
           " for consumer " + reader;
  };
  // A provider that knows no identifier is asked to start all the same.
  for (const char* item : {"x", "nameless"}) {
    EXPECT_EQ(provide(item), std::nullopt);
    EXPECT_EQ(LogCapture::mailbox().all().front(), requested(item, "reader"));
    EXPECT_EQ(LogCapture::mailbox().all().back(),
              "[DEBUG] Successfully provided item at URL " + urlText(item) + " for extension A.");
  }
  // The error is the one of the look-up, not wrapped again.
  const auto wrapped = DSPluginOperationFailedError(no);
  EXPECT_EQ(provide("fail"), wrapped);
  const auto failed = [&](const std::string& reader) {
    return "[ERROR] Could not provide item at URL " + urlText("fail") +
           " from extension A to reader " + reader + ". Error: " + wrapped->text();
  };
  EXPECT_TRUE(waitForLine(failed("reader")));
  EXPECT_EQ(log.count("startProviding"), 0U);

  // The deprecated way is the same without a reader.
  LogCapture::mailbox().take();
  provider->_provideItemAtURL_completionHandler(a.url("fail"), nullptr);
  EXPECT_TRUE(waitForLine(failed("(null)")));
  EXPECT_EQ(LogCapture::mailbox().all().front(),
            "[ERROR] Calling deprecated method: _provideItemAtURL:completionHandler:");
  EXPECT_TRUE(waitForLine(requested("fail", "(null)")));
}

/// An extension that takes requests and has no context for them.
class Hollow final : public QXExtension {
 public:
  explicit Hollow(std::string identifier) : identifier_(std::move(identifier)) {}

  std::optional<std::string> identifier() const override { return identifier_; }
  std::string bundlePath() const override { return "/hollow"; }
  bool isEqual(const QXExtension& other) const override { return this == &other; }
  void beginExtensionRequestWithInputItems_completion(
      const std::optional<qx::Array>&, qx::Completion<qx::UUID, Error> completion) override {
    completion(request, std::nullopt);
  }
  void cancelExtensionRequestWithIdentifier(const std::optional<qx::UUID>&) override {}
  std::shared_ptr<QXExtensionContext> _extensionContextForUUID(
      const std::optional<qx::UUID>&) override {
    return nullptr;
  }

  const qx::UUID request = qx::UUID::random();

 private:
  const std::string identifier_;
};

TEST_F(ProvidersTest, WithoutAContextThereIsNoProxy) {
  const auto hollow = std::make_shared<Hollow>("hollow");
  const auto provider = DSExtensionDocSource::initWithExtension(hollow);
  const auto outcomes = std::make_shared<Mailbox<Outcome>>();
  provider->startProvidingItemAtURL_completionHandler(URL("file:///x"), into<>(outcomes));
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->all().front().error,
            DSPluginOperationFailedError(DSProxyNotFoundError("hollow", std::nullopt)));
  EXPECT_TRUE(waitForLine("[ERROR] Could not get extension context for request identifier " +
                          hollow->request.text()));
  EXPECT_TRUE(waitForLine("[ERROR] Could not get proxy object for a request."));
}

TEST_F(ProvidersTest, AnInstanceKnowsTheDirectoryThatItsBundleNamesOrSaysWhyNot) {
  ProviderBundle("a b").install();
  ProviderBundle("no-group").install(qx::Value());
  ProviderBundle("number").install(17);
  ProviderBundle("foreign").install("group.of.another");
  makeBundle(ProviderBundle("bare").path(), "bare");
  const ProviderBundle text("text");
  makeBundle(text.path(), "text");
  auto info = bundleInfo("text", "program");
  info.emplace("QXExtension", "no dictionary");
  writeList(text.path() + "/Info.plist", info);

  const std::string noDictionary =
      "[ERROR] Cannot read QXExtension dictionary from the Info.plist of ";
  const std::string noDocumentGroup =
      "[ERROR] Cannot read QXExtensionDocSourceDocumentGroup key from the Info.plist of ";
  for (const auto& [identifier, message] : std::vector<std::pair<std::string, std::string>>{
           {"a b", ""},
           {"not-installed", "[ERROR] Cannot instantiate a Catalog Services proxy for "},
           {"bare", noDictionary},
           {"text", noDictionary},
           {"no-group", noDocumentGroup},
           {"number", noDocumentGroup},
           {"foreign", "[ERROR] Cannot deduce the provided items URL for "}}) {
    LogCapture::mailbox().take();
    const auto provider =
        DSExtensionDocSource::initWithExtension(std::make_shared<Hollow>(identifier));
    EXPECT_EQ(provider->_fileReactorID(), identifier);
    const auto url = provider->_providedItemsURL();
    if (message.empty()) {
      EXPECT_EQ(url, URL::fileURL(ProviderBundle(identifier).storage(), true));
      EXPECT_EQ(log.count(""), 0U);
    } else {
      EXPECT_EQ(url, std::nullopt);
      EXPECT_EQ(LogCapture::mailbox().all(), Lines{message + identifier + " (/hollow)"});
    }
  }
}

}  // namespace
