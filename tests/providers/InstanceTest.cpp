#include <gtest/gtest.h>

#include <future>

#include "providers/DSExtensionDocSource.h"
#include "tests/support/FakeExtension.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;
using qx::URL;
using qx::Value;

class InstanceTest : public testing::Test {
 protected:
  void SetUp() override { temporaryRoot(); }

  static std::shared_ptr<DSExtensionDocSource> instance(const std::string& identifier) {
    return DSExtensionDocSource::initWithExtension(std::make_shared<FakeExtension>(identifier));
  }
};

TEST_F(InstanceTest, KnowsTheDirectoryThatItsBundleNames) {
  const ProviderBundle bundle("com.example.a b");
  bundle.install();
  LogCapture log;
  const auto provider = instance("com.example.a b");
  const auto url = URL::fileURL(bundle.storage(), true);
  EXPECT_EQ(provider->providedItemsURL(), url);
  EXPECT_EQ(provider->_providedItemsURL(), url);
  EXPECT_TRUE(url.absoluteString().ends_with("/Doc%20Source%20Storage/"));
  EXPECT_FALSE(std::filesystem::exists(bundle.storage()));
  EXPECT_EQ(provider->_fileReactorID(), "com.example.a b");
  EXPECT_EQ(log.count(""), 0U);
}

TEST_F(InstanceTest, WithoutADirectorySaysWhyOnce) {
  ProviderBundle("no-group").install(Value());
  ProviderBundle("number").install(Value(17));
  ProviderBundle("foreign").install(Value("group.of.another"));
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
           {"not-installed", "[ERROR] Cannot instantiate a Catalog Services proxy for "},
           {"bare", noDictionary},
           {"text", noDictionary},
           {"no-group", noDocumentGroup},
           {"number", noDocumentGroup},
           {"foreign", "[ERROR] Cannot deduce the provided items URL for "}}) {
    LogCapture log;
    const auto provider = instance(identifier);
    ASSERT_TRUE(provider);
    EXPECT_EQ(LogCapture::mailbox().all(),
              std::vector<std::string>{message + identifier + " (/fake.docext)"});
    EXPECT_EQ(provider->providedItemsURL(), std::nullopt);
    EXPECT_EQ(provider->identifier(), identifier);
  }
}

TEST_F(InstanceTest, GuardedPropertiesAreBarriersNobodyWaitsFor) {
  LogCapture log;
  const auto provider = instance("first");
  // A read that does not end holds the writes back, but not those who write.
  std::promise<void> begun, end;
  provider->memberQueue()->async([&] {
    begun.set_value();
    end.get_future().wait();
    // Still what it was: no write ran beside this read.
    EXPECT_EQ(provider->memberQueueIdentifier(), "first");
    EXPECT_FALSE(provider->memberQueueProvidedItemsURL());
  });
  begun.get_future().wait();
  EXPECT_EQ(provider->identifier(), "first");  // reads run side by side
  const URL url("file:///elsewhere/");
  const auto other = std::make_shared<FakeExtension>("other");
  provider->setIdentifier("second");
  provider->setProvidedItemsURL(url);
  provider->setExtension(other);
  EXPECT_EQ(provider->memberQueueIdentifier(), "first");
  end.set_value();
  EXPECT_EQ(provider->providedItemsURL(), url);
  EXPECT_EQ(provider->_fileReactorID(), "second");
  EXPECT_EQ(provider->extension(), other);
  provider->setIdentifier(std::nullopt);
  EXPECT_EQ(provider->identifier(), "other");
  provider->setProvidedItemsURL(std::nullopt);
  EXPECT_EQ(provider->providedItemsURL(), std::nullopt);
}

}  // namespace
