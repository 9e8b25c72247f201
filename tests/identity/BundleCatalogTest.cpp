#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "platform/identity/Bundles.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Mailbox.h"
#include "tests/support/TemporaryRoot.h"

namespace {

namespace fs = std::filesystem;
using namespace qx::test;
using qx::AuditToken;
using qx::BundleCatalog;
using qx::BundleKind;
using qx::Dictionary;

/// Every test has an empty catalog to begin with.
class BundleCatalogTest : public testing::Test {
 protected:
  void SetUp() override {
    temporaryRoot();
    for (const auto& folder : {qx::Places::applications(), qx::Places::extensions()}) {
      fs::remove_all(folder);
      fs::create_directory(folder);
    }
  }

  static std::string application(const std::string& name) {
    return qx::Places::applications() + "/" + name + ".app";
  }
  static std::string extension(const std::string& name) {
    return qx::Places::extensions() + "/" + name + ".docext";
  }

  static std::string identifiers(BundleKind kind = BundleKind::application) {
    std::string text;
    for (const auto& bundle : BundleCatalog::shared().bundles(kind)) {
      text += bundle->identifier + " ";
    }
    return text;
  }

  static std::string identityOf(const ChildProcess& process) {
    return BundleIdentifierFromAuditToken(AuditToken::ofProcess(process.id())).value_or("nobody");
  }

  static std::string programOf(const std::string& bundle) { return bundle + "/program"; }
};

TEST_F(BundleCatalogTest, AnswersAreAsFreshAsTheQuestion) {
  EXPECT_EQ(identifiers(), "");
  makeBundle(application("b"), "com.example.b");
  makeBundle(application("a"), "com.example.a");
  makeBundle(application("B"), "com.example.B");
  EXPECT_EQ(identifiers(), "com.example.B com.example.a com.example.b ");
  EXPECT_EQ(identifiers(BundleKind::extension), "");
  makeBundle(extension("e"), "com.example.e");
  EXPECT_EQ(identifiers(BundleKind::extension), "com.example.e ");

  auto a = BundleCatalog::shared().bundle(BundleKind::application, "com.example.a");
  ASSERT_TRUE(a);
  writeList(application("a") + "/Info.plist", bundleInfo("com.example.A2", "program"));
  EXPECT_EQ(BundleCatalog::shared().bundle(BundleKind::application, "com.example.a"), nullptr);
  EXPECT_EQ(a->identifier, "com.example.a") << "a bundle that was handed out does not change";
  writeList(application("a") + "/Entitlements.plist", Dictionary{{"key", "value"}});
  auto changed = BundleCatalog::shared().bundle(BundleKind::application, "com.example.A2");
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->entitlements, (Dictionary{{"key", "value"}}));

  fs::rename(application("b"), application("c"));
  EXPECT_EQ(identifiers(), "com.example.B com.example.A2 com.example.b ");
  EXPECT_EQ(BundleCatalog::shared().bundle(BundleKind::application, "com.example.b")->path,
            application("c"));
  fs::remove_all(application("B"));
  EXPECT_EQ(identifiers(), "com.example.A2 com.example.b ");

  // Two directories exchanged in one step.
  auto prepared = temporaryRoot() + "/prepared";
  fs::remove_all(prepared);
  makeBundle(prepared, "com.example.new");
  ASSERT_EQ(syscall(SYS_renameat2, AT_FDCWD, prepared.c_str(), AT_FDCWD, application("c").c_str(),
                    RENAME_EXCHANGE),
            0);
  EXPECT_EQ(identifiers(), "com.example.A2 com.example.new ");
  writeList(prepared + "/Info.plist", bundleInfo("com.example.elsewhere", "program"));
  writeList(application("c") + "/Info.plist", bundleInfo("com.example.newer", "program"));
  EXPECT_EQ(identifiers(), "com.example.A2 com.example.newer ");
}

TEST_F(BundleCatalogTest, TakesDirectoriesAndLinksToThem) {
  auto elsewhere = temporaryRoot() + "/elsewhere";
  fs::remove_all(elsewhere);
  makeBundle(elsewhere, "com.example.linked");
  makeBundle(qx::Places::applications() + "/.hidden.app", "com.example.hidden");
  makeBundle(qx::Places::applications() + "/.app", "com.example.nameless");
  makeBundle(qx::Places::applications() + "/other.docext", "com.example.other");
  std::ofstream(application("file")) << "text";
  fs::create_symlink("nowhere", application("dangling"));
  fs::create_directory_symlink(elsewhere, application("link"));
  EXPECT_EQ(identifiers(), "com.example.linked ");
  writeList(elsewhere + "/Info.plist", bundleInfo("com.example.relinked", "program"));
  EXPECT_EQ(identifiers(), "com.example.relinked ");
  ChildProcess process({programOf(elsewhere)});
  EXPECT_EQ(identityOf(process), "com.example.relinked");
  fs::remove(application("link"));
  EXPECT_EQ(identifiers(), "");
  EXPECT_EQ(identityOf(process), "nobody");
}

TEST_F(BundleCatalogTest, ABrokenBundleIsSkippedWithOneLineForEachState) {
  LogCapture log;
  makeBundle(application("good"), "com.example.good");
  auto path = application("bad");
  auto lines = [&] { return LogCapture::count("[ERROR] Skipping bundle " + path + ": "); };
  fs::create_directory(path);
  EXPECT_EQ(identifiers(), "com.example.good ");
  EXPECT_EQ(lines(), 1u);
  std::ofstream(path + "/unrelated") << "text";
  fs::create_directory(path + "/Resources");
  EXPECT_EQ(identifiers(), "com.example.good ");
  EXPECT_EQ(lines(), 1u) << "nothing has become of it";

  writeList(path + "/Info.plist", bundleInfo("com.example.bad", "bin/deep/program"));
  EXPECT_EQ(identifiers(), "com.example.good ");
  EXPECT_EQ(lines(), 2u);

  // The executable arrives last, in directories that were not there before.
  fs::create_directories(path + "/bin/deep");
  EXPECT_EQ(identifiers(), "com.example.good ");
  fs::copy_file("/bin/cat", temporaryRoot() + "/copied");
  fs::rename(temporaryRoot() + "/copied", path + "/bin/deep/program");
  EXPECT_EQ(identifiers(), "com.example.bad com.example.good ");
  EXPECT_EQ(lines(), 2u);
  fs::permissions(path + "/bin/deep/program", fs::perms::owner_read);
  EXPECT_EQ(identifiers(), "com.example.good ");
  EXPECT_EQ(lines(), 3u);
}

TEST_F(BundleCatalogTest, AProcessBelongsToTheBundleOfItsExecutable) {
  makeBundle(application("shell"), "com.example.shell", "/bin/sh",
             {{"com.example.right", true}, {"com.example.limit", 7}});
  makeBundle(application("cat"), "com.example.cat");
  ChildProcess process({programOf(application("shell")), "-c",
                        "echo ready; read x; exec " + programOf(application("cat"))});
  ASSERT_EQ(process.readLine(), "ready");
  auto token = AuditToken::ofProcess(process.id());
  EXPECT_EQ(BundleIdentifierFromAuditToken(token), "com.example.shell");
  EXPECT_EQ(qx::entitlementOfProcess(token, "com.example.right"), qx::Value(true));
  EXPECT_EQ(qx::entitlementOfProcess(token, "com.example.limit"), qx::Value(7));
  EXPECT_EQ(qx::entitlementOfProcess(token, "com.example.wrong"), std::nullopt);
  EXPECT_EQ(qx::entitlementOfProcess(token, "com.veltro.file-coordination.host"), std::nullopt);

  // An identity does not outlive an exec, nor the process; the token stays the same.
  process.writeLine("go on");
  ASSERT_EQ(process.ask("hello"), "hello");
  EXPECT_EQ(BundleIdentifierFromAuditToken(token), "com.example.cat");
  EXPECT_EQ(qx::entitlementOfProcess(token, "com.example.right"), std::nullopt);
  process.end();
  EXPECT_EQ(BundleIdentifierFromAuditToken(token), std::nullopt);
  EXPECT_EQ(BundleIdentifierFromAuditToken(AuditToken()), std::nullopt);

  ChildProcess stranger({"/bin/cat"});
  EXPECT_EQ(identityOf(stranger), "nobody") << "an equal file is another one";
}

TEST_F(BundleCatalogTest, AReplacedExecutableTakesTheIdentityAlong) {
  auto bundle = application("one");
  makeBundle(bundle, "com.example.one");
  ChildProcess before({programOf(bundle)});
  EXPECT_EQ(identityOf(before), "com.example.one");
  fs::copy_file("/bin/cat", bundle + "/new");
  fs::rename(bundle + "/new", programOf(bundle));
  EXPECT_EQ(identityOf(before), "nobody");
  ChildProcess after({programOf(bundle)});
  EXPECT_EQ(identityOf(after), "com.example.one");

  // An executable elsewhere that becomes another file by a link nobody watches.
  auto store = temporaryRoot() + "/store";
  fs::remove_all(store);
  for (const char* release : {"/1", "/2"}) {
    fs::create_directories(store + release);
    fs::copy_file("/bin/cat", store + release + "/tool");
  }
  fs::create_directory_symlink("1", store + "/current");
  writeList(bundle + "/Info.plist", bundleInfo("com.example.one", store + "/current/tool"));
  ChildProcess first({store + "/1/tool"});
  ChildProcess second({store + "/2/tool"});
  EXPECT_EQ(identityOf(first), "com.example.one");
  EXPECT_EQ(identityOf(second), "nobody");
  fs::create_directory_symlink("2", store + "/next");
  fs::rename(store + "/next", store + "/current");
  EXPECT_EQ(identityOf(first), "nobody");
  EXPECT_EQ(identityOf(second), "com.example.one");
}

TEST_F(BundleCatalogTest, ADisputedExecutableIdentifiesNobody) {
  makeBundle(application("one"), "com.example.one");
  makeBundle(application("two"), "com.example.two");
  makeBundle(extension("three"), "com.example.three");
  ChildProcess process({programOf(application("one"))});
  EXPECT_EQ(identityOf(process), "com.example.one");

  auto claim = [&](const std::string& bundle, const std::string& identifier) {
    writeList(bundle + "/Info.plist", bundleInfo(identifier, programOf(application("one"))));
  };
  claim(extension("three"), "com.example.three");
  EXPECT_EQ(identityOf(process), "com.example.one") << "applications go before extensions";
  claim(application("two"), "com.example.two");
  EXPECT_EQ(identityOf(process), "nobody");
  fs::remove_all(application("two"));
  EXPECT_EQ(identityOf(process), "com.example.one");

  // The same dispute by a hard link.
  fs::create_directory(application("two"));
  fs::create_hard_link(programOf(application("one")), programOf(application("two")));
  writeList(application("two") + "/Info.plist", bundleInfo("com.example.two", "program"));
  EXPECT_EQ(identityOf(process), "nobody");
}

TEST_F(BundleCatalogTest, ADisputedIdentifierIsNobodys) {
  makeBundle(application("one"), "com.example.one");
  makeBundle(application("two"), "com.example.two");
  makeBundle(extension("three"), "com.example.three");
  ChildProcess one({programOf(application("one"))});
  ChildProcess two({programOf(application("two"))});
  ChildProcess three({programOf(extension("three"))});
  const auto expect = [&](const std::string& ofOne, const std::string& ofTwo,
                          const std::string& ofThree) {
    EXPECT_EQ(identityOf(one), ofOne);
    EXPECT_EQ(identityOf(two), ofTwo);
    EXPECT_EQ(identityOf(three), ofThree);
  };
  const auto claim = [&](const std::string& bundle, const std::string& identifier) {
    writeList(bundle + "/Info.plist", bundleInfo(identifier, "program"));
  };
  claim(application("two"), "com.example.one");
  expect("nobody", "nobody", "com.example.three");
  claim(application("two"), "com.example.two");
  expect("com.example.one", "com.example.two", "com.example.three");
  // Applications go before extensions.
  claim(extension("three"), "com.example.one");
  expect("com.example.one", "com.example.two", "nobody");
}

TEST_F(BundleCatalogTest, IdentityHoldsInOtherNamespaces) {
  auto bundle = application("one");
  makeBundle(bundle, "com.example.one");
  auto bind = "mount --bind '" + bundle + "' /mnt && exec /mnt/program";
  ChildProcess process({"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", bind});
  if (process.ask("hello") != "hello") GTEST_SKIP() << "no user and mount namespaces here";
  EXPECT_EQ(identityOf(process), "com.example.one");

  ChildProcess impostor(
      {"unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
       "mount --bind /bin/cat '" + programOf(bundle) + "' && exec '" + programOf(bundle) + "'"});
  ASSERT_EQ(impostor.ask("hello"), "hello");
  EXPECT_EQ(identityOf(impostor), "nobody") << "the path alone proves nothing";
}

TEST_F(BundleCatalogTest, ObserversHearOfEveryChangeOneAtATime) {
  auto& seen = *new Mailbox<std::string>;
  auto& inside = *new std::atomic<int>(0);
  BundleCatalog::shared().observeChanges([&seen, &inside] {
    EXPECT_EQ(++inside, 1);
    seen.put(identifiers());
    --inside;
  });
  const auto isSeen = [&](const std::string& state) {
    return seen.waitUntil(
        [&](const auto& states) { return !states.empty() && states.back() == state; });
  };
  auto prepared = temporaryRoot() + "/prepared-4";
  makeBundle(prepared, "4");
  makeBundle(application("1"), "1");
  EXPECT_TRUE(isSeen("1 "));
  // A question that finds a change first does not keep it from the observers.
  for (int round = 0; round < 50; ++round) {
    fs::rename(prepared, application("4"));
    EXPECT_EQ(identifiers(), "1 4 ");
    ASSERT_TRUE(isSeen("1 4 ")) << round;
    fs::rename(application("4"), prepared);
    EXPECT_EQ(identifiers(), "1 ");
    ASSERT_TRUE(isSeen("1 ")) << round;
  }
}

}  // namespace
