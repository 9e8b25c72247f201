#include "tests/servicer/ServicerFixture.h"

namespace {

class ItemRequestsTest : public ServicerFixture {
 protected:
  enum Operation { placeholder, start, stop };
  using Arguments = std::tuple<URL, Text, Text>;

  void SetUp() override {
    ServicerFixture::SetUp();
    startProviders();
  }

  void call(Operation operation, const Arguments& arguments,
            const qx::Completion<qx::Error>& completion) const {
    const auto& [url, provider, consumer] = arguments;
    switch (operation) {
      case placeholder:
        return servicer
            ->providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler(
                url, provider, consumer, completion);
      case start:
        return servicer->startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
            url, provider, consumer, completion);
      case stop:
        return servicer->stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
            url, provider, consumer, completion);
    }
  }
  /// What the client gets; what was logged is there to be taken.
  Error answer(Operation operation, const Arguments& arguments) const {
    LogCapture::mailbox().take();
    return std::get<0>(answerOf<qx::Error>(
        [&](const auto& completion) { call(operation, arguments, completion); }));
  }
  static std::string failure(Operation operation, const Arguments& arguments, const Error& error) {
    const auto& [url, provider, consumer] = arguments;
    const std::string who = " from provider ID " + qx::logText(provider) + " to consumer ID " +
                            qx::logText(consumer) + ". Error: " + text(error);
    switch (operation) {
      case placeholder:
        return "[ERROR] Could not provide placeholder for URL " + qx::logText(url) + who;
      case start:
        return "[ERROR] Cannot provide item at URL " + qx::logText(url) + who;
      case stop:
        return "[ERROR] Could not stop providing item at URL " + qx::logText(url) + who;
    }
    return {};
  }
  static constexpr std::array all{placeholder, start, stop};
};

TEST_F(ItemRequestsTest, ForOneOfTwoEntitlements) {
  grant("A", "x", "C");
  for (const Operation operation : all) {
    entitle({{"com.veltro.docsource.acl-write", true}});
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "C"}), std::nullopt);
    entitle({{"com.veltro.docsource.acl-read", true}});
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "C"}), std::nullopt);
    entitle({{"com.veltro.docsource.acl-read", false}});
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "C"}), DSClientLacksEntitlement(std::nullopt));
    EXPECT_EQ(log.count("[ERROR]"), 1U);
    call(operation, {a->url("x"), "A", "C"}, nullptr);
  }
}

TEST_F(ItemRequestsTest, EarlyErrorsAreToldToTheLogAndHiddenByStartAndStop) {
  const URL url = a->url("x");
  struct Case {
    Arguments arguments;
    qx::Error logged;
  };
  for (const auto& [arguments, logged] :
       {Case{{std::nullopt, std::nullopt, std::nullopt},
             DSInvalidParameterError("URL", std::nullopt)},
        Case{{url, std::nullopt, std::nullopt},
             DSInvalidParameterError("providerID", std::nullopt)},
        Case{{url, "A", std::nullopt}, DSInvalidParameterError("consumerID", std::nullopt)},
        Case{{URL(qx::URL("file:///tmp/x")), "none", "C"}, DSNotFoundError("none")}}) {
    for (const Operation operation : all) {
      const auto early =
          operation == placeholder ? logged : DSNotFoundError(std::get<1>(arguments));
      EXPECT_EQ(answer(operation, arguments), early);
      EXPECT_EQ(count(LogCapture::mailbox().all(), failure(operation, arguments, logged)), 1U)
          << failure(operation, arguments, logged);
      LogCapture::mailbox().take();
      call(operation, arguments, nullptr);
      EXPECT_EQ(count(LogCapture::mailbox().all(), failure(operation, arguments, logged)), 1U);
    }
  }
}

TEST_F(ItemRequestsTest, TheProviderOfAnotherURL) {
  const Arguments arguments{b->url("x"), "A", "C"};
  grant("A", "x", "C");
  // Placeholder asks whom it was told to.
  EXPECT_EQ(answer(placeholder, arguments), std::nullopt);
  EXPECT_EQ(answer(start, arguments), DSNotFoundError("A"));
  EXPECT_EQ(count(LogCapture::mailbox().all(),
                  failure(start, arguments, DSInvalidParameterError("providerID", "A"))),
            1U);
  EXPECT_EQ(answer(stop, arguments), DSNotFoundError("A"));
  EXPECT_EQ(count(LogCapture::mailbox().all(),
                  failure(stop, arguments, DSInvalidParameterError("providerID", std::nullopt))),
            1U);
}

TEST_F(ItemRequestsTest, OnlyWhatWasGrantedIsProvided) {
  const auto refused = [](const std::string& item) {
    return "[ERROR] Consumer ID C is not allowed to access item ID “" + item +
           "” from provider ID A.";
  };
  grant("A", "x", "D");
  grant("A", "(null)", "C");
  for (const Operation operation : {placeholder, start}) {
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "C"}), DSNotPermittedError());
    EXPECT_EQ(count(LogCapture::mailbox().all(), refused("x")), 1U);
    // No identifier, no grant.
    EXPECT_EQ(answer(operation, {a->url("nameless"), "A", "C"}), DSNotPermittedError());
    EXPECT_EQ(count(LogCapture::mailbox().all(), refused("(null)")), 1U);
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "D"}), std::nullopt);
  }
  EXPECT_EQ(answer(stop, {a->url("x"), "A", "C"}), std::nullopt);

  // The store is reached through the server; without it nothing is granted.
  server.reset();
  for (const Operation operation : {placeholder, start}) {
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "D"}), DSNotPermittedError());
  }
  EXPECT_EQ(answer(stop, {a->url("x"), "A", "D"}), std::nullopt);
}

TEST_F(ItemRequestsTest, FailuresOfTheProviderAreWrappedOnceMore) {
  const qx::Error no("ProviderDomain", 7, "no");
  const auto twice = DSPluginOperationFailedError(DSPluginOperationFailedError(no));
  for (const Operation operation : all) {
    EXPECT_EQ(answer(operation, {a->url("fail"), "A", "C"}), twice);
  }
  EXPECT_EQ(count(LogCapture::mailbox().all(),
                  "[ERROR] Could not ask provider ID A to stop providing item at URL " +
                      a->url("fail").absoluteString() +
                      ". Error: " + text(DSPluginOperationFailedError(no))),
            1U);
}

}  // namespace
