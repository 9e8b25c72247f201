#include <gtest/gtest.h>

#include <functional>

#include "platform/identity/Bundles.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using namespace qx::test;
using qx::BundleKind;
using qx::Dictionary;

class BundleReaderTest : public testing::Test {
 protected:
  TemporaryDirectory root;
  std::string path = root / "One.docext";
};

TEST_F(BundleReaderTest, BrokenOnesSayWhy) {
  struct Case {
    const char* what;
    std::function<void()> breakIt;
  };
  auto info = [this] { return path + "/Info.plist"; };
  const auto write = [&](const qx::Value& list) { writeList(info(), list); };
  const Case cases[] = {
      {"Info.plist", [&] { fs::remove(info()); }},
      {"Info.plist", [&] { std::ofstream(info()) << "<plist version=\"1.0\"><dict><key>"; }},
      {"Info.plist", [&] { write(qx::Array{"text"}); }},
      {"Info.plist", [&] { fs::remove(info()), mkfifo(info().c_str(), 0600); }},
      {"QXBundleIdentifier", [&] { write(bundleInfo("", "program")); }},
      {"QXBundleIdentifier",
       [&] {
         write(Dictionary{{"QXBundleExecutable", "program"}});
       }},
      {"QXBundleExecutable",
       [&] {
         write(Dictionary{{"QXBundleIdentifier", "id"}});
       }},
      {"QXBundleExecutable", [&] { write(bundleInfo("id", "")); }},
      {"other", [&] { write(bundleInfo("id", "other")); }},
      {"program", [&] { chmod((path + "/program").c_str(), 0644); }},
      {"program", [&] { fs::remove(path + "/program"), fs::create_directory(path + "/program"); }},
      {"Entitlements.plist", [&] { writeList(path + "/Entitlements.plist", "text"); }},
  };
  for (std::size_t number = 0; number < std::size(cases); ++number) {
    fs::remove_all(path);
    makeBundle(path, "com.example.one");
    ASSERT_TRUE(qx::readBundle(BundleKind::application, path));
    cases[number].breakIt();
    auto bundle = qx::readBundle(BundleKind::application, path);
    ASSERT_FALSE(bundle) << "case " << number;
    auto text = bundle.error().text();
    EXPECT_NE(text.find(cases[number].what), std::string::npos)
        << "case " << number << ": " << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
  }
}

}  // namespace
