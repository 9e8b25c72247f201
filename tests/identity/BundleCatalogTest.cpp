#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/fanotify.h>
#include <sys/syscall.h>

#include "platform/identity/Bundles.h"
#include "platform/identity/SandboxRecord.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Gate.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryRoot.h"

namespace {

namespace fs = std::filesystem;
using namespace qx::test;
using qx::AuditToken;
using qx::BundleCatalog;
using qx::BundleKind;
using qx::BundleStanding;
using qx::Dictionary;

const char* const tool = "com.veltro.docsource.tool";

/// Every test has an empty catalog to begin with.
class BundleCatalogTest : public testing::Test {
 protected:
  void SetUp() override {
    static TemporaryDirectory machine;
    ::setenv("DOCSOURCE_MACHINE", machine.path().c_str(), 1);
    temporaryRoot();
    for (const auto kind : {BundleKind::application, BundleKind::extension}) {
      for (const auto standing : {BundleStanding::machine, BundleStanding::user}) {
        fs::remove_all(folder(kind, standing));
        fs::create_directories(folder(kind, standing));
      }
    }
  }

  static std::string machines(const std::string& name) {
    return folder(BundleKind::application, BundleStanding::machine) + "/" + name + ".app";
  }
  static std::string folder(BundleKind kind, BundleStanding standing) {
    return qx::bundleFolders(kind, standing).front();
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
      if (bundle->identifier != tool) text += bundle->identifier + " ";
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

  // More happens than the kernel keeps, while those who are told of changes hold the catalog up.
  unsigned limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  if (limit == 0 || limit > 100'000) return;
  // It goes on observing until the program ends.
  static auto& told = *new Gate;
  static auto& release = *new Gate;
  BundleCatalog::shared().observeChanges([] {
    told.pass();
    release.wait();
  });
  makeBundle(application("told"), "com.example.told");
  told.wait();
  // Equal events in a row would count as one.
  for (unsigned event = 0; event < 2 * limit; ++event) {
    std::ofstream(qx::Places::applications() + (event % 2 == 0 ? "/even" : "/odd"));
  }
  makeBundle(application("unheard"), "com.example.unheard");
  EXPECT_EQ(identifiers(),
            "com.example.A2 com.example.newer com.example.told com.example.unheard ");
  release.pass();
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

/// Who owns an executable and an identifier that several bundles claim.
TEST_F(BundleCatalogTest, ClaimsAreSettled) {
  LogCapture log;
  const auto program = programOf(application("one"));
  makeBundle(application("one"), "com.example.one");
  makeBundle(application("two"), "com.example.two");
  makeBundle(extension("three"), "com.example.three");
  ChildProcess one({program}), two({programOf(application("two"))}),
      three({programOf(extension("three"))});
  const auto claim = [&](const std::string& bundle, const std::string& identifier,
                         const std::string& executable = "program") {
    fs::create_directories(bundle);
    writeList(bundle + "/Info.plist", bundleInfo(identifier, executable));
  };
  const auto expect = [&](const std::string& identities) {
    EXPECT_EQ(identityOf(one) + " " + identityOf(two) + " " + identityOf(three), identities);
  };
  expect("com.example.one com.example.two com.example.three");

  // An executable, also by another name. Applications go before extensions.
  claim(extension("three"), "com.example.three", program);
  expect("com.example.one com.example.two nobody");
  claim(application("two"), "com.example.two", program);
  expect("nobody nobody nobody");
  fs::remove(programOf(application("two")));
  fs::create_hard_link(program, programOf(application("two")));
  claim(application("two"), "com.example.two");
  expect("nobody nobody nobody");
  fs::remove_all(application("two"));
  expect("com.example.one nobody nobody");

  // An identifier.
  makeBundle(application("two"), "com.example.one");
  ChildProcess anew({programOf(application("two"))});
  expect("nobody nobody nobody");
  EXPECT_EQ(identityOf(anew), "nobody");
  claim(application("two"), "com.example.two");
  claim(extension("three"), "com.example.one");
  expect("com.example.one nobody nobody");
  EXPECT_EQ(identityOf(anew), "com.example.two");

  // Extensions may share an executable; a process is the one that it was started as.
  const auto shared = programOf(extension("three"));
  claim(extension("three"), "com.example.three");
  claim(extension("four"), "com.example.four", shared);
  ChildProcess four({"env", "QX_EXTENSION_IDENTIFIER=com.example.four", shared});
  ChildProcess liar({"env", "QX_EXTENSION_IDENTIFIER=com.example.one", shared});
  EXPECT_EQ(four.ask("hello") + liar.ask("hello"), "hellohello");
  EXPECT_EQ(identityOf(four), "com.example.four");
  EXPECT_EQ(identityOf(liar), "nobody");
  EXPECT_EQ(identifiers(BundleKind::extension), "com.example.four com.example.three ");

  // What is the machine's no user's bundle has.
  makeBundle(machines("m"), "com.example.one");
  ChildProcess m({programOf(machines("m"))});
  EXPECT_EQ(identityOf(m), "com.example.one");
  expect("nobody nobody nobody");
  EXPECT_EQ(identifiers(), "com.example.one com.example.two ");
  EXPECT_EQ(BundleCatalog::shared().bundle(BundleKind::application, "com.example.one")->path,
            machines("m"));
  claim(application("one"), "com.example.m", programOf(machines("m")));
  EXPECT_EQ(identityOf(m), "com.example.one");
  EXPECT_EQ(identifiers(), "com.example.one com.example.two ");
  EXPECT_EQ(
      LogCapture::count("Skipping bundle " + application("one") + ": A bundle of the machine has"),
      2U);
  makeBundle(machines("n"), "com.example.one");
  EXPECT_EQ(identityOf(m), "nobody");
  fs::remove_all(machines("n"));
  EXPECT_EQ(identityOf(m), "com.example.one");

  // The tool's came with this build; one beside the machine's state goes before it.
  const auto pathOfTool = [] {
    const auto bundle = BundleCatalog::shared().bundle(BundleKind::application, tool);
    return bundle ? bundle->path : "none";
  };
  const std::string beside = pathOfTool();
  EXPECT_TRUE(beside.ends_with("/lib/docsource/Applications/docsource.app")) << beside;
  makeBundle(machines("tool"), tool);
  EXPECT_EQ(pathOfTool(), machines("tool"));
  fs::remove_all(machines("tool"));
  EXPECT_EQ(pathOfTool(), beside);
}

/// In another mount namespace a file is the same file; in another user namespace nobody is anybody,
/// unless it was recorded who.
TEST_F(BundleCatalogTest, ASandboxIsOneApplication) {
  auto bundle = application("one");
  makeBundle(bundle, "com.example.one");
  makeBundle(application("two"), "com.example.two", "/bin/cat", {{"com.example.right", true}});
  const auto program = programOf(bundle);
  ChildProcess impostor({"unshare", "--mount", "sh", "-c",
                         "mount --bind /bin/cat '" + program + "' && exec '" + program + "'"});
  if (impostor.ask("hello") == "hello") {
    EXPECT_EQ(identityOf(impostor), "nobody") << "the path alone proves nothing";
    ChildProcess moved({"unshare", "--mount", "sh", "-c",
                        "mount --bind '" + bundle + "' /mnt && exec /mnt/program"});
    ASSERT_EQ(moved.ask("hello"), "hello");
    EXPECT_EQ(identityOf(moved), "com.example.one");
  } else {
    std::puts("no mount namespaces here; those of users alone are looked at");
  }

  ChildProcess inner({"unshare", "--user", "--map-root-user", program});
  if (inner.ask("hello") != "hello") GTEST_SKIP() << "no user namespaces here";
  EXPECT_EQ(identityOf(inner), "nobody");
  const auto record = [](const ChildProcess& process, const std::string& application) {
    return qx::SandboxRecord::make(qx::ProcessDirectory::open(process.id())->openUserNamespace(),
                                   application);
  };
  ChildProcess nested(
      {"unshare", "--user", "--map-root-user", "unshare", "--user", "--map-root-user", program});
  ASSERT_EQ(nested.ask("hello"), "hello");
  EXPECT_FALSE(record(nested, "com.example.two")) << "the outermost is to be recorded";
  ChildProcess stranger({program});
  EXPECT_FALSE(record(stranger, "com.example.two")) << "this is no sandbox";

  std::string left;
  {
    const auto made = record(inner, "com.example.two");
    ASSERT_TRUE(made) << made.error().text();
    EXPECT_EQ(identityOf(inner), "com.example.two");
    EXPECT_EQ(qx::entitlementOfProcess(AuditToken::ofProcess(inner.id()), "com.example.right"),
              qx::Value(true));
    EXPECT_EQ(identityOf(nested), "nobody");
    // One without a bundle, or whose identifier is disputed, is nobody.
    makeBundle(application("three"), "com.example.two");
    EXPECT_EQ(identityOf(inner), "nobody");
    fs::remove_all(application("three"));
    EXPECT_EQ(identityOf(inner), "com.example.two");
    left = fs::directory_iterator(qx::Places::sandboxRecords())->path();
    fs::copy_file(left, left + ".copy");
  }
  EXPECT_FALSE(fs::exists(left));
  EXPECT_EQ(identityOf(inner), "nobody");
  // What a maker that was killed left behind counts for nothing, and the next one removes it.
  fs::rename(left + ".copy", left);
  EXPECT_EQ(identityOf(inner), "nobody");
  const auto next = record(inner, "com.example.one");
  EXPECT_EQ(identityOf(inner), "com.example.one");
  inner.end();
  ChildProcess other({"unshare", "--user", "--map-root-user", program});
  ASSERT_EQ(other.ask("hello"), "hello");
  const auto last = record(other, "com.example.two");
  EXPECT_EQ(identityOf(other), "com.example.two");
}

/// The daemon's right to host documents is not to be had by executing it in a sandbox.
TEST_F(BundleCatalogTest, ADaemonInASandboxIsNoDaemon) {
  const auto daemon = fs::path(ownProgram()).parent_path() / "docsourced";
  TemporaryDirectory root;
  const auto isHost = [](const ChildProcess& process) {
    return qx::entitlementOfProcess(AuditToken::ofProcess(process.id()),
                                    "com.veltro.file-coordination.host")
        .has_value();
  };
  {
    ChildProcess outside({"env", "DOCSOURCE_ROOT=" + root.path(), daemon});
    EXPECT_TRUE(eventually([&] { return isHost(outside); }));
  }
  ChildProcess inside(
      {"unshare", "--user", "--map-root-user", "env", "DOCSOURCE_ROOT=" + root.path(), daemon});
  const auto program = qx::identityOf([&] {
    struct stat status {};
    stat(daemon.c_str(), &status);
    return status;
  }());
  if (!eventually([&] {
        const auto process = qx::ProcessDirectory::open(inside.id());
        return process && process->executable() == program;
      })) {
    GTEST_SKIP() << "no user namespaces here";
  }
  EXPECT_FALSE(isHost(inside));
}

TEST_F(BundleCatalogTest, AnotherUsersProcessBelongsToNoBundle) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to run a program as another user";
  fs::permissions(temporaryRoot(), fs::perms(0755));
  makeBundle(application("one"), "com.example.one");
  ChildProcess other(
      {"setpriv", "--reuid=4001", "--regid=4001", "--clear-groups", programOf(application("one"))});
  ASSERT_EQ(other.ask("hello"), "hello");
  EXPECT_EQ(identityOf(other), "nobody");
}

/// A file whose opening is decided by somebody (fanotify(7)) who does not.
TEST_F(BundleCatalogTest, ABundleThatCannotBeReadHoldsUpNobodyElse) {
  makeBundle(application("good"), "com.example.good");
  ChildProcess process({programOf(application("good"))});
  EXPECT_EQ(identityOf(process), "com.example.good");
  qx::FileDescriptor guard(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY));
  const auto prepared = temporaryRoot() + "/prepared-hanging";
  makeBundle(prepared, "com.example.hanging");
  if (!guard || fanotify_mark(guard.get(), FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD,
                              (prepared + "/Info.plist").c_str()) != 0) {
    GTEST_SKIP() << "needs CAP_SYS_ADMIN, to hold a file up";
  }
  fs::rename(prepared, application("hanging"));
  // The first question finds it out, and no later one waits, whatever happens to the bundle.
  EXPECT_TRUE(eventually([&] { return identifiers() == "com.example.good "; }));
  const auto begun = std::chrono::steady_clock::now();
  constexpr int rounds = 100;
  for (int round = 0; round < rounds; ++round) {
    std::ofstream(application("hanging") + "/Entitlements.plist") << round;
    EXPECT_EQ(identityOf(process), "com.example.good");
  }
  // Half a second each, if one waited for it.
  EXPECT_LT(std::chrono::steady_clock::now() - begun, rounds * std::chrono::milliseconds(500));
  makeBundle(application("new"), "com.example.new");
  EXPECT_EQ(identifiers(), "com.example.good com.example.new ");
  // Another bundle takes its place while it is read.
  makeBundle(temporaryRoot() + "/prepared-next", "com.example.next");
  fs::rename(application("hanging"), prepared);
  fs::rename(temporaryRoot() + "/prepared-next", application("hanging"));
  guard.reset();
  EXPECT_TRUE(eventually(
      [&] { return identifiers() == "com.example.good com.example.next com.example.new "; }));
}

}  // namespace
