#include "platform/plist/PropertyList.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <random>

#include "platform/base/Errors.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace qx;  // NOLINT: the whole vocabulary is under test
using test::TemporaryDirectory;

std::string document(std::string_view content) {
  return "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">" + std::string(content) + "</plist>";
}

Value readValue(std::string_view content) {
  auto result = PropertyList::read(document(content));
  EXPECT_TRUE(result.ok()) << content << "\n" << (result.ok() ? "" : result.error().text());
  return result.ok() ? *std::move(result) : Value();
}

std::string nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<array>";
  for (int i = 0; i < depth; ++i) text += "</array>";
  return text;
}

TEST(PropertyListTest, IsWrittenInOneFormOnly) {
  const Value value = Dictionary{
      {"b", Array{Value("a<b>&\"c\""), Value(true), Value(Array{}), Value(Dictionary{})}},
      {"a\r", Dictionary{{"", std::numeric_limits<std::int64_t>::min()}}},
      {"Z", Bytes{'f', 'o'}},
      {"c", Date(std::chrono::seconds(1795256130))},
      {"\x01", 0.1}};
  const auto text = PropertyList::write(value);
  ASSERT_TRUE(text.ok());
  EXPECT_EQ(*text,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key encoding=\"base64\">AQ==</key>\n"
            "\t<real>0.1</real>\n"
            "\t<key>Z</key>\n"
            "\t<data>Zm8=</data>\n"
            "\t<key>a&#13;</key>\n"
            "\t<dict>\n"
            "\t\t<key></key>\n"
            "\t\t<integer>-9223372036854775808</integer>\n"
            "\t</dict>\n"
            "\t<key>b</key>\n"
            "\t<array>\n"
            "\t\t<string>a&lt;b&gt;&amp;\"c\"</string>\n"
            "\t\t<true/>\n"
            "\t\t<array/>\n"
            "\t\t<dict/>\n"
            "\t</array>\n"
            "\t<key>c</key>\n"
            "\t<date>2026-11-21T10:15:30Z</date>\n"
            "</dict>\n"
            "</plist>\n");
  const auto back = PropertyList::read(*text);
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(*back, value);
}

TEST(PropertyListTest, EveryStringComesOutAsItWentIn) {
  Array strings;
  for (int c = 0; c < 256; ++c) strings.emplace_back(std::string(1, static_cast<char>(c)));
  for (const std::string_view text :
       {"", " ", "\n\t leading and trailing \n", "\r\n", "\r", "]]>", "<![CDATA[x]]>", "&amp;",
        "&#13;", "<!-- -->", "\xef\xbf\xbd", "\xef\xbf\xbe", "x\xef\xbf\xbf", "\xef\xbb\xbf",
        "\xc2\x85\xe2\x80\xa8", "\xed\xa0\x80", "\xc0\x80", "\xf0\x9f\x98\x80", "\xc3\xa9"}) {
    strings.emplace_back(text);
  }
  std::mt19937 random(1);
  for (int i = 0; i < 500; ++i) {
    std::string text(random() % 40, '\0');
    for (char& c : text) c = static_cast<char>(random() % (i % 2 ? 256 : 64));
    strings.emplace_back(text);
  }
  strings.emplace_back(std::string(300000, 'x') + "\r" + std::string(300000, '&'));
  Dictionary keys;
  for (const Value& text : strings) keys.emplace(*text.as<std::string>(), Value(text));

  const Value value = Array{Value(strings), Value(keys)};
  const auto text = PropertyList::write(value);
  ASSERT_TRUE(text.ok());
  const auto back = PropertyList::read(*text);
  ASSERT_TRUE(back.ok()) << back.error().text();
  EXPECT_EQ(*back, value);
}

TEST(PropertyListTest, WhatHasNoFormIsNotWritten) {
  Value deep = Array{};
  for (int i = 1; i < 512; ++i) deep = Value(Array(1, deep));
  const auto deepest = PropertyList::write(deep);
  ASSERT_TRUE(deepest.ok());
  EXPECT_TRUE(PropertyList::read(*deepest).ok());

  const Date tooLate = std::chrono::sys_days(std::chrono::year(10000) / 1 / 1);
  for (const Value& value :
       {Value(), Value(URL("file:///a")), Value(Array{Value(1), Value(UUID())}),
        Value(Dictionary{{"a", Error("D", 1, "x")}}), Value(Array(1, deep)), Value(tooLate),
        Value(Date::max()), Value(Date::min())}) {
    EXPECT_FALSE(PropertyList::write(value).ok());
  }
}

TEST(PropertyListTest, ReadsWhatOthersWrite) {
  EXPECT_EQ(readValue("\n  <!-- a comment --> <?a thing?> <true/>\n"), Value(true));
  EXPECT_EQ(readValue("<string>a<![CDATA[<&>]]>b<!-- no -->c&#x41;&lt;</string>"),
            Value("a<&>bcA<"));
  EXPECT_EQ(readValue("<string> a\r\nb\rc </string>"), Value(" a\nb\nc "));
  EXPECT_EQ(readValue("<string/>"), Value(""));
  EXPECT_EQ(readValue("<integer> +5\n</integer>"), Value(5));
  EXPECT_EQ(readValue("<real>\n\t1e3 </real>"), Value(1000.0));
  EXPECT_EQ(readValue("<data>\n\tZm9v\n\tYg==\n</data>"), Value(Bytes{'f', 'o', 'o', 'b'}));
  EXPECT_EQ(readValue("<data/>"), Value(Bytes{}));
  EXPECT_EQ(readValue("<date> 1970-01-01T00:00:01Z </date>"), Value(Date(std::chrono::seconds(1))));
  EXPECT_EQ(readValue("<false> </false>"), Value(false));
  EXPECT_EQ(readValue("<string encoding=\"base64\"> AAE= </string>"),
            Value(std::string("\0\1", 2)));
  EXPECT_EQ(readValue("<dict><key>b</key><integer>1</integer><key>a</key><integer>2</integer>"
                      "<key>c</key><dict><key>a</key><true/></dict></dict>"),
            Value(Dictionary{{"a", 2}, {"b", 1}, {"c", Dictionary{{"a", true}}}}));

  std::string wide = "\xff\xfe";
  for (const char c : document("<string>\xe9</string>")) wide += {c, '\0'};
  const auto utf16 = PropertyList::read(wide);
  ASSERT_TRUE(utf16.ok()) << utf16.error().text();
  EXPECT_EQ(*utf16, Value("\xc3\xa9"));
}

TEST(PropertyListTest, SkipsADocumentType) {
  // Neither what it points to nor the attributes that it would add count.
  TemporaryDirectory directory;
  std::ofstream(directory / "outside.dtd") << "<!ENTITY x 'fetched'>";
  const std::string head = "<?xml version=\"1.0\"?>\n<!DOCTYPE plist SYSTEM \"file://" +
                           (directory / "outside.dtd") + "\"";
  const auto read =
      PropertyList::read(head +
                         " [<!ELEMENT plist ANY> <!ATTLIST string encoding CDATA \"base64\">]>\n"
                         "<plist version=\"1.0\"><string>plain</string></plist>");
  ASSERT_TRUE(read.ok()) << read.error().text();
  EXPECT_EQ(*read, Value("plain"));

  for (const std::string& text : {head + "><plist><string>&x;</string></plist>",
                                  head + " [%undeclared;]><plist><string>&x;</string></plist>"}) {
    EXPECT_FALSE(PropertyList::read(text).ok()) << text;
  }
}

TEST(PropertyListTest, RefusesEntitiesOfADocumentType) {
  for (const std::string_view declaration :
       {"<!ENTITY a 'x'>", "<!ENTITY % a 'x'>", "<!ENTITY % a '<!ENTITY b \"x\">'> %a;",
        "<!ENTITY a SYSTEM 'file:///etc/hostname'>", "<!ENTITY % a SYSTEM 'file:///etc/hostname'>",
        "<!ENTITY a '&b;'><!ENTITY b '&a;'>",
        "<!NOTATION n SYSTEM 'n'><!ENTITY a SYSTEM 'x' NDATA n>"}) {
    for (const std::string_view use : {"&a;", "x"}) {
      const auto read =
          PropertyList::read("<!DOCTYPE plist [" + std::string(declaration) +
                             "]>\n<plist><string>" + std::string(use) + "</string></plist>");
      ASSERT_FALSE(read.ok()) << declaration << use;
      EXPECT_NE(read.error().description().find("line 1"), std::string::npos)
          << read.error().text();
    }
  }
}

TEST(PropertyListTest, RefusesWhatIsNoPropertyList) {
  const std::string key = "<key>a</key>", entry = "<key>a</key><true/>";
  for (const std::string& content : std::vector<std::string>{
           // Not one value.
           "", " ", "<true/><true/>", "text", "<true/>text", "<string>a</string>text",
           "<array>text</array>", "<!-- -- -->",
           // Elements that there are not, or not here.
           "<unknown/>", "<Dict/>", "<plist><true/></plist>", "<string><true/></string>",
           "<true><true/></true>", "<true>x</true>", key, "<array>" + key + "</array>",
           // Dictionaries: keys without values and the reverse, and keys that come twice.
           "<dict><true/></dict>", "<dict>" + key + "</dict>", "<dict>text</dict>",
           "<dict>" + key + "text<true/></dict>", "<dict>" + key + "<key>b</key><true/></dict>",
           "<dict>" + entry + "<true/></dict>", "<dict>" + entry + entry + "</dict>",
           "<dict>" + entry + "<key>b</key><true/>" + entry + "</dict>",
           "<dict><key>b</key><true/>" + entry + "<key>b</key><true/></dict>",
           "<dict>" + key + "<dict><key>z</key><true/></dict>" + entry + "</dict>",
           "<dict>" + entry + "<key encoding=\"base64\">YQ==</key><true/></dict>",
           "<dict><key/><true/><key/><true/></dict>",
           // Numbers.
           "<integer/>", "<integer>x</integer>", "<integer>1 2</integer>",
           "<integer>0x1F</integer>", "<integer>1.5</integer>", "<integer>--1</integer>",
           "<integer>+-1</integer>", "<integer>9223372036854775808</integer>",
           "<integer>-9223372036854775809</integer>", "<real/>", "<real>1,5</real>",
           "<real>1e999</real>", "<real>0x1p3</real>",
           // Dates.
           "<date/>", "<date>2026-11-21</date>", "<date>2026-11-21T10:15:30</date>",
           "<date>2026-02-29T10:15:30Z</date>", "<date>2026-13-01T10:15:30Z</date>",
           "<date>2026-11-21T24:00:00Z</date>", "<date>2026-11-21T10:60:00Z</date>",
           "<date>2026-11-21 10:15:30Z</date>", "<date>2026-11-21T10:15:30+01:00</date>",
           // Data and text.
           "<data>Z</data>", "<data>Zm9v!</data>", "<string encoding=\"base64\">Z</string>",
           "<string encoding=\"hex\">00</string>", "<string>&unknown;</string>",
           "<string>&#1;</string>", "<string>\x01</string>", "<string>\xff</string>",
           "<string>\xed\xa0\x80</string>",
           // What is not well-formed.
           "<string>", "<string></strin>", "<string a=b/>", "<array></dict>",
           // One level more than there may be, or many.
           nested(513), nested(100000)}) {
    EXPECT_FALSE(PropertyList::read(document(content)).ok()) << content.substr(0, 100);
  }
  EXPECT_TRUE(PropertyList::read(document(nested(512))).ok());
  const std::string good = document("<true/>");
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_FALSE(PropertyList::read(std::string_view(good).substr(0, length)).ok()) << length;
  }
  for (const std::string& text :
       {good + "x", good + good, " " + good, std::string("<true/>"), std::string("bplist00"),
        std::string("<plist version=\"2.0\"><true/></plist>"), good + std::string(1, '\0'),
        std::string("<?xml version=\"1.0\" encoding=\"x-unknown\"?><plist><true/></plist>")}) {
    EXPECT_FALSE(PropertyList::read(text).ok()) << text;
  }
}

TEST(PropertyListTest, ErrorsSayWhereAndWhat) {
  const auto descriptionOf = [](std::string_view text) {
    const auto read = PropertyList::read(text);
    EXPECT_FALSE(read.ok());
    return read.ok() ? std::string() : read.error().description();
  };
  for (const auto& [text, part] : std::vector<std::pair<std::string, std::string>>{
           {"<plist>\n<dict>\n\t<unknown/>\n</dict></plist>", "line 3, column 2: "},
           {"<plist>\n<dict>\n\t<unknown/>\n</dict></plist>", "\"unknown\""},
           {"<plist>\n\n  <integer>12x</integer></plist>", "line 3, "},
           {"<plist>\n<array>\n</plist>", "line 3, column 3"},
           {"<plist><dict>\n<key>k</key><true/>\n<key>k</key><true/></dict></plist>", "line 3, "},
           {"", "line 1, column 1"}}) {
    EXPECT_NE(descriptionOf(text).find(part), std::string::npos) << descriptionOf(text);
  }

  // Whatever the text, the sentence can travel: it is UTF-8 and not longer than a sentence.
  std::string accents = "x";
  for (int i = 0; i < 1000; ++i) accents += "\xc3\xa9";
  for (const std::string& name : {std::string(100000, 'x'), accents}) {
    const std::string description = descriptionOf("<plist><" + name + "/></plist>");
    EXPECT_LT(description.size(), 300u);
    EXPECT_TRUE(PropertyList::read(document("<string>" + description + "</string>")).ok());
  }

  // A file is named as well.
  const TemporaryDirectory directory;
  std::ofstream(directory / "broken") << "<plist>\n<dict>";
  const auto broken = PropertyList::readFile(directory / "broken");
  ASSERT_FALSE(broken.ok());
  EXPECT_NE(broken.error().description().find("line 2, "), std::string::npos);
  EXPECT_EQ(*find<URL>(broken.error().info(), QXURLErrorKey), URL::fileURL(directory / "broken"));
  EXPECT_EQ(PropertyList::readFile(directory / "missing").error(),
            fileError(ENOENT, URL::fileURL(directory / "missing")));
  EXPECT_TRUE(
      PropertyList::readFile(directory.path()).error().is(QXStandardErrorDomain, fileUnknownError));
}

}  // namespace
