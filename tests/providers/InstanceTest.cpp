// What an instance says where its extension is not what it must be.

#include "tests/providers/Fixture.h"

namespace {

using namespace qx::test;
using qx::Error;
using qx::URL;

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
  const auto outcomes = std::make_shared<Mailbox<std::optional<Error>>>();
  provider->startProvidingItemAtURL_completionHandler(
      URL("file:///x"), [outcomes](const auto& error) { outcomes->put(error); });
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->all().front(),
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
      // What is set anew is seen by the next look; without an identifier it has its extension's.
      provider->setProvidedItemsURL(URL("file:///moved/"));
      EXPECT_EQ(provider->_providedItemsURL(), URL("file:///moved/"));
      provider->setIdentifier("other");
      EXPECT_EQ(provider->_fileReactorID(), "other");
      provider->setIdentifier(std::nullopt);
      EXPECT_EQ(provider->_fileReactorID(), identifier);
      provider->setExtension(std::make_shared<Hollow>("successor"));
      EXPECT_EQ(provider->_fileReactorID(), "successor");
    } else {
      EXPECT_EQ(url, std::nullopt);
      EXPECT_EQ(LogCapture::mailbox().all(), Lines{message + identifier + " (/hollow)"});
    }
  }
}

}  // namespace
