#include "tests/servicer/ServicerFixture.h"

namespace {

class BookmarksTest : public ServicerFixture {
 protected:
  using Bytes = std::optional<qx::Bytes>;
  using URLAnswer = std::tuple<URL, Bytes, URL, Bytes, Error>;
  using TextAnswer = std::tuple<Text, Error>;

  void SetUp() override {
    ServicerFixture::SetUp();
    startProviders();
    for (const char* name : {"x", "fail", "nameless"}) std::ofstream(*a->url(name).path()) << "x";
  }
  TextAnswer extend(const URL& url, const Text& consumer) {
    LogCapture::mailbox().take();
    return answerOf<std::string, qx::Error>([&](const auto& completion) {
      servicer->extendBookmarkForFileURL_toConsumerID_completionHandler(url, consumer, completion);
    });
  }
  TextAnswer stringFrom(const URL& url) {
    LogCapture::mailbox().take();
    return answerOf<std::string, qx::Error>([&](const auto& completion) {
      servicer->bookmarkableStringFromDocumentURL_completion(url, completion);
    });
  }
  URLAnswer urlFrom(const Text& string) {
    LogCapture::mailbox().take();
    return answerOf<qx::URL, qx::Bytes, qx::URL, qx::Bytes, qx::Error>([&](const auto& completion) {
      servicer->documentURLFromBookmarkableString_completion(string, completion);
    });
  }
  static URLAnswer only(const qx::Error& error) { return {{}, {}, {}, {}, error}; }
  const qx::Error no{"ProviderDomain", 7, "no"};
};

TEST_F(BookmarksTest, ExtendingGrantsToTheConsumerOnly) {
  const auto url = a->url("x");
  EXPECT_EQ(extend(url, "C"), TextAnswer("docsource:A/x", std::nullopt));
  EXPECT_TRUE(logged("[DEBUG] Extending bookmark privileges for URL: “" + url.absoluteString() +
                     "” from bundle com.example.self to C."));
  EXPECT_TRUE(
      logged("[DEBUG] Successfully generated bookmarkable string “docsource:A/x” from URL " +
             url.absoluteString() + "."));
  EXPECT_TRUE(isGranted("A", "x", "C"));
  EXPECT_FALSE(isGranted("A", "x", "com.example.self"));
  EXPECT_EQ(urlFrom("docsource:A/x"), only(DSNotPermittedError()));

  EXPECT_EQ(
      extend(a->url("fail"), "C"),
      TextAnswer(std::nullopt, DSPluginOperationFailedError(DSPluginOperationFailedError(no))));
  server.reset();
  EXPECT_EQ(extend(url, "D"), TextAnswer("docsource:A/x", std::nullopt));
  EXPECT_FALSE(isGranted("A", "x", "D"));
}

TEST_F(BookmarksTest, ExtendingNeedsIdentitySandboxAndProvider) {
  const auto refused = [](const URL& url, const std::string& bundle, const Text& consumer,
                          const qx::Error& error) {
    return "[ERROR] Could not extend bookmark privileges for URL " + qx::logText(url) +
           " from bundle " + bundle + " to consumer ID " + qx::logText(consumer) +
           ", error: " + error.text();
  };
  const std::string self = "com.example.self";
  const auto outside = qx::URL::fileURL(qx::test::temporaryRoot() + "/outside");
  std::ofstream(*outside.path()) << "x";
  struct Case {
    URL url;
    Text consumer;
    qx::Error error;
  };
  for (const auto& [url, consumer, error] :
       {Case{a->url("x"), {}, DSNotPermittedError()}, Case{{}, "C", DSNotPermittedError()},
        Case{a->url("none"), "C", DSNotPermittedError()},
        Case{outside, "C", DSNotFoundErrorURL(outside)}}) {
    EXPECT_EQ(extend(url, consumer), TextAnswer(std::nullopt, error));
    EXPECT_TRUE(logged(refused(url, self, consumer, error))) << refused(url, self, consumer, error);
    servicer->extendBookmarkForFileURL_toConsumerID_completionHandler(url, consumer, nullptr);
  }
  qx::test::beNobody();
  EXPECT_EQ(extend(a->url("x"), "C"), TextAnswer(std::nullopt, DSNotPermittedError()));
  EXPECT_TRUE(logged(refused(a->url("x"), "(null)", "C", DSNotPermittedError())));
  EXPECT_FALSE(isGranted("A", "x", "C"));
}

TEST_F(BookmarksTest, TheStringOfADocumentIsForEverybody) {
  qx::test::beNobody();
  EXPECT_EQ(stringFrom(a->url("x")), TextAnswer("docsource:A/x", std::nullopt));
  EXPECT_TRUE(
      logged("[DEBUG] Getting bookmarkable string for URL " + a->url("x").absoluteString()));
  EXPECT_EQ(stringFrom(a->url("fail")), TextAnswer(std::nullopt, DSPluginOperationFailedError(no)));
  EXPECT_EQ(stringFrom(a->url("nameless")), TextAnswer(std::nullopt, std::nullopt));
  EXPECT_TRUE(
      logged("[ERROR] Could not get Item ID for URL " + a->url("nameless").absoluteString() + "."));
  for (const auto& url :
       {URL(), URL(qx::URL("file:///tmp")), URL(qx::URL::fileURL(a->storage(), true))}) {
    EXPECT_EQ(stringFrom(url), TextAnswer(std::nullopt, std::nullopt));
    EXPECT_TRUE(logged("[INFO] Could not find the provider for URL " + qx::logText(url)));
    servicer->bookmarkableStringFromDocumentURL_completion(url, nullptr);
  }
  EXPECT_FALSE(
      std::filesystem::exists(qx::Places::home() + "/Library/DocSource/AccessControl.plist"));
}

TEST_F(BookmarksTest, StringsThatAreNone) {
  for (const Text& string :
       {Text(), Text(""), Text("docsource:"), Text("docsource:A"), Text("docsource:A/"),
        Text("docsource:/x"), Text("docsource:/"), Text("docsource:A//x"), Text("docsource://x"),
        Text(" docsource:A/x"), Text("Docsource:A/x"), Text("DOCSOURCE:A/x"), Text("docsource"),
        Text("A/x"), Text("docsource;A/x")}) {
    EXPECT_EQ(urlFrom(string), only(DSInvalidBookmarkableStringError())) << qx::logText(string);
    EXPECT_TRUE(
        logged("[DEBUG] Getting URL from bookmarkable string: “" + qx::logText(string) + "”."));
    EXPECT_EQ(log.count("[ERROR]"), 0U);
    servicer->documentURLFromBookmarkableString_completion(string, nullptr);
  }
}

TEST_F(BookmarksTest, AStringComesBackAsItsDocument) {
  const std::string self = "com.example.self";
  for (const char* item : {"x", "ab/cd", "a//b", "a/", "docsource:A/x", "nameless", "fail"}) {
    EXPECT_EQ(urlFrom(std::string("docsource:A/") + item), only(DSNotPermittedError())) << item;
    EXPECT_TRUE(logged(std::string("[ERROR] Provider ID A is not allowed to provide item ID “") +
                       item + "” to consumer ID " + self));
    grant("A", item, self);
  }
  auto [url, token, siblingURL, siblingToken, error] = urlFrom("docsource:A/x");
  EXPECT_EQ(url, a->url("x"));
  EXPECT_TRUE(token);
  EXPECT_EQ(siblingURL, a->url(".x"));
  EXPECT_FALSE(siblingToken || error);
  EXPECT_TRUE(logged("[INFO] Successfully extended sandbox of URL " + url->absoluteString() +
                     " from provider ID A to consumer ID " + self + "."));
  for (const char* item : {"ab/cd", "a//b"}) {
    EXPECT_EQ(std::get<0>(urlFrom(std::string("docsource:A/") + item)), a->url(item));
  }
  EXPECT_EQ(urlFrom("docsource:A/fail"), only(DSSandboxExtensionFailedError(std::nullopt)));
  // Neither a URL nor an error is a success without anything.
  EXPECT_EQ(urlFrom("docsource:A/nameless"), URLAnswer());

  // The store is the shared one, whatever became of the server.
  server.reset();
  EXPECT_EQ(std::get<0>(urlFrom("docsource:A/x")), a->url("x"));
  qx::test::beNobody();
  EXPECT_EQ(urlFrom("docsource:A/x"), only(DSNotPermittedError()));
  connection.reset();
  EXPECT_EQ(urlFrom("docsource:A/x"), only(DSNotPermittedError()));
}

TEST_F(BookmarksTest, AProviderThatIsNotInstalledNeverAnswers) {
  grant("gone", "x", "com.example.self");
  // The completion is let go uncalled: what it holds is released.
  auto held = std::make_shared<int>();
  servicer->documentURLFromBookmarkableString_completion(
      "docsource:gone/x", [held](const auto&...) { ADD_FAILURE() << "an answer"; });
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
