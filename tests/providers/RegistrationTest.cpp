#include <gtest/gtest.h>

#include "platform/queue/Clock.h"
#include "providers/DSExtensionDocSource.h"
#include "tests/support/CoordinationRecorder.h"
#include "tests/support/FakeExtension.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Answer = ScriptedVendor::Answer;
using Outcomes = Mailbox<std::optional<qx::Error>>;

const std::string begins =
    "[DEBUG] -[DSExtensionDocSource registerWithFileCoordinatorRetryCount:completion:]";

class RegistrationTest : public testing::Test {
 protected:
  void SetUp() override {
    temporaryRoot();
    qx::Clock::setCurrent(clock());
    recorder = std::make_unique<CoordinationRecorder>();
    extension = std::make_shared<FakeExtension>("com.example.fake");
    provider = DSExtensionDocSource::initWithExtension(extension);
    provider->setProvidedItemsURL(qx::URL("file:///documents/"));
    LogCapture::mailbox().take();
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
  }
  /// One for the life of the process, as a clock has to be.
  static qx::ManualClock& clock() {
    static auto& clock = *new qx::ManualClock;
    return clock;
  }
  void registerProvider(std::int32_t count) {
    provider->registerWithFileCoordinatorRetryCount_completion(
        count, [outcomes = outcomes](const auto& error) { outcomes->put(error); });
  }
  /// The lines that bear on registering; the requests have lines of their own.
  static std::vector<std::string> lines() {
    std::vector<std::string> lines;
    for (const auto& line : LogCapture::mailbox().all()) {
      if (line.find("Beginning extension request") == std::string::npos &&
          line.find("file-coordination") == std::string::npos) {
        lines.push_back(line);
      }
    }
    return lines;
  }
  static std::string failed() {
    return "[ERROR] Doc source extension com.example.fake failed to initialize. Error: " +
           providerFailure().text() + ".";
  }
  static std::string again(int left) {
    return "[NOTICE] Trying to register doc source extension com.example.fake again. Tries left: " +
           std::to_string(left);
  }
  const std::string registered =
      "[INFO] Registered doc source extension com.example.fake for path file:///documents/";
  const Answer failure{providerFailure(), std::nullopt, std::nullopt};

  LogCapture log;
  std::unique_ptr<CoordinationRecorder> recorder;
  std::shared_ptr<Outcomes> outcomes = std::make_shared<Outcomes>();
  std::shared_ptr<FakeExtension> extension;
  std::shared_ptr<DSExtensionDocSource> provider;
};

TEST_F(RegistrationTest, FailsTwiceAndThenSucceeds) {
  extension->vendor().answerNext({failure, failure});
  registerProvider(3);
  for (std::size_t attempt = 1; attempt <= 2; ++attempt) {
    clock().waitForScheduled(1);
    // Each attempt ends its request before the next one begins.
    ASSERT_TRUE(extension->cancelled.waitForCount(attempt));
    clock().advance(milliseconds(1999));
    EXPECT_EQ(extension->opened.all().size(), attempt);
    clock().advance(milliseconds(1));
    ASSERT_TRUE(extension->vendor().calls.waitForCount(attempt + 1));
  }
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->all().front(), std::nullopt);
  EXPECT_TRUE(extension->cancelled.waitForCount(3));
  EXPECT_TRUE(recorder->events().waitFor("add com.example.fake"));
  EXPECT_EQ(lines(), (std::vector<std::string>{begins, failed(), again(2), begins, failed(),
                                               again(1), begins, registered}));

  provider->unregisterFromFileCoordinator();
  EXPECT_TRUE(recorder->events().waitFor("remove com.example.fake"));
  EXPECT_EQ(recorder->events().all().size(), 2U);
}

TEST_F(RegistrationTest, ThreeFailuresAreTheEnd) {
  extension->vendor().answerNext({failure, failure, failure});
  registerProvider(3);
  for (std::size_t attempt = 1; attempt <= 2; ++attempt) {
    clock().waitForScheduled(1);
    clock().advance(seconds(2));
    ASSERT_TRUE(extension->vendor().calls.waitForCount(attempt + 1));
  }
  ASSERT_TRUE(outcomes->waitForCount(1));
  ASSERT_TRUE(extension->cancelled.waitForCount(3));
  // As the extension put it, and only once.
  EXPECT_EQ(outcomes->all().front(), providerFailure());
  EXPECT_EQ(lines(), (std::vector<std::string>{begins, failed(), again(2), begins, failed(),
                                               again(1), begins, failed()}));
  EXPECT_EQ(clock().scheduledCount(), 0U);
  EXPECT_TRUE(recorder->events().all().empty());
}

TEST_F(RegistrationTest, CountsThatLeaveNoRetry) {
  registerProvider(0);
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->take().front(), DSPluginOperationFailedError());
  provider->registerWithFileCoordinatorRetryCount_completion(0, nullptr);
  EXPECT_TRUE(lines().empty());
  EXPECT_TRUE(extension->opened.all().empty());

  extension->vendor().answerNext({failure, failure});
  registerProvider(-5);
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->take().front(), providerFailure());
  provider->registerWithFileCoordinatorCompletion(
      [outcomes = outcomes](const auto& error) { outcomes->put(error); });
  ASSERT_TRUE(outcomes->waitForCount(1));
  ASSERT_TRUE(extension->cancelled.waitForCount(2));
  EXPECT_EQ(outcomes->take().front(), providerFailure());
  EXPECT_EQ(lines(), (std::vector<std::string>{begins, failed(), begins, failed()}));
  EXPECT_EQ(clock().scheduledCount(), 0U);
}

TEST_F(RegistrationTest, ARequestThatCannotBeOpenedIsAnAttemptToo) {
  const auto refusal =
      qx::extensionError(qx::ExtensionErrorCode::couldNotLaunch, "com.example.fake");
  extension->refuseRequests(refusal);
  registerProvider(2);
  clock().waitForScheduled(1);
  clock().advance(seconds(2));
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_EQ(outcomes->all().front(), refusal);
  const std::string refused = "[ERROR] Extension request failed. Error: " + refusal.text();
  const std::string error =
      "[ERROR] Error registering doc source extension com.example.fake: " + refusal.text() + ".";
  EXPECT_EQ(lines(),
            (std::vector<std::string>{begins, refused, error, again(1), begins, refused, error}));
  // What was never opened is not ended.
  EXPECT_TRUE(extension->cancelled.all().empty());
}

TEST_F(RegistrationTest, AConnectionLostDuringSetUpIsRetriedToo) {
  extension->vendor().answerNext({std::nullopt});
  registerProvider(2);
  ASSERT_TRUE(extension->vendor().calls.waitForCount(1));
  extension->breakConnection();
  clock().waitForScheduled(1);
  EXPECT_TRUE(outcomes->all().empty());
  EXPECT_TRUE(LogCapture::mailbox().waitFor(again(1)));
  EXPECT_EQ(log.count("[ERROR] Error registering doc source extension com.example.fake: "), 1U);
  clock().advance(seconds(2));
  ASSERT_TRUE(outcomes->waitForCount(1));
  EXPECT_TRUE(outcomes->all().front()->is(QXConduitErrorDomain, 4));
}

TEST_F(RegistrationTest, NobodyHasToListen) {
  extension->vendor().answerNext({failure});
  provider->registerWithFileCoordinatorRetryCount_completion(2, nullptr);
  clock().waitForScheduled(1);
  clock().advance(seconds(2));
  EXPECT_TRUE(LogCapture::mailbox().waitFor(registered));
  EXPECT_TRUE(recorder->events().waitFor("add com.example.fake"));
  extension->vendor().answerNext({failure});
  provider->registerWithFileCoordinatorRetryCount_completion(1, nullptr);
  EXPECT_TRUE(extension->cancelled.waitForCount(3));
}

}  // namespace
