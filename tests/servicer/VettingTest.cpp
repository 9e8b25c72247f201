#include "tests/servicer/ServicerFixture.h"

namespace {

using namespace qx::test;

class VettingTest : public ServicerFixture {
 protected:
  static constexpr auto read = "com.veltro.docsource.acl-read";
  static constexpr auto write = "com.veltro.docsource.acl-write";
  bool isReader() const { return servicer->clientHasOneOfAllowedEntitlements({read, write}); }
  bool isWriter() const { return servicer->clientHasOneOfAllowedEntitlements({write}); }
};

TEST_F(VettingTest, OneTrueNumberAmongTheEntitlementsSuffices) {
  struct Case {
    qx::Dictionary held;
    bool reads, writes;
  };
  for (const auto& [held, reads, writes] :
       {Case{{{read, true}}, true, false}, Case{{{write, true}}, true, true},
        Case{{{read, false}, {write, true}}, true, true}, Case{{{write, 1}}, true, true},
        Case{{{write, -0.5}}, true, true}, Case{{{write, 0}}, false, false},
        Case{{{write, 0.0}}, false, false}, Case{{{write, false}}, false, false},
        Case{{{write, "true"}}, false, false}, Case{{{write, qx::Array{true}}}, false, false},
        Case{{{"other", true}}, false, false}, Case{{}, false, false}}) {
    entitle(held);
    EXPECT_EQ(isReader(), reads) << qx::describe(held);
    EXPECT_EQ(isWriter(), writes) << qx::describe(held);
  }
}

TEST_F(VettingTest, ARefusalNamesTheWholeList) {
  const auto refusal = [](pid_t process, const std::string& names) {
    return "[ERROR] Rejecting request from PID " + std::to_string(process) +
           " because it does not have any of these entitlements: " + names;
  };
  entitle({});
  LogCapture::mailbox().take();
  EXPECT_FALSE(isReader());
  EXPECT_FALSE(servicer->clientHasOneOfAllowedEntitlements({}));
  const std::string both = "(com.veltro.docsource.acl-read, com.veltro.docsource.acl-write)";
  EXPECT_EQ(LogCapture::mailbox().take(),
            (Lines{refusal(getpid(), both), refusal(getpid(), "()")}));

  entitle({{write, true}});
  EXPECT_TRUE(isReader());
  connection.reset();
  LogCapture::mailbox().take();
  EXPECT_FALSE(isReader());
  EXPECT_EQ(LogCapture::mailbox().take(), Lines{refusal(0, both)});
}

TEST_F(VettingTest, TheSandboxDecidesAboutWriting) {
  const auto path = temporaryRoot() + "/a file";
  std::ofstream(path) << "x";
  EXPECT_TRUE(servicer->clientHasSandboxAccessToFile(qx::URL::fileURL(path)));
  LogCapture::mailbox().take();
  for (const auto& url :
       {URL(), URL(qx::URL::fileURL(path + "/none")), URL(qx::URL("https://example.com/x")),
        URL(qx::URL("file:///proc/version"))}) {
    EXPECT_FALSE(servicer->clientHasSandboxAccessToFile(url)) << qx::logText(url);
  }
  EXPECT_EQ(log.count(""), 0U);
  connection.reset();
  EXPECT_FALSE(servicer->clientHasSandboxAccessToFile(qx::URL::fileURL(path)));
}

TEST_F(VettingTest, WakingUpNeedsNothing) {
  beNobody();
  LogCapture::mailbox().take();
  answerOf<>([&](auto completion) { servicer->wakeUpCompletion(completion); });
  EXPECT_EQ(LogCapture::mailbox().all(), Lines{"[DEBUG] Serving: wakeUpCompletion:"});
}

TEST_F(VettingTest, TheListingIsForReaders) {
  const auto list = [&] {
    LogCapture::mailbox().take();
    return answerOf<qx::Error, qx::Dictionary>(
        [&](auto completion) { servicer->providersCompletionHandler(completion); });
  };
  using Answer = std::tuple<Error, std::optional<qx::Dictionary>>;
  const std::string serving = "[DEBUG] Serving: providersCompletionHandler:";
  EXPECT_EQ(list(), Answer(std::nullopt, qx::Dictionary()));
  EXPECT_EQ(LogCapture::mailbox().all(),
            (Lines{serving, "[DEBUG] providersCompletionHandler:: returning providers {}"}));
  startProviders();
  EXPECT_EQ(list(), Answer(std::nullopt, DSExtensionDocSource::providersInfo()));
  EXPECT_EQ(DSExtensionDocSource::providersInfo().size(), 2U);

  entitle({});
  EXPECT_EQ(list(), Answer(DSClientLacksEntitlement(std::nullopt), std::nullopt));
  const auto lines = LogCapture::mailbox().all();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], serving);
  EXPECT_TRUE(lines[1].starts_with("[ERROR] Rejecting request from PID "));
  EXPECT_EQ(lines[2], "[DEBUG] providersCompletionHandler:: Client is missing entitlement");
  servicer->providersCompletionHandler(nullptr);
}

}  // namespace
