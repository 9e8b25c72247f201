#include "tests/servicer/ServicerFixture.h"

namespace {

std::optional<std::string> sibling(const std::string& url) {
  const auto made = hiddenSiblingURLForURL(qx::URL(url));
  return made ? std::optional(made->absoluteString()) : std::nullopt;
}

TEST(HiddenSiblingTest, IsMadeFromTheTextOfTheURL) {
  for (const auto& [url, expected] : std::vector<std::pair<std::string, std::string>>{
           {"file:///a/Report.txt", "file:///a/.Report.txt"},
           {"file:///a/A%20B.txt", "file:///a/.A%20B.txt"},
           {"file:///a%2Fb/c", "file:///a%2Fb/.c"},
           {"file:///Report", "file:///.Report"},
           {"file:///a/b/", "file:///a/.b"},
           {"file:///a/.hidden", "file:///a/..hidden"},
           {"file://localhost/a/ä", "file://localhost/a/.ä"}}) {
    EXPECT_EQ(sibling(url), expected) << url;
  }
  // Whatever it gives for these, it is no URL of another folder.
  for (const char* odd : {"file:///", "file:", "/", "", "x"}) {
    const auto made = sibling(odd);
    EXPECT_TRUE(!made || made->find("/.") != std::string::npos) << odd << " " << *made;
  }
}

class SandboxGrantTest : public ServicerFixture {
 protected:
  using Bytes = std::optional<qx::Bytes>;
  using Answer = std::tuple<Error, Bytes, URL, Bytes>;

  void SetUp() override {
    ServicerFixture::SetUp();
    entitle({{"com.veltro.docsource.acl-write", true}});
    startProviders();
  }
  Answer extend(const URL& url, const Text& provider, const Text& consumer) {
    LogCapture::mailbox().take();
    return answerOf<qx::Error, qx::Bytes, qx::URL, qx::Bytes>([&](const auto& completion) {
      servicer->extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
          url, provider, consumer, completion);
    });
  }
  static Answer only(const qx::Error& error) { return {error, {}, {}, {}}; }
};

TEST_F(SandboxGrantTest, GrantsAndGivesTokens) {
  const auto url = a->url("A B.txt");
  std::ofstream(*url.path()) << "x";
  auto [error, token, siblingURL, siblingToken] = extend(url, "A", "C");
  EXPECT_EQ(error, std::nullopt);
  ASSERT_TRUE(token && !token->empty());
  EXPECT_EQ(std::find(token->begin(), token->end(), 0), token->end());
  EXPECT_EQ(siblingURL, a->url(".A B.txt"));
  EXPECT_EQ(siblingToken, std::nullopt);  // there is no such file
  EXPECT_TRUE(isGranted("A", "A B.txt", "C"));
  EXPECT_TRUE(logged("[INFO] Successfully extended sandbox for URL " + url.absoluteString() +
                     " from provider ID A to consumer ID C."));

  std::ofstream(*siblingURL->path()) << "x";
  EXPECT_TRUE(std::get<3>(extend(url, "A", "C")));

  // Nothing there: no token, and granted all the same, by whoever was named.
  EXPECT_EQ(extend(b->url("none"), "A", "C"), Answer({}, {}, b->url(".none"), {}));
  EXPECT_TRUE(isGranted("A", "none", "C"));
  EXPECT_FALSE(isGranted("B", "none", "C"));

  server.reset();
  EXPECT_TRUE(std::get<1>(extend(url, "A", "D")));
  EXPECT_FALSE(isGranted("A", "A B.txt", "D"));
}

TEST_F(SandboxGrantTest, RefusesWithoutGranting) {
  const URL url = a->url("x");
  struct Case {
    URL url;
    Text provider, consumer;
    qx::Error error;
  };
  for (const auto& [document, provider, consumer, error] :
       {Case{{}, {}, {}, DSInvalidParameterError("URL", std::nullopt)},
        Case{url, {}, {}, DSInvalidParameterError("providerID", std::nullopt)},
        Case{url, "A", {}, DSInvalidParameterError("consumerID", std::nullopt)},
        Case{url, "none", "C", DSNotFoundError("none")}}) {
    EXPECT_EQ(extend(document, provider, consumer), only(error));
    EXPECT_TRUE(logged("[ERROR] Could not extend sandbox for URL " + qx::logText(document) +
                       " from provider ID " + qx::logText(provider) + " to consumer ID " +
                       qx::logText(consumer) + ", error: " + error.text()));
    servicer->extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
        document, provider, consumer, nullptr);
  }
  const auto wrapped = DSPluginOperationFailedError(
      DSPluginOperationFailedError(qx::Error("ProviderDomain", 7, "no")));
  EXPECT_EQ(extend(a->url("fail"), "A", "C"), only(*wrapped));
  EXPECT_FALSE(isGranted("A", "fail", "C"));

  entitle({{"com.veltro.docsource.acl-read", true}});
  EXPECT_EQ(extend(url, "A", "C"), only(DSClientLacksEntitlement(std::nullopt)));
  EXPECT_EQ(log.count("(com.veltro.docsource.acl-write)"), 1U);
  EXPECT_FALSE(isGranted("A", "x", "C"));
}

TEST_F(SandboxGrantTest, TheSiblingsTokenStaysInTheDocumentsFolder) {
  const auto folder = std::filesystem::path(*a->url("x").path()).parent_path();
  for (const auto& path : {folder / "x", folder / ".x", folder.parent_path() / "x"}) {
    std::ofstream(path) << "x";
  }
  const auto siblingTokenOf = [&](const std::string& name) {
    Bytes token;
    const qx::URL url(qx::URL::fileURL(folder.string(), true).absoluteString() + name);
    issueSandboxExtensionsForURL(url, nullptr, nullptr, &token, nullptr);
    return token;
  };
  EXPECT_TRUE(siblingTokenOf("x"));
  EXPECT_TRUE(siblingTokenOf("x/"));
  // The same document, but "." in front of its name would make it "..", or miss the name.
  EXPECT_FALSE(siblingTokenOf(".%2Fx"));
  EXPECT_FALSE(siblingTokenOf("%2Fx"));
  EXPECT_FALSE(siblingTokenOf("x?y/z"));
  std::filesystem::remove(folder.parent_path() / "x");
}

}  // namespace
