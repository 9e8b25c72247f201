#include <gtest/gtest.h>

#include "providers/DSExtensionDocSource.h"
#include "tests/support/FakeExtension.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;
using Callback = DSExtensionDocSource::Callback;

class RequestsTest : public testing::Test {
 protected:
  struct Answer {
    std::optional<qx::Error> error;
    std::shared_ptr<_QXDocSourceVendor> proxy;
    Callback done;
  };

  void SetUp() override {
    temporaryRoot();
    extension = std::make_shared<FakeExtension>("com.example.fake");
    provider = DSExtensionDocSource::initWithExtension(extension);
    LogCapture::mailbox().take();
  }
  void perform() {
    provider->performExtensionRequest(
        [this](const auto& error, const auto& proxy, const Callback& done) {
          answers.put({error, proxy, done});
        });
  }

  LogCapture log;
  Mailbox<Answer> answers;
  std::shared_ptr<FakeExtension> extension;
  std::shared_ptr<DSExtensionDocSource> provider;
};

TEST_F(RequestsTest, GivesAProxyThatSpeaksUntilItIsDone) {
  perform();
  ASSERT_TRUE(answers.waitForCount(1));
  const auto answer = answers.all().front();
  ASSERT_TRUE(answer.proxy && !answer.error && answer.done);
  Mailbox<std::string> replies;
  answer.proxy->_identifierForItemAtURL_completion(
      qx::URL("file:///a"), [&](const auto& error, const auto& item) {
        replies.put(error ? error->text() : item.value_or("(null)"));
      });
  EXPECT_TRUE(replies.waitFor("the item"));
  EXPECT_TRUE(extension->vendor().calls.waitFor("identifier file:///a"));
  EXPECT_TRUE(extension->cancelled.all().empty());
  answer.done();
  EXPECT_EQ(extension->cancelled.all(),
            std::vector<std::optional<qx::UUID>>{extension->opened.all().front()});
}

TEST_F(RequestsTest, TheRequestIsCancelledWithTheExtensionOfThatMoment) {
  perform();
  ASSERT_TRUE(answers.waitForCount(1));
  const auto replacement = std::make_shared<FakeExtension>("replacement");
  provider->setExtension(replacement);
  answers.all().front().done();
  EXPECT_TRUE(extension->cancelled.all().empty());
  EXPECT_EQ(replacement->cancelled.all().size(), 1U);
}

TEST_F(RequestsTest, ARefusalStillHasItsDoneCallback) {
  for (const auto& request : {std::optional<qx::UUID>(), std::optional(qx::UUID::random())}) {
    answers.take();
    extension->cancelled.take();
    LogCapture::mailbox().take();
    const auto refusal =
        qx::extensionError(qx::ExtensionErrorCode::couldNotLaunch, "com.example.fake");
    extension->refuseRequests(refusal, request);
    perform();
    ASSERT_EQ(answers.all().size(), 1U);
    EXPECT_EQ(answers.all().front().error, refusal);
    EXPECT_FALSE(answers.all().front().proxy);
    EXPECT_EQ(
        LogCapture::mailbox().all(),
        std::vector<std::string>{"[ERROR] Extension request failed. Error: " + refusal.text()});
    EXPECT_TRUE(extension->cancelled.all().empty());
    answers.all().front().done();
    EXPECT_EQ(extension->cancelled.all(), std::vector{request});
  }
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

TEST_F(RequestsTest, TheInterfacesAreMadeOnce) {
  using Context = _QXDocSourceExtensionHostContext;
  EXPECT_EQ(Context::_extensionAuxiliaryVendorProtocol().get(),
            Context::_extensionAuxiliaryVendorProtocol().get());
  EXPECT_EQ(Context::_extensionAuxiliaryHostProtocol().get(),
            Context::_extensionAuxiliaryHostProtocol().get());
  for (const char* message :
       {"_performInitialSetupWithCompletion:", "_providePlaceholderAtURL:completion:",
        "_startProvidingItemAtURL:completion:", "_itemChangedAtURL:completion:",
        "_stopProvidingItemAtURL:completion:", "_identifierForItemAtURL:completion:",
        "_URLForItemIdentifier:completion:"}) {
    EXPECT_TRUE(Context::_extensionAuxiliaryVendorProtocol()->find(message)) << message;
    EXPECT_FALSE(Context::_extensionAuxiliaryHostProtocol()->find(message)) << message;
  }
}

}  // namespace
