#include "tests/providers/FakeExtensionFixture.h"

namespace {

using namespace qx::test;
using Callback = DSExtensionDocSource::Callback;

class RequestsTest : public FakeExtensionFixture {
 protected:
  struct Performed {
    std::optional<qx::Error> error;
    std::shared_ptr<_QXDocSourceVendor> proxy;
    Callback done;
  };

  void SetUp() override {
    FakeExtensionFixture::SetUp();
    ds_default_log().setLowestLevel(qx::LogLevel::standard);
  }
  void perform() {
    provider->performExtensionRequest(
        [this](const auto& error, const auto& proxy, const Callback& done) {
          answers.put({error, proxy, done});
        });
  }

  Mailbox<Performed> answers;
};

TEST_F(RequestsTest, TheRequestIsCancelledWithTheExtensionOfThatMoment) {
  perform();
  ASSERT_TRUE(answers.waitForCount(1));
  const auto replacement = std::make_shared<FakeExtension>("replacement");
  provider->setExtension(replacement);
  answers.all().front().done();
  EXPECT_TRUE(extension->cancelled.all().empty());
  EXPECT_EQ(replacement->cancelled.all().size(), 1U);
}

TEST_F(RequestsTest, WithoutAContextThereIsNoProxy) {
  extension->hideContexts();
  perform();
  ASSERT_EQ(answers.all().size(), 1U);
  const auto answer = answers.all().front();
  EXPECT_EQ(answer.error, DSProxyNotFoundError("com.example.fake", std::nullopt));
  EXPECT_FALSE(answer.proxy);
  EXPECT_TRUE(answer.done);
  const auto request = extension->opened.all().front();
  EXPECT_EQ(LogCapture::mailbox().all(),
            (std::vector<std::string>{
                "[ERROR] Could not get extension context for request identifier " + request.text(),
                "[ERROR] Could not get proxy object for a request."}));
  EXPECT_FALSE(provider->proxyForIdentifier_errorHandler(
      request, [](const qx::Error&) { ADD_FAILURE() << "not to be told"; }));
  EXPECT_FALSE(provider->proxyForIdentifier_errorHandler(std::nullopt, nullptr));
}

TEST_F(RequestsTest, ABrokenConnectionCallsBackOnceMoreForEachCall) {
  extension->vendor().answerNext({std::nullopt, std::nullopt});
  perform();
  ASSERT_TRUE(answers.waitForCount(1));
  const auto proxy = answers.all().front().proxy;
  proxy->_startProvidingItemAtURL_completion(qx::URL("file:///a"), [](const auto&) {
    ADD_FAILURE() << "a call that failed has no reply";
  });
  ASSERT_TRUE(extension->vendor().calls.waitForCount(1));
  extension->breakConnection();
  ASSERT_TRUE(answers.waitForCount(2));
  const auto second = answers.all().back();
  ASSERT_TRUE(second.error);
  EXPECT_TRUE(second.error->is(QXConduitErrorDomain, 4));
  EXPECT_FALSE(second.proxy);
  EXPECT_TRUE(second.done);
  EXPECT_EQ(LogCapture::mailbox().all(),
            std::vector<std::string>{
                "[ERROR] Error getting remote proxy object for provider extension. Error: " +
                second.error->text()});
  proxy->_startProvidingItemAtURL_completion(qx::URL("file:///b"), nullptr);
  EXPECT_TRUE(answers.waitForCount(3));

  // Nobody has to listen to the errors of a proxy.
  const auto deaf = provider->proxyForIdentifier_errorHandler(extension->opened.all().front(), {});
  ASSERT_TRUE(deaf);
  deaf->_startProvidingItemAtURL_completion(qx::URL("file:///c"), nullptr);
  EXPECT_TRUE(LogCapture::mailbox().waitForCount(3));
}

}  // namespace
