// The operations that grant: access to a document, and bookmarkable strings.

#include "tests/servicer/Fixture.h"

namespace qx::test {
namespace {

using Grants = ServicerTest;

TEST_F(Grants, OfADocumentComeWithItsTokens) {
  const auto url = a.url("A B.txt");
  put(url);
  const auto extended = call(extendSandbox, {url, "A", "C"});
  ASSERT_TRUE(extended.at<Bytes>(1)) << extended.outcome();
  EXPECT_EQ(std::count(extended.at<Bytes>(1)->begin(), extended.at<Bytes>(1)->end(), 0), 0);
  EXPECT_EQ(extended.values[2], Value(a.url(".A B.txt")));
  EXPECT_TRUE(extended.isAbsent(0));
  EXPECT_TRUE(extended.isAbsent(3));  // there is no such file
  EXPECT_TRUE(isGranted("A C A B.txt"));
  logs("[INFO] Successfully extended sandbox for URL " + text(url) +
       " from provider ID A to consumer ID C.");
  put(a.url(".A B.txt"));
  EXPECT_TRUE(call(extendSandbox, {url, "A", "C"}).at<Bytes>(3));

  // Nothing there: no token, and granted all the same, by whoever was named.
  EXPECT_EQ(call(extendSandbox, {b.url("none"), "A", "C"}).values,
            (Array{absent, absent, b.url(".none"), absent}));
  EXPECT_TRUE(isGranted("A C none"));
  EXPECT_FALSE(isGranted("B C none"));
}

TEST_F(Grants, AreRefusedWithAReason) {
  const auto url = a.url("x");
  struct Case {
    Array arguments;
    Error error;
  };
  for (const auto& [arguments, error] :
       {Case{{absent, absent, absent}, DSInvalidParameterError("URL", std::nullopt)},
        Case{{url, absent, absent}, DSInvalidParameterError("providerID", std::nullopt)},
        Case{{url, "A", absent}, DSInvalidParameterError("consumerID", std::nullopt)},
        Case{{url, "none", "C"}, DSNotFoundError("none")}}) {
    EXPECT_EQ(call(extendSandbox, arguments).values, (Array{error, absent, absent, absent}));
    logs("[ERROR] Could not extend sandbox for URL " + text(arguments[0]) + " from provider ID " +
         text(arguments[1]) + " to consumer ID " + text(arguments[2]) + ", error: " + error.text());
  }
  EXPECT_EQ(outcome(extendSandbox, {a.url("fail"), "A", "C"}), failure);

  const auto outside = URL::fileURL(root + "/outside");
  put(outside);
  put(url);
  const auto refused = [&](const Array& arguments, const std::string& bundle, const Error& error) {
    EXPECT_EQ(call(extendBookmark, arguments).values, (Array{absent, error}));
    logs("[ERROR] Could not extend bookmark privileges for URL " + text(arguments[0]) +
         " from bundle " + bundle + " to consumer ID " + text(arguments[1]) +
         ", error: " + error.text());
  };
  refused({outside, "C"}, self, DSNotFoundErrorURL(outside));
  refused({url, absent}, self, DSNotPermittedError());
  // What the client could not write itself.
  for (const Value& document : {absent, Value(a.url("none")), Value(URL("https://example.com/x")),
                                Value(URL("file:///proc/version"))}) {
    refused({document, "C"}, self, DSNotPermittedError());
  }
  beNobody();
  refused({url, "C"}, "(null)", DSNotPermittedError());
  EXPECT_EQ(grants(), std::set<std::string>());
}

TEST_F(Grants, GiveTokensInTheDocumentsFolderAlone) {
  const URL folder = URL::fileURL(a.storage(), true);
  for (const char* name : {"x", ".x", "../x"}) put(a.url(name));
  const auto hasSiblingToken = [&](const std::string& name) {
    const auto answer = call(extendSandbox, {URL(folder.absoluteString() + name), "A", "C"});
    return answer.at<Bytes>(3) != nullptr;
  };
  EXPECT_TRUE(hasSiblingToken("x") && hasSiblingToken("x/"));
  // The same document, but "." in front of its name would make it "..", or miss the name.
  for (const char* name : {".%2Fx", "%2Fx", "x?y/z"}) EXPECT_FALSE(hasSiblingToken(name)) << name;
}

TEST_F(Grants, OfABookmarkAreTheConsumersAlone) {
  const auto url = a.url("x");
  for (const char* name : {"x", "fail", "nameless"}) put(a.url(name));
  EXPECT_EQ(call(extendBookmark, {url, "C"}).values, (Array{"docsource:A/x", absent}));
  logs("[DEBUG] Extending bookmark privileges for URL: “" + text(url) +
       "” from bundle com.example.self to C.");
  logs("[DEBUG] Successfully generated bookmarkable string “docsource:A/x” from URL " + text(url));
  EXPECT_EQ(grants(), std::set<std::string>{"A C x"});
  EXPECT_EQ(outcome(documentURL, {"docsource:A/x"}), "DSErrorDomain 3");
  EXPECT_EQ(outcome(extendBookmark, {a.url("fail"), "C"}), failure);

  // The string itself is for everybody.
  beNobody();
  EXPECT_EQ(call(bookmarkableString, {url}).values, (Array{"docsource:A/x", absent}));
  logs("[DEBUG] Getting bookmarkable string for URL " + text(url));
  EXPECT_EQ(outcome(bookmarkableString, {a.url("fail")}), "DSErrorDomain 8 (ProviderDomain 7)");
  EXPECT_EQ(call(bookmarkableString, {a.url("nameless")}).values, (Array{absent, absent}));
  logs("[ERROR] Could not get Item ID for URL " + text(a.url("nameless")) + ".");
  for (const Value& none :
       {absent, Value(URL("file:///tmp")), Value(URL::fileURL(a.storage(), true))}) {
    EXPECT_EQ(call(bookmarkableString, {none}).values, (Array{absent, absent}));
    logs("[INFO] Could not find the provider for URL " + text(none));
  }
}

TEST_F(Grants, TurnAStringIntoItsDocument) {
  for (const Value& none :
       {absent, Value(""), Value("docsource:"), Value("docsource:A"), Value("docsource:A/"),
        Value("docsource:/x"), Value("docsource:/"), Value("docsource:A//x"),
        Value("docsource://x"), Value(" docsource:A/x"), Value("Docsource:A/x"), Value("docsource"),
        Value("A/x"), Value("docsource;A/x")}) {
    EXPECT_EQ(outcome(documentURL, {none}), "DSErrorDomain 5") << text(none);
    logs("[DEBUG] Getting URL from bookmarkable string: “" + text(none) + "”.");
  }
  const Array items{"x", "ab/cd", "a//b", "a/", "docsource:A/x", "nameless", "fail"};
  const auto resolve = [this](const std::string& item) {
    return call(documentURL, {"docsource:A/" + item});
  };
  for (const Value& item : items) {
    EXPECT_EQ(resolve(*item.as<std::string>()).outcome(), "DSErrorDomain 3");
    logs("[ERROR] Provider ID A is not allowed to provide item ID “" + text(item) +
         "” to consumer ID com.example.self");
  }
  writeList(accessControlFileOf(root),
            Dictionary{{"A", Dictionary{{self, Dictionary{{"AllowedItemIDs", items}}}}}});
  start();
  put(a.url("x"));
  const auto resolved = resolve("x");
  EXPECT_EQ(resolved.values[0], Value(a.url("x")));
  EXPECT_TRUE(resolved.at<Bytes>(1));
  EXPECT_EQ(resolved.values[2], Value(a.url(".x")));
  EXPECT_TRUE(resolved.isAbsent(3) && resolved.isAbsent(4));
  logs("[INFO] Successfully extended sandbox of URL " + text(a.url("x")) +
       " from provider ID A to consumer ID com.example.self.");
  for (const char* item : {"ab/cd", "a//b"}) {
    EXPECT_EQ(resolve(item).values[0], Value(a.url(item)));
  }
  EXPECT_EQ(resolve("fail").error(), DSSandboxExtensionFailedError(std::nullopt));
  // Neither a URL nor an error is a success without anything.
  EXPECT_EQ(resolve("nameless").values, Array(5));
  beNobody();
  EXPECT_EQ(resolve("x").outcome(), "DSErrorDomain 3");
}

}  // namespace
}  // namespace qx::test
