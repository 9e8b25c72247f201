#include "tests/servicer/ServicerFixture.h"

namespace {

class ItemRequestsTest : public ServicerFixture {
 protected:
  using Arguments = std::tuple<URL, Text, Text>;
  struct Operation {
    void (DSConduitServicer::*method)(const URL&, const Text&, const Text&,
                                      qx::Completion<qx::Error>);
    std::string failure;
  };

  void SetUp() override {
    ServicerFixture::SetUp();
    startProviders();
  }
  void call(const Operation& operation, const Arguments& arguments,
            const qx::Completion<qx::Error>& completion) const {
    const auto& [url, provider, consumer] = arguments;
    ((*servicer).*operation.method)(url, provider, consumer, completion);
  }
  /// What the client gets; what was logged is there to be taken.
  Error answer(const Operation& operation, const Arguments& arguments) const {
    LogCapture::mailbox().take();
    return std::get<0>(answerOf<qx::Error>(
        [&](const auto& completion) { call(operation, arguments, completion); }));
  }
  static std::string failure(const Operation& operation, const Arguments& arguments,
                             const Error& error) {
    const auto& [url, provider, consumer] = arguments;
    return "[ERROR] " + operation.failure + qx::logText(url) + " from provider ID " +
           qx::logText(provider) + " to consumer ID " + qx::logText(consumer) +
           ". Error: " + text(error);
  }

  const Operation placeholder{
      &DSConduitServicer::
          providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler,
      "Could not provide placeholder for URL "};
  const Operation start{
      &DSConduitServicer::startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler,
      "Cannot provide item at URL "};
  const Operation stop{
      &DSConduitServicer::stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler,
      "Could not stop providing item at URL "};
};

TEST_F(ItemRequestsTest, ForOneOfTwoEntitlements) {
  grant("A", "x", "C");
  for (const Operation& operation : {placeholder, start, stop}) {
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
    qx::Error error;
  };
  for (const auto& [arguments, error] :
       {Case{{std::nullopt, std::nullopt, std::nullopt},
             DSInvalidParameterError("URL", std::nullopt)},
        Case{{url, std::nullopt, std::nullopt},
             DSInvalidParameterError("providerID", std::nullopt)},
        Case{{url, "A", std::nullopt}, DSInvalidParameterError("consumerID", std::nullopt)},
        Case{{URL(qx::URL("file:///tmp/x")), "none", "C"}, DSNotFoundError("none")}}) {
    for (const Operation& operation : {placeholder, start, stop}) {
      const bool isPlaceholder = operation.method == placeholder.method;
      EXPECT_EQ(answer(operation, arguments),
                isPlaceholder ? error : DSNotFoundError(std::get<1>(arguments)));
      const auto line = failure(operation, arguments, error);
      EXPECT_TRUE(logged(line)) << line;
      LogCapture::mailbox().take();
      call(operation, arguments, nullptr);
      EXPECT_TRUE(logged(line)) << line;
    }
  }
}

TEST_F(ItemRequestsTest, TheProviderOfAnotherURL) {
  const Arguments arguments{b->url("x"), "A", "C"};
  grant("A", "x", "C");
  // Placeholder asks whom it was told to.
  EXPECT_EQ(answer(placeholder, arguments), std::nullopt);
  EXPECT_EQ(answer(start, arguments), DSNotFoundError("A"));
  EXPECT_TRUE(logged(failure(start, arguments, DSInvalidParameterError("providerID", "A"))));
  EXPECT_EQ(answer(stop, arguments), DSNotFoundError("A"));
  EXPECT_TRUE(
      logged(failure(stop, arguments, DSInvalidParameterError("providerID", std::nullopt))));
}

TEST_F(ItemRequestsTest, OnlyWhatWasGrantedIsProvided) {
  const auto refused = [](const std::string& item) {
    return "[ERROR] Consumer ID C is not allowed to access item ID “" + item +
           "” from provider ID A.";
  };
  grant("A", "x", "D");
  grant("A", "(null)", "C");
  for (const Operation& operation : {placeholder, start}) {
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "C"}), DSNotPermittedError());
    EXPECT_TRUE(logged(refused("x")));
    // No identifier, no grant.
    EXPECT_EQ(answer(operation, {a->url("nameless"), "A", "C"}), DSNotPermittedError());
    EXPECT_TRUE(logged(refused("(null)")));
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "D"}), std::nullopt);
  }
  EXPECT_EQ(answer(stop, {a->url("x"), "A", "C"}), std::nullopt);

  // The store is reached through the server; without it nothing is granted.
  server.reset();
  for (const Operation& operation : {placeholder, start}) {
    EXPECT_EQ(answer(operation, {a->url("x"), "A", "D"}), DSNotPermittedError());
  }
  EXPECT_EQ(answer(stop, {a->url("x"), "A", "D"}), std::nullopt);
}

TEST_F(ItemRequestsTest, FailuresOfTheProviderAreWrappedOnceMore) {
  const qx::Error no("ProviderDomain", 7, "no");
  const auto twice = DSPluginOperationFailedError(DSPluginOperationFailedError(no));
  for (const Operation& operation : {placeholder, start, stop}) {
    EXPECT_EQ(answer(operation, {a->url("fail"), "A", "C"}), twice);
  }
  EXPECT_TRUE(logged("[ERROR] Could not ask provider ID A to stop providing item at URL " +
                     a->url("fail").absoluteString() +
                     ". Error: " + text(DSPluginOperationFailedError(no))));
}

}  // namespace
