#include "platform/base/Text.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(TextTest, TellsUTF8FromWhatLooksLikeIt) {
  for (const std::string_view text :
       {"", "plain text, longer than eight bytes", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80",
        "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf",
        "1234567\xc3\xa9", "12345678\xe2\x82\xac"}) {
    EXPECT_TRUE(qx::isValidUTF8(text)) << qx::hexEncode(bytes(text));
  }
  for (const std::string_view text :
       {"\x80", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2\x41", "\xe0\x9f\xbf", "\xe2\x82",
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",
        "\xf0\x90\x80", "\xff", "1234567\xc3", "123456789abcdef\xe2\x82", "\xe2\x82\x28"}) {
    EXPECT_FALSE(qx::isValidUTF8(text)) << qx::hexEncode(bytes(text));
  }
}

}  // namespace
