#include "platform/base/URL.h"

#include <gtest/gtest.h>

namespace {

using qx::URL;

std::optional<std::string> pathOf(std::string text) { return URL(std::move(text)).path(); }

TEST(URLTest, ParsesWhatHasASchemeAndKeepsItsText) {
  for (const char* text : {"file:///a%20b", "FILE:///A", "http://host/?q#f", "x-1+a.b:anything"}) {
    const auto url = URL::parse(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->absoluteString(), text);
  }
  for (const char* text : {"", "/a/path", "no scheme", ":x", "1a:x", "a b:x", "file:///a\nb",
                           "file:///\x7f", "\xc3\xa9:x"}) {
    EXPECT_FALSE(URL::parse(text)) << text;
  }
  EXPECT_FALSE(URL::parse(std::string_view("file:///a\0b", 11)));
  EXPECT_NE(URL("file:///a"), URL("file:///%61"));
}

TEST(URLTest, OnlyFileURLsOfThisMachineHaveAPath) {
  EXPECT_EQ(pathOf("file:///a/b"), "/a/b");
  EXPECT_EQ(pathOf("FiLe://LocalHost/a"), "/a");
  EXPECT_EQ(pathOf("file:/a"), "/a");
  EXPECT_EQ(pathOf("file:////a"), "//a");
  EXPECT_EQ(pathOf("file:///dir/"), "/dir/");
  EXPECT_EQ(pathOf("file:///a?query#fragment"), "/a");
  EXPECT_EQ(pathOf("file:///a#f?x"), "/a");
  EXPECT_EQ(pathOf("file:///100%25%3F%23%2Fx"), "/100%?#/x");
  EXPECT_EQ(pathOf("file:///%c3%A9%ff"), "/\xc3\xa9\xff");
  for (const char* text :
       {"http:///a", "file://other/a", "file://user@localhost/a", "file://localhost:80/a",
        "file://", "file:a", "file:", "/a", "", "file://localhost", "file:///a%", "file:///a%2",
        "file:///a%2g", "file:///a%00b", "file://?/a"}) {
    EXPECT_EQ(pathOf(text), std::nullopt) << text;
  }
  EXPECT_EQ(pathOf(std::string("file:///a\0b", 11)), std::nullopt);
}

}  // namespace
