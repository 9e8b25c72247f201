// Who may ask, the listing, and the requests that a provider act on an item.

#include "tests/servicer/Fixture.h"

namespace qx::test {
namespace {

/// The requests on an item, and how the log begins what it says of an early error.
const std::pair<const char*, std::string> requests[] = {
    {providePlaceholder, "[ERROR] Could not provide placeholder for URL "},
    {startProviding, "[ERROR] Cannot provide item at URL "},
    {stopProviding, "[ERROR] Could not stop providing item at URL "}};

class Requests : public ServicerTest {
 protected:
  void logsEarlyError(const std::string& begin, const Array& arguments, const Error& error) const {
    logs(begin + text(arguments[0]) + " from provider ID " + text(arguments[1]) +
         " to consumer ID " + text(arguments[2]) + ". Error: " + error.text());
  }
};

TEST_F(Requests, AreForThoseWithATrueNumberAmongTheirEntitlements) {
  const Array item{a.url("x"), "A", "C"};
  ASSERT_EQ(outcome(extendSandbox, item), "success");
  struct Case {
    Dictionary held;
    bool reads, writes;
  };
  const std::string lacking = "DSErrorDomain 6";
  for (const auto& [held, reads, writes] :
       {Case{{{readEntitlement, true}}, true, false},
        Case{{{readEntitlement, false}, {writeEntitlement, true}}, true, true},
        Case{{{writeEntitlement, 1}}, true, true}, Case{{{writeEntitlement, -0.5}}, true, true},
        Case{{{writeEntitlement, 0}}, false, false}, Case{{{writeEntitlement, 0.0}}, false, false},
        Case{{{writeEntitlement, false}}, false, false},
        Case{{{writeEntitlement, "true"}}, false, false},
        Case{{{writeEntitlement, Array{true}}}, false, false},
        Case{{{"other", true}}, false, false}, Case{{}, false, false}}) {
    SCOPED_TRACE(describe(held));
    entitle(held);
    EXPECT_EQ(outcome(listProviders, {}), reads ? "success" : lacking);
    EXPECT_EQ(outcome(extendSandbox, item), writes ? "success" : lacking);
    for (const auto& [operation, begin] : requests) {
      EXPECT_EQ(outcome(operation, item), reads ? "success" : lacking);
    }
  }
  EXPECT_EQ(call(startProviding, item).error(), DSClientLacksEntitlement(std::nullopt));
  const std::string rejecting = "[ERROR] Rejecting request from PID " + std::to_string(getpid()) +
                                " because it does not have any of these entitlements: ";
  logs(rejecting + "(com.veltro.docsource.acl-write)");
  logs(rejecting + "(com.veltro.docsource.acl-read, com.veltro.docsource.acl-write)");
  logs("[DEBUG] providersCompletionHandler:: Client is missing entitlement");
}

TEST_F(Requests, TellEarlyErrorsToTheLogAndHideThemFromStartAndStop) {
  struct Case {
    Array arguments;
    Error error;
  };
  for (const auto& [arguments, error] :
       {Case{{absent, absent, absent}, DSInvalidParameterError("URL", std::nullopt)},
        Case{{a.url("x"), absent, absent}, DSInvalidParameterError("providerID", std::nullopt)},
        Case{{a.url("x"), "A", absent}, DSInvalidParameterError("consumerID", std::nullopt)},
        Case{{URL("file:///tmp/x"), "none", "C"}, DSNotFoundError("none")}}) {
    const auto* provider = arguments[1].as<std::string>();
    const auto notFound = DSNotFoundError(provider ? std::optional(*provider) : std::nullopt);
    for (const auto& [operation, begin] : requests) {
      EXPECT_EQ(call(operation, arguments).error(),
                operation == providePlaceholder ? error : notFound);
      logsEarlyError(begin, arguments, error);
    }
  }

  // The URL is another provider's. Placeholder asks whom it was told to.
  const Array foreign{b.url("x"), "A", "C"};
  ASSERT_EQ(outcome(extendSandbox, foreign), "success");
  EXPECT_EQ(outcome(providePlaceholder, foreign), "success");
  EXPECT_EQ(call(startProviding, foreign).error(), DSNotFoundError("A"));
  logsEarlyError(requests[1].second, foreign, DSInvalidParameterError("providerID", "A"));
  EXPECT_EQ(call(stopProviding, foreign).error(), DSNotFoundError("A"));
  logsEarlyError(requests[2].second, foreign, DSInvalidParameterError("providerID", std::nullopt));
}

TEST_F(Requests, ReachTheProviderForWhatWasGranted) {
  ASSERT_EQ(outcome(extendSandbox, {a.url("x"), "A", "D"}), "success");
  ASSERT_EQ(outcome(extendSandbox, {a.url("(null)"), "A", "C"}), "success");
  for (const char* operation : {providePlaceholder, startProviding}) {
    // No identifier, no grant.
    for (const auto& [name, item] : {std::pair("x", "x"), {"nameless", "(null)"}}) {
      EXPECT_EQ(outcome(operation, {a.url(name), "A", "C"}), "DSErrorDomain 3");
      logs("[ERROR] Consumer ID C is not allowed to access item ID “" + std::string(item) +
           "” from provider ID A.");
    }
    EXPECT_EQ(outcome(operation, {a.url("x"), "A", "D"}), "success");
  }
  EXPECT_EQ(outcome(stopProviding, {a.url("x"), "A", "C"}), "success");

  // A failure of the provider is wrapped once more.
  for (const auto& [operation, begin] : requests) {
    EXPECT_EQ(outcome(operation, {a.url("fail"), "A", "C"}), failure);
  }
  const auto once = DSPluginOperationFailedError(Error("ProviderDomain", 7, "no"));
  logs("[ERROR] Could not ask provider ID A to stop providing item at URL " + text(a.url("fail")) +
       ". Error: " + once->text());
}

TEST_F(Requests, WaitForAListThatHangsAloneAndHoldNobodyElseUp) {
  ASSERT_EQ(outcome(extendSandbox, {a.url("x"), "A", "C"}), "success");
  // The next reading of the list waits for somebody to write it.
  const auto list = accessControlFileOf(root);
  std::filesystem::remove(list);
  ASSERT_EQ(mkfifo(list.c_str(), 0600), 0);
  std::ofstream(root + "/run/notify/com.veltro.mobile.lockwardd.first_unlock").flush();
  FileDescriptor writer;
  ASSERT_TRUE(eventually([&] {
    writer.reset(open(list.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    return static_cast<bool>(writer);
  }));
  Wire waiting = connectTo(docSourceService), other = connectTo(docSourceService);
  const auto call = waiting.begin(startProviding, {a.url("x"), "A", "C"});
  for (const auto& url : {a.url("x"), b.url("x")}) {
    EXPECT_EQ(other.call(bookmarkableString, {url}).outcome(), "success");
  }
  EXPECT_EQ(other.call(listProviders, {}).outcome(), "success");
  EXPECT_FALSE(waiting.hasInput());
  writer.reset();
  EXPECT_EQ(waiting.answer(call).outcome(), "DSErrorDomain 3");
}

}  // namespace
}  // namespace qx::test
