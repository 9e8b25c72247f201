#include "platform/queue/Clock.h"
#include "tests/providers/FakeExtensionFixture.h"
#include "tests/support/CoordinationRecorder.h"

namespace {

using namespace qx::test;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Error = std::optional<qx::Error>;
using Outcomes = Mailbox<Error>;

const std::string begins =
    "[DEBUG] -[DSExtensionDocSource registerWithFileCoordinatorRetryCount:completion:]";

class RegistrationTest : public FakeExtensionFixture {
 protected:
  void SetUp() override {
    FakeExtensionFixture::SetUp();
    qx::Clock::setCurrent(clock());
    recorder = std::make_unique<CoordinationRecorder>();
    provider->setProvidedItemsURL(qx::URL("file:///documents/"));
    LogCapture::mailbox().take();
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

  std::unique_ptr<CoordinationRecorder> recorder;
  std::shared_ptr<Outcomes> outcomes = std::make_shared<Outcomes>();
};

/// The last of three attempts succeeds or fails.
TEST_F(RegistrationTest, IsTriedThreeTimesTwoSecondsApart) {
  for (const bool succeeds : {true, false}) {
    SCOPED_TRACE(succeeds);
    outcomes->take();
    extension->opened.take();
    extension->cancelled.take();
    extension->vendor().calls.take();
    LogCapture::mailbox().take();
    extension->vendor().answerNext({failure, failure});
    if (!succeeds) extension->vendor().answerNext({failure, failure, failure});
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
    EXPECT_TRUE(extension->cancelled.waitForCount(3));
    // An error is as the extension put it.
    EXPECT_EQ(outcomes->all(), std::vector{succeeds ? std::nullopt : Error(providerFailure())});
    EXPECT_EQ(lines(),
              (std::vector<std::string>{begins, failed(), again(2), begins, failed(), again(1),
                                        begins, succeeds ? registered : failed()}));
    EXPECT_EQ(clock().scheduledCount(), 0U);
    if (succeeds) {
      EXPECT_TRUE(recorder->events().waitFor("add com.example.fake"));
      provider->unregisterFromFileCoordinator();
      EXPECT_TRUE(recorder->events().waitFor("remove com.example.fake"));
    }
    EXPECT_EQ(recorder->events().all().size(), 2U);
  }
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

  // Nobody has to listen.
  provider->registerWithFileCoordinatorRetryCount_completion(1, nullptr);
  EXPECT_TRUE(LogCapture::mailbox().waitFor(registered));
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

}  // namespace
